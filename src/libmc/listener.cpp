// SPDX-License-Identifier: MIT
#include "listener.h"
#include "access.h"
#include "descriptors.h"
#include "log.h"
#include "names.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace libmc {

namespace {

constexpr mode_t LOCK_MODE = 0600;

struct LockPath {
    char text[sizeof(sockaddr_un::sun_path) + sizeof ".lock"];
};

LockPath lock_path(const sockaddr_un &address)
{
    LockPath path;
    snprintf(path.text, sizeof path.text, "%s.lock", address.sun_path);
    return path;
}

// Inside the folder. Every call but bind and connect, which know no folder, goes by it.
const char *name_of(const char *path)
{
    return strrchr(path, '/') + 1;
}

bool complain(const char *what, const char *path)
{
    log_line("%s %s: %s", what, path, strerror(errno));
    return false;
}

bool complain_taken(const char *path)
{
    log_line("another server already listens at %s", path);
    return false;
}

bool look_at(int folder_fd, const char *path, struct stat *file)
{
    return fstatat(folder_fd, name_of(path), file, AT_SYMLINK_NOFOLLOW) == 0;
}

bool same_file(int folder_fd, const char *path, dev_t device, ino_t inode)
{
    struct stat named;
    return look_at(folder_fd, path, &named) && named.st_dev == device && named.st_ino == inode;
}

// The server before us removes its lock file when it ends, and may do so after we opened that very file: the lock is
// then on a file that nobody else will ever meet.
bool lock_is_of_path(int fd, int folder_fd, const char *path)
{
    struct stat locked;
    return fstat(fd, &locked) == 0 && same_file(folder_fd, path, locked.st_dev, locked.st_ino);
}

// Whoever may open the file may hold its lock, and one with a further name is somebody's who does not know of this.
bool is_lock_file(const struct stat &file)
{
    return S_ISREG(file.st_mode) && file.st_uid == geteuid() && file.st_nlink <= 1;
}

bool complain_no_lock_file(const char *path)
{
    log_line("%s is in the way: it is not a lock file of this user", path);
    return false;
}

// Looks before it opens as well: opening is felt by devices and pipes.
int lock_file_open(int folder_fd, const char *path, bool *found)
{
    struct stat file;
    *found = look_at(folder_fd, path, &file);
    if (*found && !is_lock_file(file)) {
        complain_no_lock_file(path);
        return -1;
    }
    const ModeAtMost mode(LOCK_MODE);
    const int fd = openat(folder_fd, name_of(path), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, LOCK_MODE);
    if (fd < 0) {
        complain("cannot open", path);
        return -1;
    }
    if (fstat(fd, &file) == 0 && is_lock_file(file))
        return fd;
    complain_no_lock_file(path);
    close(fd);
    return -1;
}

enum class Lock { held, failed, again };

Lock lock_try(const char *path, Listener *listener)
{
    const int fd = lock_file_open(listener->folder_fd, path, &listener->found_lock);
    if (fd < 0)
        return Lock::failed;
    if (flock(fd, LOCK_EX | LOCK_NB) < 0) {
        if (errno == EWOULDBLOCK)
            complain_taken(listener->address.sun_path);
        else
            complain("cannot lock", path);
        close(fd);
        return Lock::failed;
    }
    if (!lock_is_of_path(fd, listener->folder_fd, path)) {
        close(fd);
        return Lock::again;
    }
    listener->lock_fd = fd;
    return Lock::held;
}

bool lock_take(Listener *listener)
{
    const LockPath path = lock_path(listener->address);
    for (int i = 0; i < 100; i++) {
        const Lock lock = lock_try(path.text, listener);
        if (lock != Lock::again)
            return lock == Lock::held;
    }
    log_line("%s vanishes again and again", path.text);
    return false;
}

// A server whose lock file somebody has removed still answers at its socket. Only a refused connection is the sign of
// a dead one: a full queue or a missing permission is an answer too. False after one line in the log.
bool nobody_listens(const sockaddr_un &address)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return complain("cannot tell whether a server listens at", address.sun_path);
    const int result = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const bool listens = result == 0 || (errno != ECONNREFUSED && errno != ENOENT);
    close(fd);
    return !listens || complain_taken(address.sun_path);
}

