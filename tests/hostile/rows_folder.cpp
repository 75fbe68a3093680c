// SPDX-License-Identifier: MIT
// The folder of the server's socket and lock: other servers, what lies in the way, and another user who may change the
// folder or something in it. As an ordinary user, who cannot become another one, these rows do what needs no other.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <tuple>
#include <unistd.h>

#include "another_user.h"
#include "further_server.h"
#include "misbehaviour.h"

namespace {

constexpr const char *SOCKET = "/pfb.mc", *LOCK = "/pfb.mc.lock";

void second_server(Stage &stage)
{
    for (int i = 0; i < 5; i++) {
        FurtherServer second(stage.folder());
        EXPECT_TRUE(wait_until([&] { return count_of(second.said(), "\n") > 0; }));
        EXPECT_NE(second.said().find("another server already listens at " + stage.socket_path()), std::string::npos)
            << second.said();
        EXPECT_TRUE(process_exists(second.pid())) << "it stays, and serves nobody";
        stage.done()++;
    }
}

void make_folder(const std::string &path, mode_t mode)
{
    EXPECT_EQ(mkdir(path.c_str(), 0700), 0) << strerror(errno);
    EXPECT_EQ(chmod(path.c_str(), mode), 0) << strerror(errno);
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path) << text;
}

// A file that is nobody else's business. What it holds, its owner and its mode stay, and nobody locks it.
class Treasure {
public:
    explicit Treasure(const std::string &path) : path_(path)
    {
        write_file(path, "untouched");
        EXPECT_EQ(chmod(path.c_str(), 0600), 0);
        before_ = status();
    }
    ~Treasure() { std::filesystem::remove(path_); }
    Treasure(const Treasure &) = delete;
    Treasure &operator=(const Treasure &) = delete;

    const std::string &path() const { return path_; }
    void expect_untouched() const
    {
        EXPECT_EQ(file_text(path_), "untouched");
        EXPECT_EQ(status(), before_);
        const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0) << "somebody holds its lock";
        close(fd);
    }

private:
    std::tuple<mode_t, uid_t, gid_t, off_t> status() const
    {
        struct stat file {};
        EXPECT_EQ(lstat(path_.c_str(), &file), 0) << strerror(errno);
        return {file.st_mode, file.st_uid, file.st_gid, file.st_size};
    }

    std::string path_;
    std::tuple<mode_t, uid_t, gid_t, off_t> before_;
};

int bound_socket(const std::string &path)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    return fd;
}

// The kinds of things that stand in a server's way. Each is made in `folder`, and stays while its maker runs.
struct Squatter {
    const char *line; // what the server says; nullptr: nothing, it serves
    bool foreign;     // only another user's is in the way
    void (*settle)(const std::string &folder, const std::string &treasure);
};

constexpr const char *NO_SOCKET = "is in the way: it is not a socket";
constexpr const char *NO_LOCK = "is in the way: it is not a lock file of this user";
constexpr const char *TAKEN = "another server already listens";

