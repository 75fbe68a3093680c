// SPDX-License-Identifier: MIT
// The record of a connection, for both sides. This half knows no GLib: what the server side hangs on a connection
// is undone through `leave`, so that a client that links mc_close does not link a main loop.
#pragma once

#include "mc.h"
#include "watch.h"

namespace libmc {

// One served command word.
struct Handler {
    Handler *next;
    char *command; // owned; empty: every word
    mc_handler_func function;
};

enum class Side { client, server };

} // namespace libmc

struct mc_connection {
    int refs; // one of the owner's, one per call that is under way
    libmc::Side side;
    int fd;        // -1: nothing, or the other side is gone
    bool greeted;  // the name is known
    bool attached; // mc_glib_init was called
    bool hung_up;  // the hang-up was reported
    bool closed;   // mc_close was called; only calls under way still hold the record
    pid_t pid;
    uid_t uid;
    uint32_t serial;   // client: that of the last request
    uint32_t asked;    // client: that of the last one that may be answered
    bool answers_come; // client: answers may lie there or be on their way
    unsigned calm;     // client: requests since an answer that nobody waited for lay there
    void *user_data;
    libmc::Handler *handlers;
    mc_hup_func hup;
    // Server side, where descriptors may come with packets; see descriptors.h.
    int look_ahead; // so many packets at a time are looked at, and then taken; 0: they are taken as they come
    bool refuses;   // no more descriptors can be sent
    bool carries;   // some are in the queue
    void (*close_fd)(int fd, bool carries); // in place of close; null: close
    // Server side, null elsewhere: leaves the main loop and the factory. Runs once, at mc_close.
    void (*leave)(mc_connection *connection);
    libmc::Watch watch;
    bool in_turn; // its packets are being handled
    mc_factory *factory;
    mc_connection *next; // in the factory's list, newest first
    char name[MC_NAME_MAX + 1];
};

namespace libmc {

// Over `fd`, which it owns from now on. The name has at most MC_NAME_MAX bytes. Null without memory.
mc_connection *connection_new(Side side, int fd, const char *name);
void connection_ref(mc_connection *connection);
void connection_unref(mc_connection *connection);
void connection_close_fd(mc_connection *connection);
// Who serves the word, or null.
mc_handler_func connection_handler(const mc_connection *connection, const char *command);

} // namespace libmc