// Clears the place of the socket. Only a dead socket is ever removed; a link is not followed.
bool place_clear(const Listener &listener)
{
    const char *path = listener.address.sun_path;
    struct stat found;
    if (!look_at(listener.folder_fd, path, &found))
        return errno == ENOENT || complain("cannot look at", path);
    if (!S_ISSOCK(found.st_mode)) {
        log_line("%s is in the way: it is not a socket", path);
        return false;
    }
    if (!nobody_listens(listener.address))
        return false;
    return unlinkat(listener.folder_fd, name_of(path), 0) == 0 || errno == ENOENT || complain("cannot remove", path);
}

// The socket has its mode from the first moment on, whatever the umask is: nothing is changed by a name that could be
// another file's by then.
bool bind_with_mode(const Listener &listener, mode_t mode)
{
    const ModeAtMost at_most(mode);
    return bind(listener.fd, reinterpret_cast<const sockaddr *>(&listener.address), sizeof listener.address) == 0 ||
           complain("cannot bind", listener.address.sun_path);
}

bool set_owner(const Listener &listener, const Access &access)
{
    const char *path = listener.address.sun_path;
    if (access.user == NO_USER && access.group == NO_GROUP)
        return true;
    return fchownat(listener.folder_fd, name_of(path), access.user, access.group, AT_SYMLINK_NOFOLLOW) == 0 ||
           complain("cannot set the owner and the group of", path);
}

// Nobody can connect before the last step.
bool bind_and_listen(Listener *listener, const Access &access)
{
    const char *path = listener->address.sun_path;
    if (!bind_with_mode(*listener, access.mode))
        return false;
    struct stat bound;
    if (!look_at(listener->folder_fd, path, &bound))
        return complain("cannot look at", path);
    listener->device = bound.st_dev;
    listener->inode = bound.st_ino;
    if ((bound.st_mode & 07777) != access.mode) {
        log_line("%s has mode %o instead of %o", path, bound.st_mode & 07777, access.mode);
        return false;
    }
    listener->refuses = descriptors_refuse(listener->fd);
    return set_owner(*listener, access) && (listen(listener->fd, QUEUE_MAX) == 0 || complain("cannot listen at", path));
}

bool open_own(Listener *listener, const char *service)
{
    Access access;
    if (service_address(service, &listener->address) < 0)
        return complain("cannot use the service name", service ? service : "(none)");
    if (!access_read(&access))
        return false;
    const char *folder = runtime_folder();
    if (strcmp(folder, DEFAULT_FOLDER) == 0 && folder_make(folder) < 0)
        return complain("cannot make", folder);
    listener->folder_fd = folder_open(folder, access);
    if (listener->folder_fd < 0 || !lock_take(listener) || !place_clear(*listener))
        return false;
    listener->fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return listener->fd < 0 ? complain("cannot make a socket for", service) : bind_and_listen(listener, access);
}

void close_if_open(int *fd)
{
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

} // namespace

bool listener_open(Listener *listener, const char *service)
{
    *listener = {};
    listener->fd = listener->folder_fd = listener->lock_fd = -1;
    if (listener_take_activated(&listener->fd)) {
        if (listener->fd < 0)
            log_line("the service manager handed over no listening SOCK_SEQPACKET Unix socket");
        else
            descriptors_refuse(listener->fd); // those who wait in it may have sent some already
        return listener->fd >= 0;
    }
    if (open_own(listener, service))
        return true;
    listener_close(listener);
    return false;
}

void listener_close(Listener *listener)
{
    const char *path = listener->address.sun_path;
    const LockPath lock = lock_path(listener->address);
    if (listener->inode && same_file(listener->folder_fd, path, listener->device, listener->inode))
        unlinkat(listener->folder_fd, name_of(path), 0);
    close_if_open(&listener->fd);
    // One that lay there goes with the socket that was made under it, not with a refusal.
    const bool own_lock = listener->lock_fd >= 0 && (listener->inode || !listener->found_lock);
    if (own_lock && lock_is_of_path(listener->lock_fd, listener->folder_fd, lock.text))
        unlinkat(listener->folder_fd, name_of(lock.text), 0); // while the lock is still held
    close_if_open(&listener->lock_fd);
    close_if_open(&listener->folder_fd);
    listener->inode = 0;
}

} // namespace libmc
