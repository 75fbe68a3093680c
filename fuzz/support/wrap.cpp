// SPDX-License-Identifier: MIT
// Put between the server and the outside by the linker (--wrap): a failed assertion becomes an exception, because the
// end of the process would end the fuzzing; and what the server prints is kept in memory.
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "fuzz.h"

Printed fuzz_printed;
Readers fuzz_readers;

// The names that the linker looks for; assert_failed is a C++ function.
[[noreturn]] void fuzz_assert_failed(const char *expression, const char *file, unsigned line,
                                     const char *function) asm("__wrap__Z13assert_failedPKcS0_jS0_");
ssize_t fuzz_send(int fd, const void *bytes, size_t n, int flags) asm("__wrap_send");
ssize_t real_send(int fd, const void *bytes, size_t n, int flags) asm("__real_send");
ssize_t fuzz_write(int fd, const void *bytes, size_t n) asm("__wrap_write");
ssize_t real_write(int fd, const void *bytes, size_t n) asm("__real_write");
ssize_t fuzz_pwritev2(int fd, const iovec *parts, int n, off_t offset, int flags) asm("__wrap_pwritev64v2");
ssize_t real_pwritev2(int fd, const iovec *parts, int n, off_t offset, int flags) asm("__real_pwritev64v2");
int fuzz_isatty(int fd) asm("__wrap_isatty");
int real_isatty(int fd) asm("__real_isatty");
int fuzz_poll(pollfd *entries, nfds_t n, int timeout_ms) asm("__wrap_poll");
int real_poll(pollfd *entries, nfds_t n, int timeout_ms) asm("__real_poll");

namespace {

bool is_standard_stream(int fd)
{
    return fd == STDOUT_FILENO || fd == STDERR_FILENO;
}

ssize_t keep(int fd, const void *bytes, size_t n)
{
    if (fuzz_readers != Readers::READ) {
        errno = fuzz_readers == Readers::STUCK ? EAGAIN : EPIPE;
        return -1;
    }
    (fd == STDOUT_FILENO ? fuzz_printed.out : fuzz_printed.err).append(static_cast<const char *>(bytes), n);
    return static_cast<ssize_t>(n);
}

} // namespace

void fuzz_assert_failed(const char *expression, const char *file, unsigned, const char *function)
{
    throw FailedAssertion{expression, file, function};
}

ssize_t fuzz_send(int fd, const void *bytes, size_t n, int flags)
{
    return is_standard_stream(fd) ? keep(fd, bytes, n) : real_send(fd, bytes, n, flags);
}

// Where the stream is a pipe.
ssize_t fuzz_pwritev2(int fd, const iovec *parts, int n, off_t offset, int flags)
{
    return is_standard_stream(fd) && n == 1 ? keep(fd, parts->iov_base, parts->iov_len)
                                            : real_pwritev2(fd, parts, n, offset, flags);
}

// Where it is a file.
ssize_t fuzz_write(int fd, const void *bytes, size_t n)
{
    return is_standard_stream(fd) ? keep(fd, bytes, n) : real_write(fd, bytes, n);
}

int fuzz_isatty(int fd)
{
    return is_standard_stream(fd) ? 0 : real_isatty(fd);
}

int fuzz_poll(pollfd *entries, nfds_t n, int timeout_ms)
{
    if (n != 1 || !is_standard_stream(entries->fd))
        return real_poll(entries, n, timeout_ms);
    entries->revents = fuzz_readers == Readers::STUCK ? short{0} : entries->events;
    return fuzz_readers != Readers::STUCK;
}

// A pipe, whatever the fuzzer's own streams are: what an input does must not depend on that.
template <typename Stat> static int describe_stream(Stat *stream)
{
    *stream = {};
    stream->st_mode = S_IFIFO;
    return 0;
}

int fuzz_fstat(int fd, struct stat *file) asm("__wrap_fstat");
int real_fstat(int fd, struct stat *file) asm("__real_fstat");
int fuzz_fstat64(int fd, struct stat64 *file) asm("__wrap_fstat64");
int real_fstat64(int fd, struct stat64 *file) asm("__real_fstat64");

// Which of the two names a program calls depends on how it was compiled.
int fuzz_fstat(int fd, struct stat *file)
{
    return is_standard_stream(fd) ? describe_stream(file) : real_fstat(fd, file);
}

int fuzz_fstat64(int fd, struct stat64 *file)
{
    return is_standard_stream(fd) ? describe_stream(file) : real_fstat64(fd, file);
}
