// SPDX-License-Identifier: MIT
// Descriptors that clients send along with packets. Nobody here wants any, and merely letting go of one may block:
// whoever gives up the last reference to a TCP socket that lingers, or to a line with output left, waits for it.
//
// Since Linux 6.16 a socket can refuse them: the client's sending fails then, and nothing arrives. Before that, packets
// are looked at before they are taken, which gives nothing up, and a socket in whose queue descriptors are left is
// closed by another process: one that lives a moment, and only then.
#pragma once

#include "connection.h"

namespace libmc {

// From now on none can be sent to this socket, nor to the connections that it accepts from now on. False where the
// kernel has no such option.
bool descriptors_refuse(int fd);

// For a connection to which some may have been sent by now: its packets are looked at before they are taken, and its
// socket is closed without letting go of what its queue holds.
void descriptors_guard(mc_connection *connection);
// All that its queue held was seen and carries none, and no more can come.
void descriptors_rule_out(mc_connection *connection);

// Closes a socket whose queue may hold descriptors; `seen`: it does hold some. Does not wait; the client sees the end
// at once.
void descriptors_close(int fd, bool seen);
// Sockets that still wait to be closed, are. For the end: there is no main loop afterwards.
void descriptors_finish();

} // namespace libmc
