// SPDX-License-Identifier: MIT
#pragma once

#include "command.h"

// The request that gives a connection its surface, with the arguments as the client sent them.
struct CreateRequest {
    int32_t alpha, depth; // depth in bits
    int32_t x, y, width, height;
    int32_t stride; // bytes
    int32_t level, rotation;
    const char *name; // of the shared-memory object; owned by the packet
};

// Maps the client's shared memory and makes its surface. A client that names a missing object ends the server.
void create(mc_connection *connection, const CreateRequest &request);
