// SPDX-License-Identifier: MIT
// The signals that end the main loop, whatever the loop is at. Each loop runs in a fork.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <glib-unix.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "../../src/fbserver/main_loop.h"
#include "mc.h"

namespace {

constexpr int ENDED = 42;
constexpr auto LONG = std::chrono::seconds(60);

int report; // the loop's side writes a byte when the signal may come

gboolean say_ready(gpointer)
{
    return write(report, ".", 1) == 1 ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

// Its byte is never taken: the descriptor stays ready, as those of clients that flood do.
gboolean stay_ready(gint, GIOCondition, gpointer)
{
    return G_SOURCE_CONTINUE;
}

void add_ready_descriptor()
{
    int ends[2];
    if (pipe(ends) == 0 && write(ends[1], ".", 1) == 1)
        g_unix_fd_add(ends[0], G_IO_IN, stay_ready, nullptr);
}

// The exit status, or -1 for a process that does not end (it is then killed) or was killed by a signal.
int wait_for(pid_t pid)
{
    const auto until = std::chrono::steady_clock::now() + LONG;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > until) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs the main loop after `prepare`, and sends it the signal when it has turned.
int end_by(int signal_number, const std::function<void()> &prepare)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        report = ends[1];
        signals_install();
        prepare();
        g_timeout_add(20, say_ready, nullptr);
        main_loop_run();
        _exit(ENDED);
    }
    close(ends[1]);
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    close(ends[0]);
    kill(pid, signal_number);
    return wait_for(pid);
}

int late_request[2]; // arrives while the first one is handled
bool rendered;

gboolean render(gpointer)
{
    rendered = true;
    return G_SOURCE_REMOVE;
}

gboolean take_request(gint fd, GIOCondition, gpointer)
{
    g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, render, nullptr, nullptr);
    char byte;
    const bool moved = read(fd, &byte, 1) == 1 && write(late_request[1], &byte, 1) == 1;
    return moved ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

gboolean take_late_request(gint, GIOCondition, gpointer)
{
    _exit(rendered ? ENDED : 1);
}

void watch_request(int fd, GUnixFDSourceFunc take)
{
    GSource *source = g_unix_fd_source_new(fd, G_IO_IN);
    g_source_set_priority(source, G_PRIORITY_DEFAULT_IDLE);
    g_source_set_callback(source, G_SOURCE_FUNC(take), nullptr, nullptr);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}

} // namespace

// The render that requests leave behind comes next, without another look at the descriptors.
TEST(MainLoop, ARenderGoesBeforeRequestsThatArriveLater)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        signals_install();
        int request[2];
        if (pipe(request) < 0 || pipe(late_request) < 0 || write(request[1], ".", 1) != 1)
            _exit(2);
        watch_request(late_request[0], take_late_request);
        watch_request(request[0], take_request);
        main_loop_run();
        _exit(3);
    }
    EXPECT_EQ(wait_for(pid), ENDED);
}

TEST(MainLoop, ASignalEndsTheWaiting)
{
    EXPECT_EQ(end_by(SIGTERM, [] {}), ENDED);
    EXPECT_EQ(end_by(SIGINT, [] {}), ENDED);
}

// It then waits at the channel's own descriptor.
TEST(MainLoop, ASignalEndsTheWaitingForClients)
{
    std::string folder = (std::filesystem::temp_directory_path() / "main-loop-XXXXXX").string();
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const auto open_service = [&] {
        setenv("MC_RUNTIME_DIR", folder.c_str(), 1);
        const auto refuse = [](mc_factory *, mc_connection *connection, void *) { mc_close(connection); };
        if (mc_factory_open("svc", refuse, nullptr, nullptr) == nullptr)
            _exit(1);
    };
    EXPECT_EQ(end_by(SIGTERM, open_service), ENDED);
    EXPECT_EQ(end_by(SIGINT, open_service), ENDED); // and the one before is known to be dead
    std::filesystem::remove_all(folder);
}

TEST(MainLoop, ASignalEndsALoopThatNeverWaits)
{
    EXPECT_EQ(end_by(SIGTERM, add_ready_descriptor), ENDED);
    EXPECT_EQ(end_by(SIGINT, add_ready_descriptor), ENDED);
}

// What comes before the loop exists is reported and ignored, however many at once; the next one ends it.
TEST(MainLoop, EarlySignalsAreIgnored)
{
    const auto early = [] {
        raise(SIGTERM);
        raise(SIGINT);
        raise(SIGTERM);
    };
    testing::internal::CaptureStderr();
    EXPECT_EQ(end_by(SIGTERM, early), ENDED);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("g_main_loop_quit"), std::string::npos) << text;
}

TEST(MainLoop, SigpipeIsIgnored)
{
    EXPECT_EQ(end_by(SIGTERM, [] { raise(SIGPIPE); }), ENDED);
}
