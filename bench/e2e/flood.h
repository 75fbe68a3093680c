// SPDX-License-Identifier: MIT
// Clients that flood: each sends as fast as the server takes it, and does not care what becomes of it. A benchmark and
// a test set them on a server.
#pragma once

#include <cstdint>

#include "mc.h"

struct Flooder {
    int32_t width, height;     // of its surface: the screen's
    int32_t level;             // its place in the stack
    mc_connection *connection; // null: none at the moment
    bool has_surface;
    uint64_t requests; // sent so far
};

struct Flood {
    const char *name;
    int count; // how many clients make it
    // A short while of it. Connects when there is no connection; false without a server.
    bool (*stretch)(Flooder *flooder);
};

// All kinds; the last one, "mixture", takes turns with others. Ended by an entry without a name.
extern const Flood floods[];

// By its name, or null.
const Flood *flood_find(const char *name);
void flood_end(Flooder *flooder);
