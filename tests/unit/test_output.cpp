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
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/uio.h>

#include <poll.h>

#include "../../src/base/assert.h"
#include "../../src/base/output.h"

namespace {

// Between the question whether a stream is writable and the writing, another process writes.
void (*after_poll)();
bool kernel_is_old; // it cannot be asked not to wait

// Waiting takes no time, but is counted: nothing that is waited for comes. The record outlives the process.
struct Clock {
    bool runs_by_waiting;
    long long waited_ms;
};
Clock *clock_of_test =
    static_cast<Clock *>(mmap(nullptr, sizeof(Clock), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

} // namespace

extern "C" {
int __real_poll(pollfd *fds, nfds_t n, int timeout_ms);
ssize_t __real_pwritev64v2(int fd, const iovec *parts, int n, off_t offset, int flags);
int __real_clock_gettime(clockid_t id, timespec *now);

int __wrap_poll(pollfd *fds, nfds_t n, int timeout_ms)
{
    const int ready = __real_poll(fds, n, clock_of_test->runs_by_waiting ? 0 : timeout_ms);
    if (clock_of_test->runs_by_waiting && ready == 0)
        clock_of_test->waited_ms += timeout_ms;
    if (after_poll != nullptr)
        after_poll();
    return ready;
}

int __wrap_clock_gettime(clockid_t id, timespec *now)
{
    const int result = __real_clock_gettime(id, now);
    now->tv_sec += clock_of_test->waited_ms / 1000;
    now->tv_nsec += clock_of_test->waited_ms % 1000 * 1000000;
    now->tv_sec += now->tv_nsec / 1000000000;
    now->tv_nsec %= 1000000000;
    return result;
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
    *clock_of_test = {};
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
        EXPECT_TRUE(output_drain(LONG_MS));
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
        EXPECT_FALSE(output_drain(0));
        EXPECT_FALSE(output_drain(10)) << "nobody reads yet";
        EXPECT_EQ(write(start[1], ".", 1), 1);
        EXPECT_TRUE(output_drain(LONG_MS));
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

// ---- no room ----

namespace {

// A second later, for those who ask the clock.
void let_a_full_disk_rest()
{
    clock_of_test->waited_ms += 1000;
}

std::string text_of(int file)
{
    std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
}

void limit_files(rlim_t bytes)
{
    const rlimit limit = {bytes, RLIM_INFINITY};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0) << strerror(errno);
}

// A file on a disk of its own with room for so many bytes; -1 where that is not permitted.
int file_on_small_disk(int pages)
{
    char folder[] = "/tmp/pfb-test-disk-XXXXXX";
    EXPECT_NE(mkdtemp(folder), nullptr);
    const std::string options = "size=" + std::to_string(pages * sysconf(_SC_PAGESIZE));
    int file = -1;
    if ((unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWNS | CLONE_NEWUSER) == 0) &&
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("tmpfs", folder, "tmpfs", 0, options.c_str()) == 0) {
        file = open((std::string(folder) + "/log").c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        umount2(folder, MNT_DETACH);
    }
    rmdir(folder);
    return file;
}

// `n` lines from `first` on.
std::string lines_from(int first, int n)
{
    std::string text;
    for (int i = first; i < first + n; i++)
        text += numbered_line(i);
    return text;
}

} // namespace

TEST(Output, AFileThatMayNotGrowLosesLinesAndSaysHowMany)
{
    in_fork([] {
        signal(SIGXFSZ, SIG_IGN); // as the server does
        const int file = memfd_create("output", MFD_CLOEXEC);
        dup2(file, STDOUT_FILENO);
        limit_files(lines_from(0, 3).size() + 7);
        for (int i = 0; i < 10; i++) {
            out_printf("%s", numbered_line(i).c_str());
            out_flush();
            EXPECT_EQ(out_waiting(), false) << "nobody has to be waited for";
        }
        EXPECT_EQ(text_of(file), lines_from(0, 3) + numbered_line(3).substr(0, 7));
        limit_files(RLIM_INFINITY);
        out_printf("%s", numbered_line(10).c_str());
        EXPECT_FALSE(out_flush()) << "not before a second is over";
        let_a_full_disk_rest();
        out_printf("%s", numbered_line(11).c_str());
        EXPECT_TRUE(out_flush());
        EXPECT_EQ(text_of(file), lines_from(0, 3) + numbered_line(3).substr(0, 7) +
                                     "\n8 lines of output dropped: there was no room\n" + numbered_line(11));
    });
}

TEST(Output, AFullDiskLosesLinesAndSaysHowMany)
{
    in_fork([] {
        const int pages = 4;
        const int file = file_on_small_disk(pages);
        if (file < 0)
            return; // not permitted here; a limit on the file's size does the same
        dup2(file, STDOUT_FILENO);
        const auto room = static_cast<size_t>(pages * sysconf(_SC_PAGESIZE));
        flood();
        const std::string cut = text_of(file);
        EXPECT_EQ(cut, lines_from(0, FLOOD_LINES).substr(0, room));
        EXPECT_EQ(ftruncate(file, 0), 0); // as whoever collects the log does
        let_a_full_disk_rest();
        EXPECT_TRUE(out_flush());
        EXPECT_EQ(text_of(file), "\n" + std::to_string(static_cast<size_t>(FLOOD_LINES) - count_lines(cut)) +
                                     " lines of output dropped: there was no room\n");
    });
}

TEST(Output, AFullDiskThatStaysFullLosesNoCount)
{
    in_fork([] {
        signal(SIGXFSZ, SIG_IGN);
        const int file = memfd_create("output", MFD_CLOEXEC);
        dup2(file, STDOUT_FILENO);
        limit_files(0);
        for (int i = 0; i < 5; i++) {
            out_printf("%s", numbered_line(i).c_str());
            EXPECT_FALSE(out_flush());
            let_a_full_disk_rest(); // each time it is tried again
        }
        limit_files(10); // room for a part of the notice
        EXPECT_FALSE(out_flush());
        limit_files(RLIM_INFINITY);
        let_a_full_disk_rest();
        EXPECT_TRUE(out_flush());
        EXPECT_EQ(text_of(file), "5 lines of\n5 lines of output dropped: there was no room\n");
    });
}

// More than the buffer holds: some lines find it full, and then the disk.
TEST(Output, LinesThatWaitForTheFlushMeetAFullDisk)
{
    in_fork([] {
        signal(SIGXFSZ, SIG_IGN);
        const int file = memfd_create("output", MFD_CLOEXEC);
        dup2(file, STDOUT_FILENO);
        limit_files(0);
        for (int i = 0; i < FLOOD_LINES; i++)
            out_printf("%s", numbered_line(i).c_str());
        limit_files(RLIM_INFINITY);
        let_a_full_disk_rest();
        EXPECT_TRUE(out_flush());
        EXPECT_EQ(text_of(file), std::to_string(FLOOD_LINES) + " lines of output dropped: there was no room\n");
    });
}

TEST(Output, ADrainTriesAFullDiskOnce)
{
    in_fork([] {
        signal(SIGXFSZ, SIG_IGN);
        const int file = memfd_create("output", MFD_CLOEXEC);
        dup2(file, STDOUT_FILENO);
        limit_files(0);
        out_printf("not even a whole line");
        EXPECT_FALSE(out_flush());
        clock_of_test->runs_by_waiting = true;
        EXPECT_FALSE(output_drain(LONG_MS));
        EXPECT_EQ(clock_of_test->waited_ms, 0) << "there is nothing to wait for";
        limit_files(RLIM_INFINITY);
        EXPECT_TRUE(output_drain(LONG_MS)) << "whatever the time";
        EXPECT_EQ(text_of(file), "1 lines of output dropped: there was no room\n");
    });
}

TEST(Output, ErrorsOnAFullDisk)
{
    in_fork([] {
        signal(SIGXFSZ, SIG_IGN);
        const int file = memfd_create("output", MFD_CLOEXEC);
        const int err = dup(STDERR_FILENO);
        dup2(file, STDERR_FILENO);
        limit_files(0);
        err_printf("lost\n");
        EXPECT_FALSE(err_waiting());
        limit_files(RLIM_INFINITY);
        let_a_full_disk_rest();
        err_printf("kept\n");
        dup2(err, STDERR_FILENO);
        EXPECT_EQ(text_of(file), "1 lines of output dropped: there was no room\nkept\n");
    });
}

// ---- at the end ----

namespace {

// A stream whose reader has stopped, with lines waiting.
Reader blocked_on(int stream, void (*print)(const char *format, ...))
{
    Reader reader = pipe_on({stream});
    for (int i = 0; i < FLOOD_LINES / 2; i++)
        print("%s", numbered_line(i).c_str());
    return reader;
}

int end_of(const std::function<void()> &body)
{
    *clock_of_test = {};
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        body();
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    const int signal_number = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return signal_number;
}

} // namespace

TEST(Output, AnAbortWaitsOnceForBothStreams)
{
    const int signal_number = end_of([] {
        const Reader out = blocked_on(STDOUT_FILENO, out_printf), err = blocked_on(STDERR_FILENO, err_printf);
        clock_of_test->runs_by_waiting = true;
        fs_assert(out.at_end);
    });
    EXPECT_EQ(signal_number, SIGABRT);
    EXPECT_GT(clock_of_test->waited_ms, 0);
    EXPECT_LE(clock_of_test->waited_ms, 100);
}

// Nor does one of them keep the other waiting.
TEST(Output, AReaderThatStoppedDoesNotKeepAnAbortFromTheOtherOne)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const int signal_number = end_of([&] {
        const Reader out = blocked_on(STDOUT_FILENO, out_printf);
        dup2(fds[1], STDERR_FILENO);
        clock_of_test->runs_by_waiting = true;
        fs_assert(out.at_end);
    });
    EXPECT_EQ(signal_number, SIGABRT);
    close(fds[1]);
    Reader err{fds[0], ""};
    err.take();
    EXPECT_NE(err.text.find(": Assertion `out.at_end' failed.\n"), std::string::npos) << err.text;
}

TEST(Output, ADrainWaitsForBothReaders)
{
    in_fork([] {
        constexpr int LINES[2] = {4000, 250}; // fit the buffers, not the pipes
        int fds[2][2], saved = dup(STDERR_FILENO);
        for (int i = 0; i < 2; i++) {
            ASSERT_EQ(pipe(fds[i]), 0);
            fcntl(fds[i][1], F_SETPIPE_SZ, 4096);
            dup2(fds[i][1], STDOUT_FILENO + i);
            close(fds[i][1]);
        }
        const pid_t reader = fork();
        if (reader == 0) {
            close(STDOUT_FILENO);
            close(STDERR_FILENO);
            for (int i : {1, 0}) { // errors first
                const size_t size = static_cast<size_t>(LINES[i]) * numbered_line(0).size();
                char bytes[1000];
                for (size_t n = 0; n < size;) {
                    const ssize_t taken = read(fds[i][0], bytes, sizeof bytes);
                    if (taken <= 0)
                        _exit(1);
                    n += static_cast<size_t>(taken);
                }
            }
            _exit(0);
        }
        for (int i = 0; i < LINES[0]; i++)
            out_printf("%s", numbered_line(i).c_str());
        for (int i = 0; i < LINES[1]; i++)
            err_put("%s", numbered_line(i).c_str());
        EXPECT_TRUE(output_drain(LONG_MS));
        close(STDOUT_FILENO);
        dup2(saved, STDERR_FILENO);
        int status;
        ASSERT_EQ(waitpid(reader, &status, 0), reader);
        EXPECT_EQ(status, 0);
    });
}

namespace {

Reader *reader_after_poll;

} // namespace

// The reader comes back between two looks at the streams: what was held back first still comes first.
TEST(Output, ADrainKeepsTheOrderOfOnePipe)
{
    in_fork([] {
        const int out = dup(STDOUT_FILENO), err = dup(STDERR_FILENO);
        Reader reader = pipe_on({STDOUT_FILENO, STDERR_FILENO});
        reader_after_poll = &reader;
        for (int i = 0; i < 4000; i++)
            out_printf("%s", numbered_line(i).c_str());
        EXPECT_FALSE(out_flush());
        err_put("last\n");
        after_poll = [] { reader_after_poll->take(); };
        const bool drained = output_drain(LONG_MS);
        after_poll = nullptr;
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        EXPECT_TRUE(drained);
        EXPECT_EQ(reader.take(), lines_from(0, 4000) + "last\n");
    });
}
