// SPDX-License-Identifier: MIT
// Sockets that the service manager opened before it started the server (LISTEN_FDS).
#include "listener.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace libmc {

namespace {

constexpr int FIRST_HANDED_FD = 3;

// The number that a variable holds, or -1.
long environment_number(const char *variable)
{
    const char *text = getenv(variable);
    if (!text || !*text)
        return -1;
    char *end;
    errno = 0;
    const long number = strtol(text, &end, 10);
    return errno || *end || number < 0 || number > INT_MAX ? -1 : number;
}

bool option_is(int fd, int option, int wanted)
{
    int value;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 && value == wanted;
}

bool is_listening_packet_socket(int fd)
{
    return option_is(fd, SO_DOMAIN, AF_UNIX) && option_is(fd, SO_TYPE, SOCK_SEQPACKET) &&
           option_is(fd, SO_ACCEPTCONN, 1);
}

void set_flags(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

} // namespace

bool listener_take_activated(int *fd)
{
    const long count = environment_number("LISTEN_FDS");
    if (environment_number("LISTEN_PID") != getpid() || count < 1)
        return false;
    unsetenv("LISTEN_PID");
    unsetenv("LISTEN_FDS");
    unsetenv("LISTEN_FDNAMES");
    *fd = -1;
    for (long i = 0; i < count; i++) {
        const int handed = FIRST_HANDED_FD + static_cast<int>(i);
        if (fcntl(handed, F_SETFD, FD_CLOEXEC) < 0)
            break; // not as many as announced
        if (*fd < 0 && is_listening_packet_socket(handed))
            *fd = handed;
    }
    if (*fd >= 0)
        set_flags(*fd);
    return true;
}

} // namespace libmc
