// SPDX-License-Identifier: MIT
// The server side's records. GLib is known from here on.
#pragma once

#include <glib.h>

#include "connection.h"
#include "listener.h"

namespace libmc {

// Requests and idle work take turns.
inline constexpr int TURN_PRIORITY = G_PRIORITY_DEFAULT_IDLE;
// How much one source does in one turn before the others have theirs.
inline constexpr int PACKETS_PER_TURN = 16;
inline constexpr int ACCEPTS_PER_TURN = 8;

// What one service bears: in all, of one process (by the pid that connected, whoever has the connection now), of
// clients that have not greeted, and how long these may take. The numbers are generous for one device; the time is long
// for a client that has connected and only has to send.
inline constexpr unsigned CONNECTIONS_MAX = 256;
inline constexpr unsigned PEER_MAX = 64;
inline constexpr unsigned UNGREETED_MAX = 32;
inline constexpr gint64 GREETING_WAIT_US = 5 * G_USEC_PER_SEC;

// How long accepting rests after a failure that only time mends, and how often such failures are reported.
inline constexpr gint64 REST_US = G_USEC_PER_SEC;

struct Limits {
    unsigned connections;
    unsigned per_peer;
    unsigned ungreeted;
    gint64 greeting_wait_us;
};

} // namespace libmc

struct mc_factory {
    int refs; // one of the owner's, one per call that is under way
    bool closed;
    mc_connection_func callback;
    void *user_data;
    char *service;
    libmc::Listener listener;
    int reserve_fd;     // given up for a moment to turn a client away when descriptors have run out; -1: lost
    libmc::Watch watch; // of the listening socket; rests, with a deadline, while accepting does
    libmc::Limits limits;
    unsigned n_connections;
    unsigned n_ungreeted;
    mc_connection *connections; // newest first
    gint64 quiet_until;         // no line about refused clients before
    unsigned unreported;        // lines kept back since the last one
};

namespace libmc {

void factory_ref(mc_factory *factory);
void factory_unref(mc_factory *factory);
void factory_remove(mc_connection *connection); // takes it off the list

// Attaches a new connection that has yet to greet, and has until `deadline` (monotonic, microseconds) to do so. False
// with errno set when it cannot be waited for.
bool connection_await_greeting(mc_connection *connection, gint64 deadline);
// One line in the log, then the end of the connection: its hang-up handler, or mc_close where there is none.
[[gnu::format(printf, 2, 3)]] void connection_drop(mc_connection *connection, const char *format, ...);

} // namespace libmc
