// SPDX-License-Identifier: MIT
// The listening socket: its place, its lock, what may lie in its way, and sockets of the service manager.
#include "mc_support.h"

#include "names.h"

#include <csignal>
#include <filesystem>
#include <fcntl.h>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

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
        umask(before);
        ASSERT_NE(factory, nullptr);
        EXPECT_EQ(mode_of(path("svc.mc")), 0660u) << mask;
        mc_factory_close(factory);
    }
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

TEST_F(McListener, LinksAreNotFollowed)
{
    const Fd stale = raw_listen(path("target"));
    files::create_symlink(path("target"), path("svc.mc"));
    expect_refused("svc", "it is not a socket");
    EXPECT_TRUE(files::exists(path("target")));
    files::create_symlink(path("made"), path("lock.mc.lock"));
    expect_refused("lock", "cannot open");
    EXPECT_FALSE(files::exists(path("made")));
}

TEST_F(McListener, ALockFileOfAnotherKindDoesNotHang)
{
    ASSERT_EQ(mkfifo(path("svc.mc.lock").c_str(), 0600), 0);
    expect_open("svc");
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
    expect_refused("svc", "cannot open " + path("svc.mc.lock") + ": No such file");
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