constexpr Squatter SQUATTERS[] = {
    {NO_LOCK, false,
     [](const std::string &folder, const std::string &treasure) {
         EXPECT_EQ(symlink(treasure.c_str(), (folder + LOCK).c_str()), 0);
     }},
    {NO_LOCK, false,
     [](const std::string &folder, const std::string &) {
         EXPECT_EQ(symlink((folder + "/nowhere").c_str(), (folder + LOCK).c_str()), 0);
     }},
    {NO_LOCK, false,
     [](const std::string &folder, const std::string &) { EXPECT_EQ(mkdir((folder + LOCK).c_str(), 0777), 0); }},
    {NO_LOCK, false,
     [](const std::string &folder, const std::string &) { EXPECT_EQ(mkfifo((folder + LOCK).c_str(), 0666), 0); }},
    {NO_LOCK, false, [](const std::string &folder, const std::string &) { bound_socket(folder + LOCK); }},
    {NO_LOCK, true, [](const std::string &folder, const std::string &) { write_file(folder + LOCK, "a file"); }},
    {NO_LOCK, true,
     [](const std::string &folder, const std::string &) {
         const int fd = open((folder + LOCK).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
         EXPECT_EQ(flock(fd, LOCK_EX), 0);
     }},
    {NO_SOCKET, false,
     [](const std::string &folder, const std::string &treasure) {
         EXPECT_EQ(symlink(treasure.c_str(), (folder + SOCKET).c_str()), 0);
     }},
    {NO_SOCKET, false,
     [](const std::string &folder, const std::string &) { // of a socket that would do
         listen(bound_socket(folder + "/elsewhere"), 10);
         EXPECT_EQ(symlink((folder + "/elsewhere").c_str(), (folder + SOCKET).c_str()), 0);
     }},
    {NO_SOCKET, false, [](const std::string &folder, const std::string &) { write_file(folder + SOCKET, "a file"); }},
    {NO_SOCKET, false,
     [](const std::string &folder, const std::string &) { EXPECT_EQ(mkfifo((folder + SOCKET).c_str(), 0666), 0); }},
    {NO_SOCKET, false,
     [](const std::string &folder, const std::string &) { EXPECT_EQ(mkdir((folder + SOCKET).c_str(), 0777), 0); }},
    {TAKEN, false, [](const std::string &folder, const std::string &) { listen(bound_socket(folder + SOCKET), 10); }},
    {nullptr, false, [](const std::string &folder, const std::string &) { close(bound_socket(folder + SOCKET)); }},
};

// Modes, owners and targets of what is in a folder: what must be the same afterwards.
std::string listing(const std::string &folder)
{
    std::string text;
    std::vector<std::string> names = folder_entries(folder);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        struct stat file {};
        EXPECT_EQ(lstat((folder + "/" + name).c_str(), &file), 0) << name;
        text += name + " " + std::to_string(file.st_mode) + " " + std::to_string(file.st_uid) + " " +
                std::to_string(file.st_ino) + " " + link_target(folder + "/" + name) + "\n";
    }
    return text;
}

void expect_serves(const std::string &folder)
{
    FurtherServer server(folder);
    EXPECT_TRUE(server.listens()) << server.said();
    EXPECT_EQ(server.said(), "");
}

void expect_withstood(const Squatter &squatter, const std::string &folder, const Treasure &treasure)
{
    ClientProcess stranger([&](ClientSteps &steps) {
        become_stranger(STRANGERS);
        umask(0);
        squatter.settle(folder, treasure.path());
        steps.reached();
    });
    stranger.wait();
    const std::string before = listing(folder);
    const size_t files = folder_entries(folder).size();
    if (squatter.line == nullptr) {
        expect_serves(folder);
        EXPECT_EQ(listing(folder), "");
    } else {
        FurtherServer server(folder);
        EXPECT_NE(server.said().find(squatter.line), std::string::npos) << server.said() << "\nfor\n" << before;
        EXPECT_EQ(count_of(server.said(), "\n"), 1u) << server.said();
        treasure.expect_untouched();
        // A lock file of its own goes a moment after the line.
        EXPECT_TRUE(wait_until([&] { return folder_entries(folder).size() == files; }));
        EXPECT_EQ(listing(folder), before);
    }
    treasure.expect_untouched();
    stranger.go();
    EXPECT_EQ(stranger.join(), 0);
}

// A folder like /tmp: everybody may make something there, and nobody may take away what is another's.
void squatters(Stage &stage)
{
    EXPECT_EQ(chmod(stage.folder().c_str(), 0755), 0);
    for (const Squatter &squatter : SQUATTERS) {
        if (squatter.foreign && !is_root())
            continue;
        const std::string folder = stage.folder() + "/squatted";
        const Treasure treasure(stage.folder() + "/treasure");
        make_folder(folder, 01777);
        expect_withstood(squatter, folder, treasure);
        std::filesystem::remove_all(folder);
        stage.done()++;
    }
}

// Links that another user could not make to a file that he may not write, where the kernel looks (protected_hardlinks).
void hard_links(Stage &stage)
{
    EXPECT_EQ(chmod(stage.folder().c_str(), 0755), 0);
    const std::string folder = stage.folder() + "/squatted";
    const Treasure treasure(stage.folder() + "/treasure");
    make_folder(folder, 01777);
    for (const auto &[name, line] : {std::pair{LOCK, NO_LOCK}, std::pair{SOCKET, NO_SOCKET}}) {
        EXPECT_EQ(link(treasure.path().c_str(), (folder + name).c_str()), 0) << strerror(errno);
        expect_refusal(folder, line);
        treasure.expect_untouched();
        EXPECT_EQ(unlink((folder + name).c_str()), 0) << "it is gone";
        stage.done()++;
    }
    // A live socket without its lock.
    EXPECT_EQ(link(stage.socket_path().c_str(), (folder + SOCKET).c_str()), 0);
    expect_refusal(folder, TAKEN);
    EXPECT_EQ(unlink((folder + SOCKET).c_str()), 0);
    stage.done()++;
    std::filesystem::remove_all(folder);
}

