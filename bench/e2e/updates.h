// SPDX-License-Identifier: MIT
// Clients of the server that is measured, and their updates: drawn in one colour, reported, looked for on the panel.
#pragma once

#include <cstdint>
#include <vector>

#include "target.h"

extern const Target *target; // the server's

constexpr int32_t TILE = 64;
Area tile(int i); // one after the other, all over the screen

// The ith update of a part of the client's surface: its pixels alone, or reported as well.
void paint(Client *client, const Area &part, int i);
void draw(Client *client, const Area &part, int i);
bool is_shown(const Client *client, const Area &part, int i);
// Until it is on the panel, or all of the client's updates have been drawn where nobody sees the panel.
void wait_shown(Client *client, const Area &part, int i);

Client connect_at(const Area &area);
// All of each surface once: what is touched for the first time is no part of a measure.
void show_all(std::vector<Client> &clients);
// A client that is connected, and all of whose surface has been shown.
Client connect_surface(const Area &area);
Client connect_screen();
