// SPDX-License-Identifier: MIT
// Staying in the foreground.
#pragma once

#include "pfb.h"

// Keeps SIGINT, SIGTERM and SIGHUP for hold_wait. To be called before there is anything to be left behind.
void hold_signals();

// Whether one of them is waiting.
bool hold_is_told_to_end();

// Waits for `seconds` (0: without end), for one of these signals, or for the end of the server. STATUS_DONE, or after a
// message that the server has ended STATUS_NO_SERVER.
int hold_wait(pfb_client *client, double seconds);
