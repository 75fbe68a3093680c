// SPDX-License-Identifier: MIT
#include "inbox.h"

#include <cerrno>
#include <cstdlib>

namespace libmc {

namespace {

Inbox first;
Inbox *unused = &first;

void lay_out(Inbox *inbox)
{
    for (int i = 0; i < RECEIVE_MAX; i++) {
        inbox->parts[i] = {inbox->packets[i].bytes, sizeof inbox->packets[i].bytes};
        inbox->messages[i].msg_hdr.msg_iov = &inbox->parts[i];
        inbox->messages[i].msg_hdr.msg_iovlen = 1;
    }
    inbox->laid_out = true;
}

int receive(Inbox *inbox, int fd, int n, int flags)
{
    if (!inbox->laid_out)
        lay_out(inbox);
    int taken;
    do {
        taken = recvmmsg(fd, inbox->messages, static_cast<unsigned>(n), MSG_DONTWAIT | MSG_TRUNC | flags, nullptr);
    } while (taken < 0 && errno == EINTR);
    return taken;
}

} // namespace

[[gnu::hot]] Inbox *inbox_take()
{
    Inbox *inbox = unused;
    if (!inbox)
        return static_cast<Inbox *>(calloc(1, sizeof(Inbox)));
    unused = inbox->next;
    return inbox;
}

[[gnu::hot]] void inbox_give(Inbox *inbox)
{
    inbox->next = unused;
    unused = inbox;
}

[[gnu::hot]] int inbox_receive(Inbox *inbox, int fd, int n)
{
    const int taken = receive(inbox, fd, n, 0);
    for (int i = 0; i < taken; i++) {
        inbox->packets[i].borrowed = true;
        inbox->sizes[i] = inbox->messages[i].msg_len;
    }
    return taken < 0 && errno == EAGAIN ? 0 : taken;
}

// An empty packet, or one that is too long, ends what may be taken: where the next look goes on is counted in bytes,
// and behind such a one kernels differ. It ends the connection anyway.
Look inbox_look(Inbox *inbox, int fd, int n)
{
    const int seen = receive(inbox, fd, n, MSG_PEEK);
    Look look = {seen < 0 && errno == EAGAIN ? 0 : seen, 0, false};
    bool whole = true;
    for (int i = 0; i < seen; i++) {
        const mmsghdr &message = inbox->messages[i];
        look.carries |= (message.msg_hdr.msg_flags & MSG_CTRUNC) != 0; // they would have needed room
        if (look.carries || !whole)
            continue;
        look.free = i + 1;
        whole = message.msg_len > 0 && message.msg_len <= MC_PACKET_MAX;
    }
    return look;
}

} // namespace libmc
