// SPDX-License-Identifier: MIT
// The listening socket: its place, its lock, what may lie in its way, and sockets of the service manager.
#include "mc_support.h"

#include "access.h"
#include "names.h"

#include <csignal>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

// What somebody else does between the look at a lock file's place and its opening: the umask is set there.
static std::function<void()> before_lock_is_opened;

extern "C" mode_t __real_umask(mode_t mask);
extern "C" mode_t __wrap_umask(mode_t mask)
{
    if (mask == 0177 && before_lock_is_opened)
        std::exchange(before_lock_is_opened, nullptr)();
    return __real_umask(mask);
}

namespace {

namespace files = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using McListener = McTest;

mode_t mode_of(const std::string &file)
{
    struct stat status;
    return lstat(file.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// A server in a process of its own; returns when it listens.
pid_t server_process(const char *service)
{
    int ready[2];
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t child = in_child([&] {
        mc_factory *factory = open_noting(service);
        if (!factory || write(ready[1], "!", 1) != 1)
            return 1;
        for (;;)
            g_main_context_iteration(nullptr, TRUE);
    });
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    return child;
}

void expect_open(const char *service)
{
    mc_factory *factory = open_noting(service);
    ASSERT_NE(factory, nullptr);
    const Fd client = raw_client(service, "a");
    settle();
    EXPECT_EQ(events.back(), "connect a");
    mc_factory_close(factory);
}

void expect_refused(const char *service, const std::string &reason)
{
    log_lines.clear();
    mc_factory *factory = open_noting(service);
    EXPECT_EQ(factory, nullptr);
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr(reason)));
    mc_factory_close(factory);
}

TEST_F(McListener, LeavesNothingBehind)
{
    mc_factory *factory = open_noting("svc");
    ASSERT_NE(factory, nullptr);
    EXPECT_TRUE(files::is_socket(path("svc.mc")));
    EXPECT_TRUE(files::is_regular_file(path("svc.mc.lock")));
    mc_factory_close(factory);
    EXPECT_TRUE(files::is_empty(folder));
}

TEST_F(McListener, TheModeDoesNotDependOnTheUmask)
{
    for (const mode_t mask : {0000u, 0022u, 0077u, 0777u}) {
        const mode_t before = umask(mask);
        mc_factory *factory = open_noting("svc");
        EXPECT_EQ(umask(before), mask) << "it is not as it was";
        ASSERT_NE(factory, nullptr);
        EXPECT_EQ(mode_of(path("svc.mc")), 0660u) << mask;
        EXPECT_EQ(mode_of(path("svc.mc.lock")), 0600u) << mask;
        mc_factory_close(factory);
    }
}

// A mode that is set by name afterwards is, until then, another one, and may be set on another file.
TEST_F(McListener, TheSocketHasItsModeFromTheFirstMomentOn)
{
    const Fd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(watch.get(), folder.c_str(), IN_CREATE | IN_ATTRIB), 0);
    const mode_t before = umask(0);
    mc_factory *factory = open_noting("svc");
    umask(before);
    ASSERT_NE(factory, nullptr);
    alignas(inotify_event) char buffer[4096];
    const ssize_t n = read(watch.get(), buffer, sizeof buffer);
    std::vector<std::string> seen;
    for (ssize_t at = 0; at < n;) {
        const auto *event = reinterpret_cast<const inotify_event *>(buffer + at);
        seen.push_back((event->mask == IN_CREATE ? "made " : "changed ") + std::string(event->name));
        at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    EXPECT_THAT(seen, ElementsAre("made svc.mc.lock", "made svc.mc"));
    mc_factory_close(factory);
}

struct Pipe {
    Pipe()
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        out.reset(ends[0]);
        in.reset(ends[1]);
    }
    Fd out, in;
};

struct Setting {
    const char *variable;
    std::string value;
    ~Setting() { unsetenv(variable); }
    Setting(const char *variable, const std::string &value) : variable(variable), value(value)
    {
        setenv(variable, value.c_str(), 1);
    }
};

struct stat status_of(const std::string &file)
{
    struct stat status = {};
    EXPECT_EQ(lstat(file.c_str(), &status), 0) << strerror(errno);
    return status;
}

