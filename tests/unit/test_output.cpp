// SPDX-License-Identifier: MIT
// What the server prints, on readers of every kind. The streams are the process's own, so each test runs in a fork.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/uio.h>

#include <poll.h>

#include "../../src/base/output.h"

// Between the question whether a stream is writable and the writing, another process writes.
namespace {
void (*after_poll)();
bool kernel_is_old; // it cannot be asked not to wait
} // namespace

extern "C" {
int __real_poll(pollfd *fds, nfds_t n, int timeout_ms);
ssize_t __real_pwritev64v2(int fd, const iovec *parts, int n, off_t offset, int flags);

int __wrap_poll(pollfd *fds, nfds_t n, int timeout_ms)
{
    const int ready = __real_poll(fds, n, timeout_ms);
    if (after_poll != nullptr)
        after_poll();
    return ready;
}

ssize_t __wrap_pwritev64v2(int fd, const iovec *parts, int n, off_t offset, int flags)
{
    if (!kernel_is_old)
        return __real_pwritev64v2(fd, parts, n, offset, flags);
    errno = EOPNOTSUPP;
    return -1;
}
}

namespace {

constexpr int LONG_MS = 60000;

struct Reader {
    int read_end;
    std::string text;
    bool at_end = false;

    // Takes what is there, without waiting.
    const std::string &take()
    {
        char bytes[65536];
        ssize_t n;
        while ((n = recv_or_read(bytes, sizeof bytes)) > 0)
            text.append(bytes, static_cast<size_t>(n));
        at_end = n == 0;
        return text;
    }
    ssize_t recv_or_read(char *bytes, size_t size) const
    {
        const ssize_t n = recv(read_end, bytes, size, MSG_DONTWAIT);
        return n < 0 && errno == ENOTSOCK ? read(read_end, bytes, size) : n;
    }
};

Reader pipe_on(std::initializer_list<int> streams)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    for (int stream : streams)
        dup2(fds[1], stream);
    close(fds[1]);
    return Reader{fds[0], ""};
}

Reader socket_on(int stream)
{
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    dup2(fds[1], stream);
    close(fds[1]);
    return Reader{fds[0], ""};
}

// Runs the test's body in a fork, which may replace both streams, and fails when it fails there.
void in_fork(const std::function<void()> &body)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = dup(STDOUT_FILENO);
        body();
        dup2(out, STDOUT_FILENO); // for what GoogleTest has to say
        fflush(stdout);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
}

size_t count_lines(const std::string &text)
{
    size_t n = 0;
    for (char c : text)
        n += c == '\n';
    return n;
}

std::string numbered_line(int i)
{
    char line[64];
    snprintf(line, sizeof line, "line %08d %s\n", i, std::string(40, '.').c_str());
    return line;
}

// Far more than the pipe or socket and the buffer hold together.
constexpr int FLOOD_LINES = 20000;

void flood()
{
    for (int i = 0; i < FLOOD_LINES; i++) {
        out_printf("%s", numbered_line(i).c_str());
        out_flush();
    }
}

// Reads until nothing waits any more.
void catch_up(Reader &reader)
{
    do {
        reader.take();
    } while (!out_flush());
    reader.take();
}

void expect_flood_with_notice(const std::string &text)
{
    size_t at = 0;
    int received = 0;
    for (; text.compare(at, numbered_line(received).size(), numbered_line(received)) == 0; received++)
        at += numbered_line(received).size();
    EXPECT_GT(received, 1000) << "the buffer holds more than that";
    EXPECT_LT(received, FLOOD_LINES);
    EXPECT_EQ(text.substr(at),
              std::to_string(FLOOD_LINES - received) + " lines of output dropped: nobody was reading\n");
}

} // namespace

TEST(Output, LinesWaitForTheFlush)
{
    in_fork([] {
        Reader reader = pipe_on({STDOUT_FILENO});
        EXPECT_FALSE(out_waiting());
        out_puts("one");
        out_printf("two %d\n", 2);
        EXPECT_TRUE(out_waiting());
        EXPECT_EQ(reader.take(), "");
        EXPECT_TRUE(out_flush());
        EXPECT_FALSE(out_waiting());
        EXPECT_EQ(reader.take(), "one\ntwo 2\n");
        EXPECT_TRUE(out_flush());
        EXPECT_EQ(reader.take(), "one\ntwo 2\n");
    });
}

