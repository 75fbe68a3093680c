// SPDX-License-Identifier: MIT
// The requests of clients.
#pragma once

#include <cstdint>

#include "../composite/composite.h"
#include "mc.h"

// The one server object; null before start-up and after shut-down.
extern FbServer *fs;

// Which surface of the list a connection without one of its own addresses; -1 after a "set_surface" that found none.
// One for the whole process.
extern int32_t selected_surface_index;

// Handles one request and returns the reply, or null for none. Serves every command word.
mc_packet *handle_command(mc_connection *connection, mc_packet *request);