TEST_F(McListener, WhoeverPackagesItSetsTheMode)
{
    for (const auto &[text, mode] :
         {std::pair{"0600", 0600u}, {"666", 0666u}, {"0", 0u}, {"0777", 0777u}, {"", 0660u}}) {
        const Setting setting("MC_SOCKET_MODE", text);
        mc_factory *factory = open_noting("svc");
        ASSERT_NE(factory, nullptr) << text;
        EXPECT_EQ(mode_of(path("svc.mc")), mode) << text;
        EXPECT_EQ(mode_of(path("svc.mc.lock")), 0600u) << text;
        mc_factory_close(factory);
    }
}

// As root those of nobody; everybody else can give a socket to himself alone.
TEST_F(McListener, WhoeverPackagesItSetsTheOwnerAndTheGroup)
{
    const bool root = geteuid() == 0;
    const uid_t user = root ? 54321 : geteuid();
    const gid_t group = root ? 54322 : getegid();
    for (const bool by_name : {false, true}) {
        const passwd *user_entry = getpwuid(root && by_name ? 1 : user);
        const struct group *group_entry = getgrgid(root && by_name ? 2 : group);
        if (by_name && (!user_entry || !group_entry))
            continue; // a user without a name
        const Setting of_user("MC_SOCKET_USER", by_name ? user_entry->pw_name : std::to_string(user));
        const Setting of_group("MC_SOCKET_GROUP", by_name ? group_entry->gr_name : std::to_string(group));
        mc_factory *factory = open_noting("svc");
        ASSERT_NE(factory, nullptr) << log_lines.at(0);
        EXPECT_EQ(status_of(path("svc.mc")).st_uid, by_name ? user_entry->pw_uid : user);
        EXPECT_EQ(status_of(path("svc.mc")).st_gid, by_name ? group_entry->gr_gid : group);
        EXPECT_EQ(mode_of(path("svc.mc")), 0660u);
        EXPECT_EQ(status_of(path("svc.mc.lock")).st_uid, geteuid());
        mc_factory_close(factory);
    }
    EXPECT_TRUE(files::is_empty(folder));
}

TEST_F(McListener, AWrongOwnerGroupOrModeIsRefused)
{
    for (const auto &[variable, value] : {std::pair{"MC_SOCKET_USER", "no such user"},
                                          {"MC_SOCKET_USER", "4294967295"},
                                          {"MC_SOCKET_USER", "-1"},
                                          {"MC_SOCKET_GROUP", "no such group"},
                                          {"MC_SOCKET_GROUP", "12x"},
                                          {"MC_SOCKET_MODE", "1660"},
                                          {"MC_SOCKET_MODE", "0668"},
                                          {"MC_SOCKET_MODE", "rw"},
                                          {"MC_SOCKET_MODE", " 660"}}) {
        const Setting setting(variable, value);
        expect_refused("svc", std::string(variable) + " is \"" + value + "\": there is no such");
    }
    EXPECT_TRUE(files::is_empty(folder));
}

// What a server of another user, or of this one where nobody can become another, says in its only line.
std::string line_of_ordinary_server()
{
    Pipe line;
    const int status = wait_for(in_child([&] {
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(54321) != 0 || setuid(54321) != 0))
            return 2;
        const bool refused = !open_noting("svc") && log_lines.size() == 1;
        return refused && write(line.in.get(), log_lines[0].data(), log_lines[0].size()) > 0 ? 0 : 1;
    }));
    EXPECT_EQ(status, 0);
    line.in.reset();
    char text[500];
    const ssize_t n = read(line.out.get(), text, sizeof text);
    return {text, n > 0 ? static_cast<size_t>(n) : 0};
}

TEST_F(McListener, AServerThatMayNotGiveItsSocketAwayServesNobody)
{
    ASSERT_EQ(chmod(folder.c_str(), 01777), 0);
    const Setting of_user("MC_SOCKET_USER", "1");
    EXPECT_THAT(line_of_ordinary_server(),
                HasSubstr("cannot set the owner and the group of " + path("svc.mc") + ": Operation not permitted"));
    EXPECT_TRUE(files::is_empty(folder));
}