TEST(Output, PipeThatNobodyReadsCostsLinesAndNoTime)
{
    in_fork([] {
        Reader reader = pipe_on({STDOUT_FILENO});
        flood();
        EXPECT_FALSE(out_flush());
        EXPECT_TRUE(out_waiting());
        catch_up(reader);
        expect_flood_with_notice(reader.text);
        reader.text.clear();
        out_puts("back again");
        EXPECT_TRUE(out_flush());
        EXPECT_EQ(reader.take(), "back again\n");
    });
}

TEST(Output, SocketThatNobodyReadsCostsLinesAndNoTime)
{
    in_fork([] {
        Reader reader = socket_on(STDOUT_FILENO);
        flood();
        EXPECT_FALSE(out_flush());
        catch_up(reader);
        expect_flood_with_notice(reader.text);
    });
}

// Once a line was dropped the following ones are too, however short, until the reader is back: one gap, one notice.
TEST(Output, TerminalThatNobodyReadsCostsLinesAndNoTime)
{
    in_fork([] {
        const int master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
        ASSERT_GE(master, 0);
        ASSERT_EQ(grantpt(master), 0);
        ASSERT_EQ(unlockpt(master), 0);
        const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY);
        ASSERT_GE(terminal, 0);
        dup2(terminal, STDOUT_FILENO);
        alarm(LONG_MS / 1000); // a write that waits ends the fork
        flood();
        EXPECT_TRUE(out_waiting());
        EXPECT_EQ(fcntl(terminal, F_GETFL) & O_NONBLOCK, 0); // others who share it still wait
    });
}

int shared_pipe; // the other process's end, which does not wait

void fill_shared_pipe()
{
    const char bytes[4096] = {};
    while (write(shared_pipe, bytes, sizeof bytes) > 0)
        ;
}

TEST(Output, PipeThatAnotherProcessFillsMeanwhileDoesNotBlock)
{
    for (const bool old : {false, true}) {
        in_fork([old] {
            kernel_is_old = old;
            Reader reader = pipe_on({STDOUT_FILENO});
            shared_pipe = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK);
            ASSERT_GE(shared_pipe, 0);
            alarm(LONG_MS / 1000); // a write that waits ends the fork
            after_poll = fill_shared_pipe;
            out_puts("one");
            EXPECT_FALSE(out_flush());
            EXPECT_FALSE(out_flush());
            after_poll = nullptr;
            EXPECT_TRUE(out_waiting());
            EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFL) & O_NONBLOCK, 0); // others who share it still wait
            reader.take();
            EXPECT_TRUE(out_flush());
            reader.text.clear();
            EXPECT_EQ(reader.take(), "one\n");
        });
    }
}

TEST(Output, AnOldKernelsPipeTakesLinesTheSame)
{
    in_fork([] {
        kernel_is_old = true;
        Reader reader = pipe_on({STDOUT_FILENO});
        flood();
        catch_up(reader);
        expect_flood_with_notice(reader.text);
    });
}

TEST(Output, DroppedLinesMakeOneGap)
{
    in_fork([] {
        Reader reader = pipe_on({STDOUT_FILENO});
        flood();
        out_puts("");
        catch_up(reader);
        EXPECT_EQ(reader.text.find("\n\n"), std::string::npos);
        EXPECT_EQ(count_lines(reader.text.substr(reader.text.rfind('.') + 2)), 1u);
    });
}

TEST(Output, DroppedMessagesCountTheirLines)
{
    in_fork([] {
        Reader reader = pipe_on({STDOUT_FILENO});
        const std::string too_long(OUT_BUFFER_SIZE, 'x');
        out_puts("before");
        out_printf("a\n%s\nb\n", too_long.c_str());
        out_flush();
        EXPECT_EQ(reader.take(), "before\n3 lines of output dropped: nobody was reading\n");
    });
}

TEST(Output, LongLinesComeWhole)
{
    in_fork([] {
        Reader reader = pipe_on({STDOUT_FILENO});
        for (size_t length : {1022u, 1023u, 1024u, 1025u, 30000u}) {
            const std::string line(length, 'x');
            out_puts(line.c_str());
            EXPECT_TRUE(out_flush());
            EXPECT_EQ(reader.take(), line + "\n");
            reader.text.clear();
        }
    });
}

