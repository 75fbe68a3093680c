// SPDX-License-Identifier: MIT
// The kernels pixel by pixel, for every machine. The other sets have to do exactly what these do.
#include "kernels.h"

#include <cstring>

#include "pixel.h"

namespace {

void copy(const uint8_t *src, ptrdiff_t src_pitch, uint8_t *dst, ptrdiff_t dst_pitch, size_t size, int32_t h)
{
    for (; h > 0; h--, src += src_pitch, dst += dst_pitch)
        memcpy(dst, src, size);
}

template <typename Src, typename Dst, uint32_t pixel(uint32_t)>
void convert(const Src *src, ptrdiff_t src_pitch, Dst *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    for (; h > 0; h--, src += src_pitch, dst += dst_pitch) {
        for (int32_t i = 0; i < w; i++)
            dst[i] = static_cast<Dst>(pixel(src[i]));
    }
}

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

void over(const uint32_t *src, ptrdiff_t src_pitch, uint32_t *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    for (; h > 0; h--, src += src_pitch, dst += dst_pitch) {
        for (int32_t i = 0; i < w; i++)
            dst[i] = pixel_over(src[i], dst[i]);
    }
}

template <typename Src, uint32_t pixel(uint32_t)>
void twice(const Src *src, ptrdiff_t src_pitch, uint16_t *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    for (; h > 0; h--, src += src_pitch, dst += 2 * dst_pitch) {
        for (int32_t i = 0; i < w; i++) {
            const auto value = static_cast<uint16_t>(pixel(src[i]));
            dst[2 * i] = dst[2 * i + 1] = dst[dst_pitch + 2 * i] = dst[dst_pitch + 2 * i + 1] = value;
        }
    }
}

// A source column, read from the bottom up, becomes a row: it is the writing that goes straight ahead and the reading
// that jumps.
template <typename Src, typename Dst, uint32_t pixel(uint32_t)>
void turn(const Src *src, ptrdiff_t src_pitch, Dst *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    const Src *bottom = src + src_pitch * (h - 1);
    for (int32_t i = 0; i < w; i++, bottom++, dst += dst_pitch) {
        const Src *from = bottom;
        for (int32_t j = 0; j < h; j++, from -= src_pitch)
            dst[j] = static_cast<Dst>(pixel(*from));
    }
}

template <typename Pixel> void fill(Pixel *dst, ptrdiff_t pitch, Pixel value, int32_t w, int32_t h)
{
    for (; h > 0; h--, dst += pitch) {
        for (int32_t i = 0; i < w; i++)
            dst[i] = value;
    }
}

void dim(uint32_t *row, uint32_t strength, int32_t n)
{
    for (int32_t i = 0; i < n; i++) {
        const uint32_t p = row[i];
        row[i] = ((p & 0x00FF00FF) * strength >> 8 & 0x00FF00FF) | ((p & 0x0000FF00) * strength >> 8 & 0x0000FF00);
    }
}

template <typename Pixel> void pick(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    constexpr ptrdiff_t size = sizeof(Pixel);
    for (; count > 0; count--, rows++) {
        const auto [src, dst] = *rows;
        const int32_t n = plan->n;
        for (int32_t i = 0; i < n; i++)
            memcpy(dst + i * size, src + plan->columns[i] * size, sizeof(Pixel));
    }
}

} // namespace

constinit const Kernels kernels_plain = {
    .name = "plain",
    .copy = copy,
    .rgb_to_16 = convert<uint32_t, uint16_t, pixel_rgb_to_16>,
    .rgb_to_18 = convert<uint32_t, uint32_t, pixel_rgb_to_18>,
    .rgb_to_argb = convert<uint32_t, uint32_t, pixel_rgb_to_argb>,
    .rgb_to_alpha4 = convert<uint32_t, uint32_t, pixel_rgb_to_alpha4>,
    .argb_to_alpha4 = convert<uint32_t, uint32_t, pixel_argb_to_alpha4>,
    .over = over,
    .from_16_to_32 = convert<uint16_t, uint32_t, pixel_16_to_32>,
    .from_16_to_18 = convert<uint16_t, uint32_t, pixel_16_to_18>,
    .from_18_to_32 = convert<uint32_t, uint32_t, pixel_18_to_32>,
    .from_18_to_16 = convert<uint32_t, uint16_t, pixel_18_to_16>,
    .double_16 = twice<uint16_t, pixel_same>,
    .double_rgb_to_16 = twice<uint32_t, pixel_rgb_to_16>,
    .turn_16 = turn<uint16_t, uint16_t, pixel_same>,
    .turn_32 = turn<uint32_t, uint32_t, pixel_same>,
    .turn_rgb_to_16 = turn<uint32_t, uint16_t, pixel_rgb_to_16>,
    .fill_16 = fill<uint16_t>,
    .fill_32 = fill<uint32_t>,
    .dim = dim,
    .pick_16 = pick<uint16_t>,
    .pick_32 = pick<uint32_t>,
};