TEST_F(McListener, ADeadSocketThatMayNotBeTakenAwayStays)
{
    if (geteuid() != 0)
        return; // one's own may be
    ASSERT_EQ(chmod(folder.c_str(), 01777), 0);
    raw_listen(path("svc.mc"));
    ASSERT_EQ(chmod(path("svc.mc").c_str(), 0666), 0);
    EXPECT_THAT(line_of_ordinary_server(), HasSubstr("cannot remove " + path("svc.mc")));
    EXPECT_TRUE(files::exists(path("svc.mc")));
    EXPECT_FALSE(files::exists(path("svc.mc.lock")));
}

// The group that a socket is given may write to the folder: its members may connect.
TEST_F(McListener, TheSetGroupMayWriteToTheFolder)
{
    const gid_t group = geteuid() == 0 ? 54322 : getegid();
    ASSERT_EQ(chown(folder.c_str(), static_cast<uid_t>(-1), group), 0);
    ASSERT_EQ(chmod(folder.c_str(), 0770), 0);
    const Setting of_group("MC_SOCKET_GROUP", std::to_string(group));
    expect_open("svc");
    const Setting mode("MC_SOCKET_MODE", "0600"); // and then they may not
    expect_refused("svc", folder + " is not used: a group that may not connect may write there");
}

struct FolderCase {
    uid_t user;
    gid_t group;
    mode_t mode;
    const char *fault; // for a server of user 1000; group 2000 may connect
};

TEST_F(McListener, AFolderIsUsedWhenNobodyElseCanReplaceTheSocket)
{
    constexpr const char *OTHER = "it belongs to another user", *EVERYBODY = "everybody may write there",
                         *GROUP = "a group that may not connect may write there";
    for (const FolderCase &folder : {
             FolderCase{1000, 1, 0700, nullptr},
             {0, 1, 0755, nullptr},
             {1001, 1, 0755, OTHER},
             {1001, 2000, 01777, OTHER},
             {1000, 1, 0777, EVERYBODY},
             {1000, 2000, 0702, EVERYBODY},
             {0, 1, 0777, EVERYBODY},
             {0, 0, 01777, nullptr},
             {1000, 1, 03777, nullptr},
             {1000, 1, 0770, GROUP},
             {1000, 1, 01770, nullptr},
             {1000, 2000, 0770, nullptr},
             {0, 2000, 0720, nullptr},
         }) {
        struct stat status = {};
        status.st_uid = folder.user;
        status.st_gid = folder.group;
        status.st_mode = S_IFDIR | folder.mode;
        EXPECT_STREQ(libmc::folder_fault(status, 1000, 2000), folder.fault)
            << folder.user << " " << folder.group << " " << std::oct << folder.mode;
        if (folder.mode & S_IWGRP && !folder.fault && !(folder.mode & S_ISVTX)) {
            EXPECT_STREQ(libmc::folder_fault(status, 1000, libmc::NO_GROUP), GROUP);
        }
    }
}

TEST_F(McListener, AFolderInWhichEverybodyMayReplaceTheSocketIsNotUsed)
{
    ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
    expect_refused("svc", folder + " is not used: everybody may write there");
    EXPECT_TRUE(files::is_empty(folder));
    ASSERT_EQ(chmod(folder.c_str(), 01777), 0);
    expect_open("svc");
}

TEST_F(McListener, ASecondServerIsRefused)
{
    mc_factory *factory = open_noting("svc");
    expect_refused("svc", "another server already listens at " + path("svc.mc"));
    const Fd client = raw_client("svc", "a"); // the first one does not mind
    settle();
    EXPECT_THAT(events, ElementsAre("connect a"));
    mc_factory_close(factory);
    expect_open("svc");
}

TEST_F(McListener, AServerInAnotherProcessIsRespectedUntilItIsDead)
{
    const pid_t server = server_process("svc");
    expect_refused("svc", "another server already listens at");
    ASSERT_EQ(kill(server, SIGKILL), 0);
    EXPECT_EQ(wait_for(server), -1);
    EXPECT_TRUE(files::exists(path("svc.mc"))); // stale
    expect_open("svc");
    EXPECT_TRUE(files::is_empty(folder));
}

