// SPDX-License-Identifier: MIT
// Clients coming and going.
#pragma once

#include "mc.h"

// Attaches a new client to the main loop and to handle_command.
void on_new_connection(mc_factory *factory, mc_connection *connection, void *user_data);
// Removes the client's surface, if it made one, and closes the connection.
int handle_hangup(mc_connection *connection);
