// SPDX-License-Identifier: MIT
// Drawing into a client's surface.
#pragma once

#include <cstdint>

#include "pfb.h"

// 0xAARRGGBB, its colours multiplied by alpha, each rounded to the nearest.
uint32_t pixels_premultiply(uint32_t colour);
// A colour 0xRRGGBB as one pixel of the format, opaque.
uint32_t pixels_word(enum pfb_format format, uint32_t rgb);
// All of the surface.
void pixels_fill(pfb_client *client, enum pfb_format format, uint32_t word);
// The first pixel of row `y`, of a 32-bit surface.
uint32_t *pixels_row(pfb_client *client, int y);