TEST_F(McListener, ALiveServerWithoutItsLockFileIsRespected)
{
    mc_factory *factory = open_noting("svc");
    files::remove(path("svc.mc.lock"));
    expect_refused("svc", "another server already listens at");
    const Fd client = raw_client("svc", "a");
    EXPECT_TRUE(turn_until([] { return !events.empty(); }));
    mc_factory_close(factory);
}

// Whether it lives is not known when nobody can be asked.
TEST_F(McListener, ALiveServerIsRespectedWhenDescriptorsRunOut)
{
    mc_factory *factory = open_noting("svc");
    files::remove(path("svc.mc.lock"));
    {
        const NoDescriptors no_descriptors;
        rlimit more;
        getrlimit(RLIMIT_NOFILE, &more);
        more.rlim_cur += 2; // for the folder and the lock
        setrlimit(RLIMIT_NOFILE, &more);
        expect_refused("svc", "cannot tell whether a server listens at");
    }
    const Fd client = raw_client("svc", "a");
    EXPECT_TRUE(turn_until([] { return !events.empty(); }));
    mc_factory_close(factory);
}

TEST_F(McListener, OnlyTheOwnSocketIsRemoved)
{
    mc_factory *factory = open_noting("svc");
    files::remove(path("svc.mc"));
    const Fd other = raw_listen(path("svc.mc"));
    mc_factory_close(factory);
    EXPECT_TRUE(files::exists(path("svc.mc")));
}

TEST_F(McListener, WhatIsNotASocketStaysInTheWay)
{
    std::ofstream(path("svc.mc")) << "precious";
    expect_refused("svc", "it is not a socket");
    EXPECT_EQ(files::file_size(path("svc.mc")), 8u);
    files::create_directory(path("dir.mc"));
    expect_refused("dir", "it is not a socket");
}

// A server that refuses takes away what it has made and nothing else, whoever has put it there.
TEST_F(McListener, ARefusalLeavesTheFolderAsItWas)
{
    std::ofstream(path("svc.mc")) << "in the way";
    expect_refused("svc", "it is not a socket");
    EXPECT_FALSE(files::exists(path("svc.mc.lock")));
    for (const char *text : {"", "precious"}) {
        std::ofstream(path("svc.mc.lock")) << text;
        expect_refused("svc", "it is not a socket");
        ASSERT_TRUE(files::exists(path("svc.mc.lock")));
        EXPECT_EQ(files::file_size(path("svc.mc.lock")), strlen(text));
    }
}

TEST_F(McListener, WhatAKilledServerHasLeftIsTakenOverAndGoesAtTheEnd)
{
    std::ofstream(path("svc.mc.lock")) << "";
    expect_open("svc");
    EXPECT_TRUE(files::is_empty(folder));
}

TEST_F(McListener, LinksAreNotFollowed)
{
    const Fd stale = raw_listen(path("target"));
    files::create_symlink(path("target"), path("svc.mc"));
    expect_refused("svc", "it is not a socket");
    EXPECT_TRUE(files::exists(path("target")));
    files::create_symlink(path("made"), path("lock.mc.lock"));
    expect_refused("lock", "is in the way: it is not a lock file of this user");
    EXPECT_FALSE(files::exists(path("made")));
}

TEST_F(McListener, WhatIsNoLockFileStaysInTheWay)
{
    ASSERT_EQ(mkfifo(path("svc.mc.lock").c_str(), 0600), 0);
    expect_refused("svc", path("svc.mc.lock") + " is in the way: it is not a lock file of this user");
    EXPECT_TRUE(files::is_fifo(path("svc.mc.lock")));
    std::ofstream(path("precious")) << "precious";
    files::create_hard_link(path("precious"), path("linked.mc.lock"));
    expect_refused("linked", "is in the way: it is not a lock file of this user");
    EXPECT_EQ(files::hard_link_count(path("precious")), 2u);
}

