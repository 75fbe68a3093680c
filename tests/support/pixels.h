// SPDX-License-Identifier: MIT
// Pictures that clients draw, in the formats of surfaces.
#pragma once

#include <cstdint>
#include <vector>

enum class PixelFormat { ARGB, XRGB, RGB565, RGB666 };

struct Pixels {
    PixelFormat format;
    int width;
    int height;
    int stride; // bytes; may be longer than a row
    std::vector<uint8_t> bytes;

    void set(int x, int y, uint32_t word);
    uint32_t at(int x, int y) const;
};

// Zeros. `padding` in bytes, a whole number of pixels.
Pixels pixels_new(PixelFormat format, int width, int height, int padding = 0);
// Smooth gradients with noise over them, as a photograph has. Any format; with alpha it is opaque. The unused top byte
// of 32-bit words is random.
Pixels pixels_photograph(PixelFormat format, int width, int height, uint32_t seed, int padding = 0);
// Every bit that counts is random; with alpha the colours are premultiplied.
Pixels pixels_random(PixelFormat format, int width, int height, uint32_t seed, int padding = 0);
// All of one word.
Pixels pixels_filled(PixelFormat format, int width, int height, uint32_t word);
