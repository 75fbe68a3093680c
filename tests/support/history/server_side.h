// SPDX-License-Identifier: MIT
// The server in this process: asked as a client asks it, and compared with the model.
#pragma once

#include <string>

#include "history.h"
#include "mc.h"

// Hands a request to the server. `object` is the name of the action's shared-memory object.
model::Reply history_ask(mc_connection *connection, const Action &a, const std::string &object);

// Each returns what differs, or nothing: the server's records; the bytes of an output in memory (outputs.h).
std::string history_compare_records(const model::Model &m);
std::string history_compare_memory(const model::Model &m, int which);
