// SPDX-License-Identifier: MIT
// Rows of 32-bit pixels: copied, or laid over what is there.
#include "xc.h"

#include <cstring>

namespace {

// Two bytes of a pixel at a time, in bits 0..7 and 16..23 of a word, with the bits above each free for carries.
constexpr uint32_t PAIR = 0x00FF00FF;

// Each byte x factor / 255, rounded as (t + (t >> 8)) >> 8 with t = byte x factor + 128.
constexpr uint32_t pair_mul(uint32_t pair, uint32_t factor)
{
    const uint32_t t = pair * factor + 0x00800080;
    return (t + (t >> 8 & PAIR)) >> 8 & PAIR;
}

// Each sum of bytes, at most 255: a carry out of a byte fills it with ones.
constexpr uint32_t pair_add(uint32_t a, uint32_t b)
{
    const uint32_t sum = a + b;
    return (sum | (0x01000100 - (sum >> 8 & PAIR))) & PAIR;
}

constexpr uint32_t pixel_over(uint32_t src, uint32_t dst)
{
    const uint32_t rest = 255 - (src >> 24);
    const uint32_t red_blue = pair_add(src & PAIR, pair_mul(dst & PAIR, rest));
    const uint32_t alpha_green = pair_add(src >> 8 & PAIR, pair_mul(dst >> 8 & PAIR, rest));
    return alpha_green << 8 | red_blue;
}

void over_row(const uint32_t *__restrict src, uint32_t *__restrict dst, int32_t n)
{
    for (int32_t i = 0; i < n; i++)
        dst[i] = pixel_over(src[i], dst[i]);
}

void opaque_row(const uint32_t *__restrict src, uint32_t *__restrict dst, int32_t n)
{
    for (int32_t i = 0; i < n; i++)
        dst[i] = src[i] | 0xFF000000;
}

} // namespace

void xc_copy_pixels_rgba_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n)
{
    if (n > 0)
        memcpy(dst, src, static_cast<size_t>(n) * sizeof *dst);
}

void xc_copy_pixels_rgb_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n)
{
    opaque_row(src, dst, n);
}

void xc_blend_pixels_rgba_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n)
{
    over_row(src, dst, n);
}

// Computing the unused byte too is quicker than keeping it.
void xc_blend_pixels_rgba_to_rgb(const uint32_t *src, uint32_t *dst, int32_t n)
{
    over_row(src, dst, n);
}