TEST(Output, BothStreamsInOnePipeKeepTheirOrder)
{
    in_fork([] {
        Reader reader = pipe_on({STDOUT_FILENO, STDERR_FILENO});
        out_puts("a");
        err_printf("b\n");
        out_puts("c");
        errno = ENOENT;
        err_perror("d");
        out_puts("e");
        out_flush();
        EXPECT_EQ(reader.take(), "a\nb\nc\nd: No such file or directory\ne\n");
    });
}

TEST(Output, StandardErrorThatNobodyReadsDoesNotBlock)
{
    in_fork([] {
        Reader reader = pipe_on({STDERR_FILENO});
        for (int i = 0; i < FLOOD_LINES; i++)
            err_printf("%s", numbered_line(i).c_str());
        const std::string first = reader.take().substr(0, numbered_line(0).size());
        EXPECT_EQ(first, numbered_line(0));
        reader.text.clear();
        err_printf("last\n");
        reader.take();
        EXPECT_NE(reader.text.find(" lines of output dropped: nobody was reading\n"), std::string::npos);
        EXPECT_NE(reader.text.find("last\n"), std::string::npos);
    });
}

TEST(Output, ReaderThatIsGoneEndsTheWaiting)
{
    in_fork([] {
        signal(SIGPIPE, SIG_IGN); // as the server does
        Reader reader = pipe_on({STDOUT_FILENO});
        close(reader.read_end);
        for (int i = 0; i < FLOOD_LINES; i++)
            out_puts("nobody will read this");
        EXPECT_TRUE(out_flush());
        EXPECT_FALSE(out_waiting());
    });
}

TEST(Output, SocketWhoseReaderIsGoneRaisesNoSignal)
{
    in_fork([] {
        Reader reader = socket_on(STDOUT_FILENO);
        close(reader.read_end);
        out_puts("nobody will read this");
        EXPECT_TRUE(out_flush());
        EXPECT_FALSE(out_waiting());
    });
}

TEST(Output, ClosedStreamsSwallowEverything)
{
    in_fork([] {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        for (int i = 0; i < FLOOD_LINES; i++)
            out_puts("nobody can read this");
        err_printf("nor this\n");
        EXPECT_TRUE(out_flush());
        EXPECT_FALSE(out_waiting());
        EXPECT_TRUE(out_drain(LONG_MS));
    });
}

TEST(Output, RegularFileTakesEverything)
{
    in_fork([] {
        const int file = memfd_create("output", MFD_CLOEXEC);
        dup2(file, STDOUT_FILENO);
        flood();
        EXPECT_FALSE(out_waiting());
        EXPECT_EQ(lseek(file, 0, SEEK_END), static_cast<off_t>(FLOOD_LINES * numbered_line(0).size()));
    });
}

TEST(Output, DrainWaitsForASlowReader)
{
    in_fork([] {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        dup2(fds[1], STDOUT_FILENO);
        close(fds[1]);
        const size_t size = 4000 * numbered_line(0).size(); // fits the buffer, not the pipe
        int start[2];
        ASSERT_EQ(pipe(start), 0);
        const pid_t reader = fork();
        if (reader == 0) {
            close(STDOUT_FILENO);
            char byte;
            size_t n = 0;
            if (read(start[0], &byte, 1) == 1)
                for (char bytes[1000]; n < size; n += static_cast<size_t>(read(fds[0], bytes, sizeof bytes)))
                    usleep(100);
            _exit(n == size ? 0 : 1);
        }
        for (int i = 0; i < 4000; i++)
            out_printf("%s", numbered_line(i).c_str());
        EXPECT_FALSE(out_drain(0));
        EXPECT_FALSE(out_drain(10)) << "nobody reads yet";
        EXPECT_EQ(write(start[1], ".", 1), 1);
        EXPECT_TRUE(out_drain(LONG_MS));
        EXPECT_FALSE(out_waiting());
        int status;
        ASSERT_EQ(waitpid(reader, &status, 0), reader);
        EXPECT_EQ(status, 0);
    });
}

TEST(Output, FlushKeepsErrno)
{
    in_fork([] {
        Reader reader = pipe_on({STDOUT_FILENO});
        flood();
        errno = EXDEV;
        EXPECT_FALSE(out_flush());
        EXPECT_EQ(errno, EXDEV);
        catch_up(reader);
        out_puts("x");
        errno = EXDEV;
        EXPECT_TRUE(out_flush());
        EXPECT_EQ(errno, EXDEV);
    });
}
