// SPDX-License-Identifier: MIT
// The connection to the server, and what its failures are called on the command line.
#pragma once

#include "pfb.h"

// In addition to those of all programs: nobody listens, or the server has ended meanwhile.
inline constexpr int STATUS_NO_SERVER = 3;
// No surface has the name that was given.
inline constexpr int STATUS_NO_SURFACE = 4;

// Null after a message. The caller's, to be given to pfb_disconnect.
pfb_client *connect_server(const char *name);

// The exit status for the last failure of a pfb_ function in this thread.
int connect_status();

// Prints that failure and returns connect_status().
int connect_complain();
