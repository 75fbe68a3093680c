// SPDX-License-Identifier: MIT
#include "folder.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "message.h"

namespace {

const std::string PREFIX = "pfbpanel-";
constexpr size_t NAME_LENGTH_MAX = 64;

// The folder in which the user's panels stand: the first of these that can be written to.
std::string base()
{
    const char *const wanted[] = {getenv("XDG_RUNTIME_DIR"), getenv("TMPDIR"), "/tmp"};
    for (const char *folder : wanted) {
        if (folder != nullptr && folder[0] == '/' && access(folder, W_OK | X_OK) == 0)
            return folder;
    }
    return "/tmp";
}

std::string parent(const std::string &path)
{
    return path.substr(0, path.rfind('/'));
}

std::string name_of(const std::string &path)
{
    return path.substr(path.rfind('/') + 1 + PREFIX.size());
}

bool is_own_folder(const std::string &path)
{
    struct stat info;
    return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == geteuid();
}

// Locks of the open file description: asking after one does not take it, and a fork does not lose it.
struct flock whole_file()
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool take_lock(int fd)
{
    struct flock lock = whole_file();
    return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool is_locked(int fd)
{
    struct flock lock = whole_file();
    return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

int remove_entry(const char *path, const struct stat *, int, FTW *)
{
    return remove(path);
}

// Out of sight first: nobody finds half a panel.
void remove_tree(const std::string &path)
{
    std::string hidden = parent(path) + "/.pfbpanel-XXXXXX";
    if (mkdtemp(hidden.data()) == nullptr || rename(path.c_str(), hidden.c_str()) != 0) {
        rmdir(hidden.c_str());
        hidden = path;
    }
    if (nftw(hidden.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS) != 0)
        complain_errno(hidden.c_str());
}

// Removes a folder whose pfbpanel is gone. False: it is running, or no panel's folder.
bool remove_stale(const std::string &path)
{
    const std::string lock_path = path + PANEL_LOCK;
    const int fd = is_own_folder(path) ? open(lock_path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW) : -1;
    if (fd < 0)
        return false;
    struct stat locked, there;
    // Another process may have replaced the folder between the opening and the locking.
    const bool stale = take_lock(fd) && fstat(fd, &locked) == 0 && lstat(lock_path.c_str(), &there) == 0 &&
                       locked.st_ino == there.st_ino && locked.st_dev == there.st_dev;
    if (stale)
        remove_tree(path);
    close(fd);
    return stale;
}

// Running or not.
std::vector<std::string> panels()
{
    std::vector<std::string> found;
    const std::string folder = base();
    DIR *directory = opendir(folder.c_str());
    if (directory == nullptr)
        return found;
    while (const dirent *entry = readdir(directory)) {
        if (strncmp(entry->d_name, PREFIX.c_str(), PREFIX.size()) == 0)
            found.push_back(folder + "/" + entry->d_name);
    }
    closedir(directory);
    std::sort(found.begin(), found.end());
    return found;
}

bool make_file(const std::string &path, uint32_t size)
{
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    // Really allocated: a full disk is found here, and not by the program as it draws.
    const int error = size > 0 ? posix_fallocate(fd, 0, size) : 0;
    close(fd);
    errno = error;
    return error == 0;
}

bool make_device(const std::string &path, int device, PanelNode node, uint32_t memory)
{
    if (node == PanelNode::NONE)
        return true;
    const std::string file = path + panel_nodes[device][node == PanelNode::OTHER ? 1 : 0];
    if (node == PanelNode::OTHER && mkdir(parent(file).c_str(), 0700) != 0 && errno != EEXIST)
        return false;
    return make_file(file, memory);
}

bool make_devices(const std::string &path, const PanelState &state, const PanelFaults &faults)
{
    if (mkdir((path + "/dev").c_str(), 0700) != 0)
        return false;
    for (int device = 0; device < PANEL_DEVICES; device++) {
        const uint32_t memory = state.device[device].memory;
        if (device != PANEL_CONSOLE && memory == 0)
            continue;
        if (!make_device(path, device, faults.node[device], memory))
            return false;
    }
    return state.device[PANEL_FB2].memory == 0 || make_file(path + PANEL_LAYER_LOG, 0);
}

bool make_state(PanelFolder *folder, const PanelState &state)
{
    const std::string path = folder->path + PANEL_STATE;
    if (!make_file(path, sizeof state))
        return false;
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    void *memory = fd < 0 ? MAP_FAILED : mmap(nullptr, sizeof state, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED)
        return false;
    folder->state = static_cast<PanelState *>(memory);
    *folder->state = state;
    return true;
}

bool make_lock(PanelFolder *folder)
{
    folder->lock = open((folder->path + PANEL_LOCK).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    return folder->lock >= 0 && take_lock(folder->lock);
}

bool make_hidden(PanelFolder *folder)
{
    folder->path = base() + "/.pfbpanel-XXXXXX";
    return mkdtemp(folder->path.data()) != nullptr;
}

bool rename_to(PanelFolder *folder, const std::string &path)
{
    // A panel's folder is never empty, so the rename refuses to replace one.
    if (rename(folder->path.c_str(), path.c_str()) != 0)
        return false;
    folder->path = path;
    return true;
}

bool give_name(PanelFolder *folder, const std::string &name)
{
    const std::string hidden_suffix = folder->path.substr(folder->path.size() - 6);
    const std::string own = name.empty() ? std::to_string(getpid()) + "." + hidden_suffix : name;
    const std::string path = parent(folder->path) + "/" + PREFIX + own;
    if (rename_to(folder, path))
        return true;
    if (folder_is_running(path))
        complain("the panel %s is already running", name.c_str());
    else
        complain_errno(path.c_str());
    return false;
}

} // namespace

bool folder_name_is_valid(const std::string &name)
{
    const char *allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    return !name.empty() && name.size() <= NAME_LENGTH_MAX && name.find_first_not_of(allowed) == std::string::npos;
}

bool folder_make(const std::string &name, const PanelState &state, const PanelFaults &faults, PanelFolder *folder)
{
    *folder = {"", -1, nullptr};
    for (const std::string &panel : panels())
        remove_stale(panel);
    if (!make_hidden(folder)) {
        complain_errno(folder->path.c_str());
        return false;
    }
    const bool filled = make_lock(folder) && make_state(folder, state) && make_devices(folder->path, state, faults);
    if (!filled)
        complain_errno(folder->path.c_str());
    if (filled && give_name(folder, name))
        return true;
    folder_remove(folder);
    return false;
}

void folder_remove(PanelFolder *folder)
{
    remove_tree(folder->path);
    if (folder->state != nullptr)
        munmap(folder->state, sizeof *folder->state);
    if (folder->lock >= 0)
        close(folder->lock);
    *folder = {"", -1, nullptr};
}

bool folder_is_running(const std::string &path)
{
    const int fd = is_own_folder(path) ? open((path + PANEL_LOCK).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW) : -1;
    if (fd < 0)
        return false;
    const bool locked = is_locked(fd);
    close(fd);
    return locked;
}

std::vector<std::string> folder_list()
{
    std::vector<std::string> running;
    for (const std::string &panel : panels()) {
        if (folder_is_running(panel))
            running.push_back(panel);
    }
    return running;
}

std::string folder_find(const std::string &name)
{
    for (const std::string &panel : folder_list()) {
        if (name_of(panel) == name)
            return panel;
    }
    return "";
}

std::string folder_name(const std::string &path)
{
    const std::string name = name_of(path);
    return name.find('.') == std::string::npos ? name : "-";
}

const PanelState *folder_read(const std::string &path)
{
    const std::string file = path + PANEL_STATE;
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        complain_errno(file.c_str());
        return nullptr;
    }
    void *memory = MAP_FAILED;
    if (lseek(fd, 0, SEEK_END) == off_t{sizeof(PanelState)})
        memory = mmap(nullptr, sizeof(PanelState), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    const PanelState *state = static_cast<const PanelState *>(memory);
    if (memory != MAP_FAILED && state->magic == PANEL_MAGIC && state->size == sizeof *state)
        return state;
    if (memory != MAP_FAILED)
        munmap(memory, sizeof(PanelState));
    complain("%s: another version's panel", path.c_str());
    return nullptr;
}

std::string folder_device(const std::string &path, int device)
{
    for (const char *node : panel_nodes[device]) {
        if (access((path + node).c_str(), F_OK) == 0)
            return path + node;
    }
    return "";
}