TEST_F(McListener, WhatIsPutInItsPlaceAtTheLastMomentIsNotUsedAsALockFile)
{
    std::ofstream(path("precious")) << "precious";
    before_lock_is_opened = [this] { files::create_hard_link(path("precious"), path("svc.mc.lock")); };
    expect_refused("svc", "is in the way: it is not a lock file of this user");
    EXPECT_EQ(files::hard_link_count(path("precious")), 2u);
    before_lock_is_opened = [this] { files::create_symlink(path("made"), path("link.mc.lock")); };
    expect_refused("link", "cannot open " + path("link.mc.lock") + ": Too many levels of symbolic links");
    EXPECT_FALSE(files::exists(path("made")));
    before_lock_is_opened = [this] { ASSERT_EQ(mkfifo(path("fifo.mc.lock").c_str(), 0600), 0); };
    expect_refused("fifo", "is in the way: it is not a lock file of this user");
}

TEST_F(McListener, AStaleLockFileIsTakenOver)
{
    std::ofstream(path("svc.mc.lock")) << "of a server that is gone";
    expect_open("svc");
    EXPECT_TRUE(files::is_empty(folder));
}

TEST_F(McListener, OnlyTheOwnLockFileIsRemoved)
{
    mc_factory *factory = open_noting("svc");
    files::remove(path("svc.mc.lock"));
    std::ofstream(path("svc.mc.lock")) << "of another server";
    mc_factory_close(factory);
    EXPECT_TRUE(files::exists(path("svc.mc.lock")));
    EXPECT_FALSE(files::exists(path("svc.mc")));
}

// Both files are met through the folder itself.
TEST_F(McListener, AFolderThatIsRenamedIsLeftEmpty)
{
    const std::string moved = folder + "-moved";
    mc_factory *factory = open_noting("svc");
    files::rename(folder, moved);
    files::create_directory(folder);
    std::ofstream(path("svc.mc")) << "of somebody else";
    std::ofstream(path("svc.mc.lock")) << "of somebody else";
    mc_factory_close(factory);
    EXPECT_TRUE(files::exists(path("svc.mc")) && files::exists(path("svc.mc.lock")));
    EXPECT_TRUE(files::is_empty(moved));
    files::remove_all(moved);
}

TEST_F(McListener, AFolderByALinkIsUsed)
{
    const std::string real = path("real");
    files::create_directory(real);
    files::create_directory_symlink(real, path("link"));
    for (const char *name : {"/link", "/link/", "/real//"}) {
        setenv("MC_RUNTIME_DIR", (folder + name).c_str(), 1);
        expect_open("svc");
        EXPECT_TRUE(files::is_empty(real));
    }
    if (geteuid() == 0) { // its owner could turn it elsewhere, also where a slash follows
        ASSERT_EQ(lchown(path("link").c_str(), 54321, 54321), 0);
        for (const char *name : {"/link", "/link/", "/link//"}) {
            setenv("MC_RUNTIME_DIR", (folder + name).c_str(), 1);
            expect_refused("svc", "is not used: it belongs to another user");
        }
    }
}

