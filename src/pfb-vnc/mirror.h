// SPDX-License-Identifier: MIT
// The copy of a panel that viewers get, and what of it is new.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "../panelimage/screen.h"

// Pixels of the panel's memory; the second corner is outside.
struct MirrorRect {
    uint32_t x1, y1, x2, y2;
};

struct Mirror {
    Screen *screen;            // not owned
    uint32_t width, height;    // pixels, at the start
    std::vector<uint8_t> rows; // as of the last look, see screen_copy
    std::vector<uint8_t> rgbx; // the same as red, green, blue, 0
};

// An all-black copy: the first look finds everything new that is not black.
void mirror_init(Mirror *mirror, Screen *screen);

// Compares the panel with the last copy, tile by tile, brings the copy up to date, and calls `changed` for each tile
// that differs. False after a message: the panel cannot be read any more, or has another size than at the start.
bool mirror_look(Mirror *mirror, const std::function<void(const MirrorRect &)> &changed);
