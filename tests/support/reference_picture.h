// SPDX-License-Identifier: MIT
// What a screen has to show, composed the plainest way: one pixel at a time, from the bottom surface to the top one,
// without regions, damage or work images. Unturned displays only.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "../../src/composite/records.h"
#include "memory_output.h"

// The word that an output of format `output_format` (0, 1, 3 or 8) shows at screen position (x, y) when the surfaces,
// bottom to top, are drawn over `below`. `only_shown`: hidden ones are left out.
uint32_t reference_pixel(std::span<ImageSurface *const> surfaces, int32_t output_format, bool only_shown, int32_t x,
                         int32_t y, uint32_t below);

// Compares the whole output, fs->w x fs->h, with the surfaces of `fs` on `backend` over zero. Empty when they are
// equal, else the first pixels that differ.
std::string picture_difference(const FbServer *fs, const Backend *backend, const MemoryOutput &output);
