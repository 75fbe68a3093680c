// SPDX-License-Identifier: MIT
// One pixel from one format to another. Bits that a format lacks are dropped, bits that it gains are zero: no
// rounding, no dither, no repetition of the high bits. Alpha is dropped, and 0 where a 32-bit word is made.
#pragma once

#include <cstdint>

template <typename Pixel> constexpr Pixel pixel_same(Pixel p)
{
    return p;
}

constexpr uint16_t pixel_rgb_to_16(uint32_t p)
{
    return static_cast<uint16_t>((p >> 8 & 0xF800) | (p >> 5 & 0x07E0) | (p >> 3 & 0x001F));
}

constexpr uint32_t pixel_16_to_32(uint16_t p)
{
    return (p & 0xF800u) << 8 | (p & 0x07E0u) << 5 | (p & 0x001Fu) << 3;
}

constexpr uint32_t pixel_18_to_32(uint32_t p)
{
    return (p & 0x3F000) << 6 | (p & 0x00FC0) << 4 | (p & 0x0003F) << 2;
}

// Green keeps its six bits and moves up together with blue.
constexpr uint32_t pixel_16_to_18(uint16_t p)
{
    return (p & 0x07FFu) << 1 | (p & 0xF800u) << 2;
}

constexpr uint16_t pixel_18_to_16(uint32_t p)
{
    return static_cast<uint16_t>((p & 0x00FFF) >> 1 | (p & 0x3E000) >> 2);
}

// The form with 4 bits of alpha, in bits 24..27.
constexpr uint32_t pixel_argb_to_alpha4(uint32_t p)
{
    return (p & 0x00FFFFFF) | (p >> 4 & 0x0F000000);
}

constexpr uint32_t pixel_rgb_to_alpha4(uint32_t p)
{
    return (p & 0x00FFFFFF) | 0x0F000000;
}
