// SPDX-License-Identifier: MIT
// The main loop and the signals that end it.
#pragma once

#include <glib.h>

// Null before start-up.
extern GMainLoop *loop;

// Ends the loop on SIGINT (2) and SIGTERM (15).
void handle_signal(int signo);

// SIGPIPE and SIGXFSZ are ignored (neither a vanished client nor a log that may not grow any more must end the server),
// SIGINT and SIGTERM end the main loop. These two are blocked from here on; what arrives before the loop exists is
// reported and ignored when main_loop_run begins.
void signals_install();

// Creates the loop and runs it until a signal ends it. SIGINT and SIGTERM come in only while it waits: quitting takes
// a lock that the interrupted thread might hold.
void main_loop_run();
