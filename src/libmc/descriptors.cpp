// SPDX-License-Identifier: MIT
#include "descriptors.h"

#include "inbox.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <glib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef SO_PASSRIGHTS // headers older than the kernel; the number of all processors that this is built for
#define SO_PASSRIGHTS 83
#endif
#ifndef SO_PASSPIDFD
#define SO_PASSPIDFD 76
#endif

namespace libmc {

namespace {

// Sockets with descriptors in their queues, until some process that may wait has them.
constexpr int LEFT_MAX = 64;
// The processes that have taken over such sockets. One is usual, and more only where clients do this without end.
constexpr int CLOSERS_MAX = 8;
// How long sockets are collected for one process, and how long that one lives.
constexpr guint PAUSE_MS = 100;
// Descriptors have the lowest free numbers, and connections are limited: there are none from here on.
constexpr int NUMBERS_END = 1024;

struct Leftovers {
    int fds[LEFT_MAX];
    int n;
    pid_t closers[CLOSERS_MAX]; // 0: free
    guint timer;                // 0: nothing is left
};

Leftovers left;

bool set_option(int fd, int option, int value)
{
    return setsockopt(fd, SOL_SOCKET, option, &value, sizeof value) == 0;
}

// ---- the process that closes ----

bool is_left(int fd)
{
    return std::find(left.fds, left.fds + left.n, fd) != left.fds + left.n;
}

// Has what is left, and nothing else that could be missed by anybody, for the server may end meanwhile. It is killed,
// and not told to close: a process that is being killed does not wait for a socket that lingers, nor for anything else
// that can be interrupted.
[[noreturn]] void closer_run(pid_t server)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int fd = 0; fd < NUMBERS_END; fd++)
        if (!is_left(fd))
            close(fd);
    while (getppid() == server)
        pause();
    _exit(0);
}

// Once another process has them, letting go of them here is nothing.
void hand_over()
{
    pid_t *place = std::find(left.closers, left.closers + CLOSERS_MAX, 0);
    if (left.n == 0 || place == left.closers + CLOSERS_MAX)
        return;
    const pid_t server = getpid();
    const pid_t closer = fork();
    if (closer < 0)
        return; // they wait
    if (closer == 0)
        closer_run(server);
    *place = closer;
    for (int i = 0; i < left.n; i++)
        close(left.fds[i]);
    left.n = 0;
}

void end_closers()
{
    for (pid_t &closer : left.closers) {
        if (closer == 0)
            continue;
        kill(closer, SIGKILL);
        if (waitpid(closer, nullptr, WNOHANG) != 0)
            closer = 0;
    }
}

bool anything_is_left()
{
    return left.n > 0 ||
           std::any_of(left.closers, left.closers + CLOSERS_MAX, [](pid_t closer) { return closer != 0; });
}

gboolean tidy_up(gpointer)
{
    end_closers();
    hand_over();
    if (anything_is_left())
        return G_SOURCE_CONTINUE;
    left.timer = 0;
    return G_SOURCE_REMOVE;
}

void leave(int fd)
{
    if (left.n == LEFT_MAX) {
        end_closers();
        hand_over();
    }
    if (left.n == LEFT_MAX) { // nothing can be forked, or killed processes do not end: the last resort
        close(fd);
        return;
    }
    left.fds[left.n++] = fd;
    if (left.timer == 0)
        left.timer = g_timeout_add(PAUSE_MS, tidy_up, nullptr);
}

// ---- looking through a queue ----

// What an empty packet brings, and the end does not: its sender's credentials.
constexpr size_t SENDER_BYTES = CMSG_SPACE(sizeof(ucred));

enum class Next {
    nothing,
    plain,
    carrying,
    untold, // by an emulator that leaves the credentials out: an empty packet, or the end
};

Next next_packet(int fd)
{
    alignas(cmsghdr) char sender[SENDER_BYTES] = {};
    msghdr message = {};
    message.msg_control = sender;
    message.msg_controllen = sizeof sender;
    ssize_t n;
    do {
        n = recvmsg(fd, &message, MSG_PEEK | MSG_DONTWAIT);
    } while (n < 0 && (errno == EINTR || errno == ECONNRESET));
    if (n < 0 || message.msg_controllen == 0)
        return Next::nothing;
    if (message.msg_flags & MSG_CTRUNC)
        return Next::carrying;
    const cmsghdr *told = CMSG_FIRSTHDR(&message);
    return told && told->cmsg_len > 0 ? Next::plain : Next::untold;
}

// So many packets of a queue are looked at. Usual ones hold fewer; how many there may be is for the machine's settings
// to say. (What is not told would go on for ever.)
constexpr int QUEUED_MOST = 2048;

// Takes what carries none. True when something else is left, or may be, behind as many as are looked at.
bool queue_carries(int fd)
{
    set_option(fd, SO_PEEK_OFF, -1); // each look is at the first packet
    set_option(fd, SO_PASSCRED, 1);
    Next next = next_packet(fd);
    for (int i = 0; (next == Next::plain || next == Next::untold) && i < QUEUED_MOST; i++) {
        recv(fd, nullptr, 0, MSG_DONTWAIT);
        next = next_packet(fd);
    }
    return next == Next::carrying || next == Next::plain;
}

} // namespace

bool descriptors_refuse(int fd)
{
    return set_option(fd, SO_PASSRIGHTS, 0);
}

void descriptors_guard(mc_connection *connection)
{
    // Whoever made the socket may have asked for these to come along. They would be taken for what a client sends.
    for (const int option : {SO_PASSCRED, SO_PASSSEC, SO_PASSPIDFD})
        set_option(connection->fd, option, 0);
    connection->close_fd = descriptors_close;
    connection->refuses = descriptors_refuse(connection->fd);
    // Each look goes on where the last one ended; otherwise all of them would be at the first packet.
    connection->look_ahead = set_option(connection->fd, SO_PEEK_OFF, 0) ? RECEIVE_MAX : 1;
}

void descriptors_rule_out(mc_connection *connection)
{
    connection->close_fd = nullptr;
    connection->look_ahead = 0;
}

void descriptors_close(int fd, bool seen)
{
    shutdown(fd, SHUT_RDWR); // nothing more arrives
    if (seen || queue_carries(fd))
        leave(fd);
    else
        close(fd);
}

void descriptors_finish()
{
    hand_over();
    end_closers();
    if (left.timer != 0 && !anything_is_left()) {
        g_source_remove(left.timer);
        left.timer = 0;
    }
}

} // namespace libmc
