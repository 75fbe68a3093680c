// SPDX-License-Identifier: MIT
#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

// One of the two streams: bytes [begin, end) of the buffer wait to be written.
struct Stream {
    int fd;
    char *buffer;
    size_t size;
    size_t begin;
    size_t end;
    unsigned dropped; // lines that found no room since the last notice
    bool full;        // there was no room in the file itself. The buffer is empty then
    bool cut;         // what was written ends within a line
    long long retry;  // while full, not before: monotonic, milliseconds
};

char out_buffer[OUT_BUFFER_SIZE];
char err_buffer[ERR_BUFFER_SIZE];
Stream out{STDOUT_FILENO, out_buffer, sizeof out_buffer, 0, 0, 0, false, false, 0};
Stream err{STDERR_FILENO, err_buffer, sizeof err_buffer, 0, 0, 0, false, false, 0};

// The longest notice of dropped lines.
constexpr size_t NOTICE_MAX = 64;
// How long a full disk is left alone: some take their time to find out that they are.
constexpr int FULL_REST_MS = 1000;

long long now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

bool can_take_some(int fd, int wait_ms)
{
    pollfd entry{fd, POLLOUT, 0};
    int n;
    do {
        n = poll(&entry, 1, wait_ms);
    } while (n < 0 && errno == EINTR && wait_ms == 0);
    return n > 0;
}

// The stream opened once more can be told not to wait, without changing it for the other processes that share it. -1
// where that is not allowed: it belongs to another user.
int open_not_waiting(int fd)
{
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

// A terminal polls as writable with little room left and then lets a writer wait, and so does a pipe that another
// process fills in between. New kernels write to a pipe without waiting when asked.
ssize_t write_not_waiting(int fd, const char *bytes, size_t n)
{
    const iovec part{const_cast<char *>(bytes), n};
    ssize_t written = pwritev2(fd, &part, 1, -1, RWF_NOWAIT);
    if (written >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS && errno != EINVAL))
        return written;
    const int own = open_not_waiting(fd);
    if (own < 0)
        return write(fd, bytes, n);
    written = write(own, bytes, n);
    const int error = errno;
    close(own);
    errno = error;
    return written;
}

// Writes without waiting, but for the storage that a file is on. A socket is told not to.
ssize_t write_some(int fd, const char *bytes, size_t n)
{
    struct stat stream {};
    fstat(fd, &stream); // each time: what stands behind the descriptor may change
    if (S_ISREG(stream.st_mode))
        return write(fd, bytes, n);
    if (!can_take_some(fd, 0)) {
        errno = EAGAIN;
        return -1;
    }
    n = std::min<size_t>(n, PIPE_BUF); // so much a pipe takes at once
    if (S_ISSOCK(stream.st_mode))
        return send(fd, bytes, n, MSG_DONTWAIT | MSG_NOSIGNAL);
    const bool may_wait = S_ISFIFO(stream.st_mode) || (S_ISCHR(stream.st_mode) && isatty(fd));
    return may_wait ? write_not_waiting(fd, bytes, n) : write(fd, bytes, n);
}

void append(Stream &stream, const char *text, size_t n)
{
    memcpy(stream.buffer + stream.end, text, n);
    stream.end += n;
}

unsigned count_lines(const char *text, size_t n)
{
    return static_cast<unsigned>(std::count(text, text + n, '\n'));
}

// The disk is full, or the file or its owner's share of the disk is as large as it may become.
bool means_full(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

void drop_waiting(Stream &stream)
{
    stream.dropped += count_lines(stream.buffer + stream.begin, stream.end - stream.begin);
    stream.dropped += stream.buffer[stream.end - 1] != '\n';
    stream.begin = stream.end = 0;
    stream.full = true;
    stream.retry = now_ms() + FULL_REST_MS;
}

bool write_waiting(Stream &stream)
{
    while (stream.begin < stream.end) {
        const ssize_t sent = write_some(stream.fd, stream.buffer + stream.begin, stream.end - stream.begin);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0 && errno == EAGAIN)
            return false;
        if (sent < 0 && means_full(errno)) {
            drop_waiting(stream);
            return false;
        }
        if (sent < 0) { // nobody will ever read this: closed, or the reader is gone
            stream.begin = stream.end;
            break;
        }
        stream.begin += static_cast<size_t>(sent);
        stream.cut = stream.begin > 0 && stream.buffer[stream.begin - 1] != '\n';
    }
    stream.begin = stream.end = 0;
    return true;
}

bool holds_nothing(const Stream &stream)
{
    return stream.begin == stream.end && stream.dropped == 0;
}