TEST_F(McListener, NamesAreChecked)
{
    expect_refused("", "cannot use the service name");
    expect_refused("a/b", "cannot use the service name");
    expect_refused(std::string(200, 's').c_str(), "File name too long");
    EXPECT_EQ(mc_factory_open(nullptr, note_connection, nullptr, nullptr), nullptr);
    EXPECT_EQ(mc_factory_open("svc", nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(mc_factory_open("svc", note_connection, nullptr, &folder), nullptr);
    EXPECT_TRUE(files::is_empty(folder));
}

TEST_F(McListener, TheLongestPathThatFitsIsUsed)
{
    const size_t room = sizeof(sockaddr_un::sun_path) - 1 - strlen("/.mc") - folder.size();
    expect_refused(std::string(room + 1, 's').c_str(), "File name too long");
    expect_open(std::string(room, 's').c_str());
}

TEST_F(McListener, AMissingFolderIsReported)
{
    files::remove_all(folder);
    expect_refused("svc", "cannot open " + folder + ": No such file");
    EXPECT_FALSE(files::exists(folder));
}

TEST_F(McListener, TheFolderIsTheFirstThatIsSet)
{
    const char *session = getenv("XDG_RUNTIME_DIR");
    const std::string before = session ? session : "";
    setenv("XDG_RUNTIME_DIR", "/of/session", 1);
    EXPECT_EQ(libmc::runtime_folder(), folder);
    setenv("MC_RUNTIME_DIR", "", 1);
    EXPECT_STREQ(libmc::runtime_folder(), "/of/session");
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_STREQ(libmc::runtime_folder(), "/run/mc");
    if (session)
        setenv("XDG_RUNTIME_DIR", before.c_str(), 1);
}

TEST_F(McListener, TheOwnFolderIsMadeWithItsMode)
{
    const mode_t before = umask(0077);
    EXPECT_EQ(libmc::folder_make(path("made").c_str()), 0);
    umask(before);
    EXPECT_EQ(mode_of(path("made")), 0755u);
    ASSERT_EQ(chmod(path("made").c_str(), 0700), 0);
    EXPECT_EQ(libmc::folder_make(path("made").c_str()), 0);
    EXPECT_EQ(mode_of(path("made")), 0700u); // what was there stays as it was
    EXPECT_EQ(libmc::folder_make(path("no/such").c_str()), -1);
}

bool environment_is_used_up()
{
    return !getenv("LISTEN_PID") && !getenv("LISTEN_FDS") && !getenv("LISTEN_FDNAMES");
}

TEST_F(McListener, TakesTheSocketOfTheServiceManager)
{
    const Fd listening = raw_listen(path("svc.mc"));
    const Fd plain(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int result = run_activated({plain.get(), listening.get()}, 0, [&] {
        mc_factory *factory = open_noting("svc");
        if (!factory || !environment_is_used_up())
            return 1;
        if (factory->listener.fd != 4 || fcntl(3, F_GETFD) != FD_CLOEXEC || fcntl(4, F_GETFD) != FD_CLOEXEC)
            return 2;
        if (files::exists(path("svc.mc.lock")))
            return 3;
        Fd client = raw_client("svc", "a");
        settle();
        if (events != std::vector<std::string>{"connect a"})
            return 4;
        mc_factory_close(factory);
        return files::exists(path("svc.mc")) ? 0 : 5;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(McListener, RefusesAWrongSocketOfTheServiceManager)
{
    const Fd not_listening(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const Fd stream(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(listen(stream.get(), 1), -1); // not even bound
    const int result = run_activated({not_listening.get(), stream.get()}, 0, [] {
        mc_factory *factory = open_noting("svc");
        return !factory && environment_is_used_up() && log_lines.size() == 1 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(files::is_empty(folder));
}

TEST_F(McListener, IgnoresSocketsMeantForAnotherProcess)
{
    const Fd listening = raw_listen(path("elsewhere"));
    const int result = run_activated({listening.get()}, getpid(), [] {
        mc_factory *factory = open_noting("svc");
        const bool own = factory && factory->listener.lock_fd >= 0 && getenv("LISTEN_FDS");
        mc_factory_close(factory);
        return own ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
}

// A client that connects again and again without waiting must not put hundreds of connections before everybody else's.
TEST_F(McListener, NoMoreWaitThanMayConnect)
{
    mc_factory *factory = open_noting("svc");
    ASSERT_NE(factory, nullptr);
    sockaddr_un address;
    ASSERT_EQ(libmc::service_address("svc", &address), 0);
    std::vector<int> waiting;
    for (int result = 0; result == 0 && waiting.size() < 600;) {
        waiting.push_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        result = connect(waiting.back(), reinterpret_cast<sockaddr *>(&address), sizeof address);
        EXPECT_TRUE(result == 0 || errno == EAGAIN) << strerror(errno);
    }
    EXPECT_LE(waiting.size(), libmc::CONNECTIONS_MAX + 2u);
    EXPECT_GE(waiting.size(), libmc::CONNECTIONS_MAX);
    for (const int fd : waiting)
        close(fd);
    mc_factory_close(factory);
}

} // namespace
