// SPDX-License-Identifier: MIT
// Staying in the foreground.
#pragma once

#include "pfb.h"

// Keeps SIGINT, SIGTERM and SIGHUP for hold_wait. To be called before there is anything to be left behind.
void hold_signals();

// Whether one of them is waiting.
bool hold_is_told_to_end();

// Waits for `seconds` (0: without end) or for one of these signals. When the server ends meanwhile, it says so, and the
// surface comes back with the next one. STATUS_DONE, or STATUS_FAILED after a message.
int hold_wait(pfb_client *client, double seconds);
