// SPDX-License-Identifier: MIT
// Requests as they are, below the client library: for clients that do what it would refuse.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "mc.h"

// False when the server is gone, or has closed the connection.
bool raw_request(mc_connection *connection, const char *word, std::initializer_list<int32_t> values = {});

// A surface of 32-bit pixels, screen coordinates.
struct RawSurface {
    int32_t x, y, width, height;
    int32_t level;
    bool alpha;
    uint32_t pixel; // all of them; 0 takes no memory until the server reads it
};
// Makes its memory and sends "create"; the memory is not kept here. False as above, and without memory. A server that
// refuses the connection, or ends, leaves the memory's name behind: /dev/shm/raw-PARENT-PROCESS-NUMBER. It may go when
// the server has gone, not earlier.
bool raw_create(mc_connection *connection, const RawSurface &surface);
