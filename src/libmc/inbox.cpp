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
    if (!inbox->laid_out)
        lay_out(inbox);
    int taken;
    do {
        taken = recvmmsg(fd, inbox->messages, static_cast<unsigned>(n), MSG_DONTWAIT | MSG_TRUNC, nullptr);
    } while (taken < 0 && errno == EINTR);
    for (int i = 0; i < taken; i++) {
        inbox->packets[i].borrowed = true;
        inbox->sizes[i] = inbox->messages[i].msg_len;
    }
    return taken < 0 && errno == EAGAIN ? 0 : taken;
}

} // namespace libmc
