// SPDX-License-Identifier: MIT
// The command line.
#pragma once

#include <cstdint>

// Settings of the whole process. The two device paths are in backend.h. Strings point into the argument vector.
extern int32_t use_input;         // printed only
extern int32_t send_event_remote; // these four drive nothing; start-up scripts of existing devices pass them
extern const char *remote_addr;
extern int32_t use_x;
extern int32_t output_scale; // range-checked only

struct Options {
    int32_t w = -1; // screen size in pixels; -1 x -1 takes the device's
    int32_t h = -1;
    int32_t benchmark = 0; // stop once the server object is made
};

// 0, or -1 after a message on standard error.
int options_parse(int argc, char **argv, Options *options);
// The summary on standard output.
void options_print(const Options *options);
