// SPDX-License-Identifier: MIT
// One pixel from one format to another. Bits that a format lacks are dropped, bits that it gains are zero: no
// rounding, no dither, no repetition of the high bits. Alpha is dropped, and 0 where a 32-bit word is made.
// A Word is uint32_t or a vector of them.
#pragma once

#include <cstdint>

namespace {

template <typename Word> constexpr Word pixel_rgb_to_16(Word p)
{
    return (p >> 8 & 0xF800u) | (p >> 5 & 0x07E0u) | (p >> 3 & 0x001Fu);
}

template <typename Word> constexpr Word pixel_rgb_to_18(Word p)
{
    return (p >> 6 & 0x3F000u) | (p >> 4 & 0x00FC0u) | (p >> 2 & 0x0003Fu);
}

template <typename Word> constexpr Word pixel_16_to_32(Word p)
{
    return (p & 0xF800u) << 8 | (p & 0x07E0u) << 5 | (p & 0x001Fu) << 3;
}

template <typename Word> constexpr Word pixel_18_to_32(Word p)
{
    return (p & 0x3F000u) << 6 | (p & 0x00FC0u) << 4 | (p & 0x0003Fu) << 2;
}

// Green keeps its six bits and moves up together with blue.
template <typename Word> constexpr Word pixel_16_to_18(Word p)
{
    return (p & 0x07FFu) << 1 | (p & 0xF800u) << 2;
}

template <typename Word> constexpr Word pixel_18_to_16(Word p)
{
    return (p & 0x00FFFu) >> 1 | (p & 0x3E000u) >> 2;
}

template <typename Word> constexpr Word pixel_rgb_to_argb(Word p)
{
    return p | 0xFF000000u;
}

// The form with 4 bits of alpha, in bits 24..27.
template <typename Word> constexpr Word pixel_argb_to_alpha4(Word p)
{
    return (p & 0x00FFFFFFu) | (p >> 4 & 0x0F000000u);
}

template <typename Word> constexpr Word pixel_rgb_to_alpha4(Word p)
{
    return (p & 0x00FFFFFFu) | 0x0F000000u;
}

template <typename Word> constexpr Word pixel_same(Word p)
{
    return p;
}

} // namespace