// Somebody else holds the lock of a folder in which no server runs.
void lock_taken(Stage &stage)
{
    const std::string folder = stage.folder() + "/squatted";
    make_folder(folder, 0755);
    const int fd = open((folder + LOCK).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(flock(fd, LOCK_EX), 0);
    for (int i = 0; i < 3; i++) {
        expect_refusal(folder, TAKEN);
        stage.done()++;
    }
    close(fd);
    std::filesystem::remove_all(folder);
}

[[noreturn]] void squat_without_end(const std::string &folder, const std::string &treasure,
                                    std::atomic<unsigned long> &n)
{
    umask(0);
    for (;; n++) {
        const std::string path = folder + (n % 2 == 0 ? LOCK : SOCKET);
        switch (n % 10 / 2) {
        case 0:
            (void)!symlink(treasure.c_str(), path.c_str());
            break;
        case 1:
            mkfifo(path.c_str(), 0666);
            break;
        case 2:
            mkdir(path.c_str(), 0777);
            break;
        case 3:
            close(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
            break;
        default:
            (void)!symlink((folder + "/nowhere").c_str(), path.c_str());
        }
        remove(path.c_str());
    }
}

uid_t owner_of(const std::string &path)
{
    struct stat file {};
    return lstat(path.c_str(), &file) == 0 ? file.st_uid : static_cast<uid_t>(-1);
}

// Each start meets another moment of it.
void squatter_at_work(Stage &stage)
{
    EXPECT_EQ(chmod(stage.folder().c_str(), 0755), 0);
    const std::string folder = stage.folder() + "/squatted";
    const Treasure treasure(stage.folder() + "/treasure");
    make_folder(folder, 01777);
    SharedCount changes;
    ClientProcess stranger([&](ClientSteps &) {
        become_stranger(STRANGERS);
        squat_without_end(folder, treasure.path(), *changes);
    });
    for (int i = 0; i < 40; i++) {
        const unsigned long before = *changes;
        EXPECT_TRUE(wait_until([&] { return *changes > before; }));
        {
            FurtherServer server(folder);
            EXPECT_EQ(count_of(server.said(), "\n"), server.listens() ? 0u : 1u) << server.said();
            treasure.expect_untouched();
            if (server.listens() && is_root()) { // the stranger can take neither file away
                EXPECT_EQ(owner_of(folder + SOCKET), geteuid());
                EXPECT_EQ(owner_of(folder + LOCK), geteuid());
            }
        }
        EXPECT_FALSE(file_exists(folder + "/nowhere"));
        stage.done()++;
    }
    stranger.kill(SIGKILL);
    stranger.join();
    std::filesystem::remove_all(folder);
}

void give_folder(const std::string &path, uid_t user, gid_t group, mode_t mode)
{
    make_folder(path, 0700);
    EXPECT_EQ(chown(path.c_str(), user, group), 0) << strerror(errno);
    EXPECT_EQ(chmod(path.c_str(), mode), 0) << strerror(errno);
}

// Who owns a folder, and whom it lets write; what a server says of it, or nullptr: it serves.
struct Ownership {
    uid_t user;
    gid_t group;
    mode_t mode;
    const char *line;
};

void folder_of_others(Stage &stage)
{
    const uid_t own = geteuid();
    const gid_t own_group = getegid();
    std::vector<Ownership> folders = {
        {own, own_group, 0777, "everybody may write there"},
        {own, own_group, 0757, "everybody may write there"},
        {own, own_group, 01777, nullptr},
        {own, own_group, 0775, nullptr},
        {own, own_group, 02770, nullptr},
        {own, own_group, 0700, nullptr},
    };
    if (is_root()) {
        folders.insert(folders.end(), {
                                          {STRANGER, STRANGERS, 0755, "it belongs to another user"},
                                          {STRANGER, STRANGERS, 01777, "it belongs to another user"},
                                          {own, DISPLAY_GROUP, 0775, "a group that may not connect may write there"},
                                          {own, DISPLAY_GROUP, 01775, nullptr},
                                          {own, DISPLAY_GROUP, 02775, nullptr}, // its members may connect
                                      });
    }
    const std::string folder = stage.folder() + "/owned";
    for (const Ownership &ownership : folders) {
        give_folder(folder, ownership.user, ownership.group, ownership.mode);
        if (ownership.line == nullptr)
            expect_serves(folder);
        else
            expect_refusal(folder, folder + " is not used: " + ownership.line);
        EXPECT_EQ(listing(folder), "");
        EXPECT_EQ(rmdir(folder.c_str()), 0);
        stage.done()++;
    }
}

// The name of the server's folder is a link that another user may turn anywhere.
void folder_by_link(Stage &stage)
{
    EXPECT_EQ(chmod(stage.folder().c_str(), 0755), 0);
    const std::string folder = stage.folder() + "/good";
    const std::string link = stage.folder() + "/link";
    make_folder(folder, 0755);
    EXPECT_EQ(symlink(folder.c_str(), link.c_str()), 0);
    expect_serves(link); // an own one is as good as the folder
    stage.done()++;
    if (is_root()) {
        EXPECT_EQ(lchown(link.c_str(), STRANGER, STRANGERS), 0);
        expect_refusal(link, link + " is not used: it belongs to another user");
        stage.done()++;
    }
    EXPECT_EQ(listing(folder), "");
    unlink(link.c_str());
    rmdir(folder.c_str());
}

// The folder above it is another user's, who therefore may rename the server's and put another in its place.
void folder_renamed(Stage &stage)
{
    EXPECT_EQ(chmod(stage.folder().c_str(), 0755), 0);
    const std::string above = stage.folder() + "/above";
    const std::string folder = above + "/run";
    const std::string other = stage.folder() + "/other"; // a folder that is nobody else's business
    for (int i = 0; i < 3; i++) {
        make_folder(above, 0755);
        make_folder(folder, 0755);
        make_folder(other, 0755);
        write_file(other + SOCKET, "a file");
        write_file(other + LOCK, "a file");
        if (is_root()) {
            EXPECT_EQ(chown(above.c_str(), STRANGER, STRANGERS), 0);
        }
        const std::string before = listing(other);
        {
            const FurtherServer server(folder);
            ClientProcess stranger([&](ClientSteps &) {
                become_stranger(STRANGERS);
                EXPECT_EQ(rename(folder.c_str(), (above + "/moved").c_str()), 0) << strerror(errno);
                EXPECT_EQ(symlink(other.c_str(), folder.c_str()), 0);
            });
            EXPECT_EQ(stranger.join(), 0);
            EXPECT_TRUE(server.listens());
            EXPECT_EQ(count_of(listing(above + "/moved"), "pfb.mc"), 2u);
        }
        EXPECT_EQ(listing(other), before);
        EXPECT_EQ(listing(above + "/moved"), "");
        std::filesystem::remove_all(above);
        std::filesystem::remove_all(other);
        stage.done()++;
    }
}

} // namespace

std::vector<Misbehaviour> folder_rows()
{
    return {
        {"SecondServer",
         "a second server is started",
         "it says so in one line, and serves nobody",
         "servers",
         {},
         second_server},
        {"LockTaken",
         "somebody else holds the lock of a server's folder",
         "it says so in one line",
         "servers",
         {},
         lock_taken},
        {"Squatters",
         "another user has put links, files, folders, a held lock or a live socket into a folder like `/tmp` (mode "
         "1777), where a server's socket or lock would be",
         "it says so in one line; nothing is followed, removed, locked or written to. A dead socket is taken over",
         "servers",
         {},
         squatters},
        {"SquatterAtWork",
         "another user makes and removes such things there without end, while servers start",
         "each serves or says a line; nothing is followed, locked or written to",
         "servers",
         {},
         squatter_at_work},
        {"HardLinks",
         "hard links to another file, or to a live socket, stand where a server's socket or lock would be",
         "it says so in one line; the file is neither locked nor written to",
         "servers",
         {times(1, "hung up without a greeting")},
         hard_links},
        {"FolderOfOthers",
         "a server's folder belongs to another user; or everybody may write to it, or a group that may not connect, "
         "without a sticky bit",
         "it says so in one line, and makes nothing there. Where a group that may connect may write, it serves",
         "servers",
         {},
         folder_of_others},
        {"FolderByLink",
         "the name of a server's folder is another user's link",
         "it says so in one line, and makes nothing where that leads",
         "servers",
         {},
         folder_by_link},
        {"FolderRenamed",
         "another user, who owns the folder above it, renames the folder of a running server, and puts a link to "
         "another in its place",
         "it goes on, and at its end removes its own files, and nothing in the other folder. Newcomers go where the "
         "link leads",
         "servers",
         {},
         folder_renamed},
    };
}