// A line that was cut when there was no more room stays as it is; the notice has its own.
bool write_notice(Stream &stream)
{
    const unsigned dropped = stream.dropped;
    char notice[NOTICE_MAX];
    const int n =
        snprintf(notice, sizeof notice, "%s%u lines of output dropped: %s\n", stream.full && stream.cut ? "\n" : "",
                 dropped, stream.full ? "there was no room" : "nobody was reading");
    stream.dropped = 0;
    stream.full = false;
    append(stream, notice, static_cast<size_t>(n));
    const bool done = write_waiting(stream);
    if (stream.full)
        stream.dropped = dropped;
    return done;
}

bool flush(Stream &stream)
{
    if (holds_nothing(stream))
        return true;
    if (stream.full && now_ms() < stream.retry)
        return false;
    const int saved_errno = errno;
    const bool done = write_waiting(stream) && (stream.dropped == 0 || write_notice(stream));
    errno = saved_errno;
    return done;
}

bool make_room(Stream &stream, size_t n)
{
    if (stream.dropped > 0 && !flush(stream))
        return false; // keep the gap in one place
    if (stream.size - stream.end >= n)
        return true;
    flush(stream);
    if (stream.dropped > 0)
        return false; // there was no room in the file either
    memmove(stream.buffer, stream.buffer + stream.begin, stream.end - stream.begin);
    stream.end -= stream.begin;
    stream.begin = 0;
    return stream.size - stream.end >= n;
}

void put(Stream &stream, const char *text, size_t n)
{
    if (make_room(stream, n))
        append(stream, text, n);
    else
        stream.dropped += count_lines(text, n);
}

[[gnu::format(printf, 2, 0)]] void put_formatted(Stream &stream, const char *format, va_list args)
{
    char line[1024];
    va_list again;
    va_copy(again, args);
    const int n = vsnprintf(line, sizeof line, format, args);
    if (n >= 0 && static_cast<size_t>(n) < sizeof line) {
        put(stream, line, static_cast<size_t>(n));
    } else if (n > 0) { // longer than usual: a client's long name
        char *text = nullptr;
        if (vasprintf(&text, format, again) >= 0) {
            put(stream, text, strlen(text));
            free(text);
        }
    }
    va_end(again);
}

bool is_same_place(int a, int b)
{
    struct stat of_a {};
    struct stat of_b {};
    return fstat(a, &of_a) == 0 && fstat(b, &of_b) == 0 && of_a.st_dev == of_b.st_dev && of_a.st_ino == of_b.st_ino;
}

// True when nothing is left, or nothing that waiting could help.
bool flush_at_last(Stream &stream)
{
    return flush(stream) || stream.full;
}

// What `second` holds comes after what `first` does where both go to the same place. Elsewhere a reader who does not
// read the one is not waited for with the other.
bool drain(Stream &first, Stream &second, int milliseconds)
{
    const long long until = now_ms() + milliseconds;
    const bool in_order = is_same_place(first.fd, second.fd);
    first.retry = second.retry = 0;
    for (;;) {
        const bool first_done = flush_at_last(first);
        const bool second_done = (first_done || !in_order) && flush_at_last(second);
        const long long left = until - now_ms();
        if (first_done && second_done)
            return holds_nothing(first) && holds_nothing(second);
        if (left <= 0)
            return flush(second) && first_done;
        pollfd entries[] = {{first_done ? -1 : first.fd, POLLOUT, 0},
                            {second_done || (in_order && !first_done) ? -1 : second.fd, POLLOUT, 0}};
        poll(entries, std::size(entries), static_cast<int>(left));
    }
}

} // namespace

void out_printf(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    put_formatted(out, format, args);
    va_end(args);
}

void out_puts(const char *line)
{
    out_printf("%s\n", line);
}

[[gnu::hot]] bool out_flush()
{
    return flush(out);
}

// A full disk has no reader that could be waited for.
[[gnu::hot]] bool out_waiting()
{
    return !holds_nothing(out) && !out.full;
}

[[gnu::hot]] bool err_waiting()
{
    return !holds_nothing(err) && !err.full;
}

bool err_flush()
{
    return flush(err);
}

bool output_drain(int milliseconds)
{
    return drain(out, err, milliseconds);
}

void err_put(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    put_formatted(err, format, args);
    va_end(args);
}

void err_printf(const char *format, ...)
{
    flush(out);
    va_list args;
    va_start(args, format);
    put_formatted(err, format, args);
    va_end(args);
    flush(err);
}

void err_perror(const char *what)
{
    err_printf("%s: %s\n", what, strerror(errno));
}
