// SPDX-License-Identifier: MIT
// Where packets lie from their arrival until they have been handled. One inbox serves all connections, one after the
// other; a handler that runs the main loop holds its own meanwhile.
#pragma once

#include <sys/socket.h>

#include "wire.h"

namespace libmc {

inline constexpr int RECEIVE_MAX = 16;

struct Inbox {
    bool laid_out;             // messages and parts say where the packets are
    Inbox *next;               // of those that nobody holds
    size_t sizes[RECEIVE_MAX]; // as packet_receive returns them
    iovec parts[RECEIVE_MAX];
    mmsghdr messages[RECEIVE_MAX];
    mc_packet packets[RECEIVE_MAX]; // last: of them the first is mostly the only one that is used
};

// Null without memory. To be given back.
Inbox *inbox_take();
void inbox_give(Inbox *inbox);

// Takes up to n datagrams without waiting. Returns how many; fewer than asked for: no more had arrived. -1 with errno
// set, see packet_receive. The end fills all places that are left.
int inbox_receive(Inbox *inbox, int fd, int n);

struct Look {
    int n;        // that have arrived, of those that were asked for; -1 with errno set
    int free;     // so many from the first on carry no descriptors
    bool carries; // one behind those does
};

// Looks at up to n datagrams that have arrived, and leaves them where they are, with what they carry. Uses the inbox.
Look inbox_look(Inbox *inbox, int fd, int n);

} // namespace libmc
