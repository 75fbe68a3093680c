// SPDX-License-Identifier: MIT
// Pictures of a screen.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "screen.h"

// Decodes rows as screen_copy gives them to 8-bit red, green, blue, and alpha where `alpha` is set. A channel of fewer
// bits is widened by repeating its bits from the top: 0 stays 0, the largest value becomes 255. 8-bit pixels are shades
// of grey. Where the screen has no alpha it is 255.
std::vector<uint8_t> picture_decode(const Screen &screen, const std::vector<uint8_t> &rows, bool alpha);

// Lays the pixels of `above` (with alpha, premultiplied) over those of `below` (without), top left corners together.
// What of `above` reaches beyond `below` is left out.
void picture_lay_over(const Screen &screen_above, const std::vector<uint8_t> &above, const Screen &screen_below,
                      std::vector<uint8_t> *below);

// Pixels.
struct PictureSize {
    uint32_t width;
    uint32_t height;
};

// Turns decoded pixels of a display that is turned by 90 or 270 degrees, so that they are upright; the size with them.
std::vector<uint8_t> picture_upright(const std::vector<uint8_t> &pixels, PictureSize *size, bool alpha, int rotation);

// All write a temporary file beside the target and rename it: whoever opens the target sees a whole picture, the old
// one or the new one. False after a message.
bool picture_write_png(const std::string &path, const Screen &screen, const std::vector<uint8_t> &pixels, bool alpha);
bool picture_write_png_size(const std::string &path, const PictureSize &size, const std::vector<uint8_t> &pixels,
                            bool alpha);
bool picture_write_raw(const std::string &path, const std::vector<uint8_t> &rows);
