// SPDX-License-Identifier: MIT
// Pictures of a screen.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "screen.h"

// Decodes rows as screen_copy gives them to 8-bit red, green, blue, and alpha where `alpha` is set. A channel of fewer
// bits is widened by repeating its bits from the top: 0 stays 0, the largest value becomes 255. 8-bit pixels are shades
// of grey.
std::vector<uint8_t> picture_decode(const Screen &screen, const std::vector<uint8_t> &rows, bool alpha);

// Both write a temporary file beside the target and rename it: whoever opens the target sees a whole picture, the old
// one or the new one. False after a message.
bool picture_write_png(const std::string &path, const Screen &screen, const std::vector<uint8_t> &pixels, bool alpha);
bool picture_write_raw(const std::string &path, const std::vector<uint8_t> &rows);
