// SPDX-License-Identifier: MIT
// Conversions that leave a rectangle the way it stands.
#pragma once

#include "vector.h"

namespace {

template <U32 pixel(U32)> void words_step(const uint32_t *src, uint32_t *dst)
{
    store(dst, pixel(load<U32>(src)));
}

template <U16 pack(U32, U32)> void narrow_step(const uint32_t *src, uint16_t *dst)
{
    store(dst, lanes_to_memory(pack(load<U32>(src), load<U32>(src + PER_VECTOR<uint32_t>))));
}

inline U16 pack_18_in_lanes(U32 a, U32 b)
{
    return pack_in_lanes(pixel_18_to_16(a), pixel_18_to_16(b));
}

// Words out of their lower and upper halves.
inline void store_words(uint32_t *dst, U16 low, U16 high)
{
    store(dst, unpack_low(low, high));
    store(dst + PER_VECTOR<uint32_t>, unpack_high(low, high));
}

inline void step_16_to_32(const uint16_t *src, uint32_t *dst)
{
    const U16 p = lanes_to_memory(load<U16>(src));
    store_words(dst, (p << 5 & 0xFC00) | (p << 3 & 0x00F8), p >> 8 & 0x00F8);
}

inline void step_16_to_18(const uint16_t *src, uint32_t *dst)
{
    const U16 p = lanes_to_memory(load<U16>(src));
    store_words(dst, (p << 1 & 0x0FFE) | (p << 2 & 0xE000), p >> 14);
}

inline void double_step_16(const uint16_t *src, uint16_t *dst)
{
    const U16 p = lanes_to_memory(load<U16>(src));
    store(dst, unpack_low(p, p));
    store(dst + PER_VECTOR<uint16_t>, unpack_high(p, p));
}

inline void double_step_rgb(const uint32_t *src, uint16_t *dst)
{
    const U16 p = rgb_to_16_in_lanes(load<U32>(src), load<U32>(src + PER_VECTOR<uint32_t>));
    store(dst, unpack_low(p, p));
    store(dst + PER_VECTOR<uint16_t>, unpack_high(p, p));
}

template <typename Src, Step<Src, uint16_t> step> void double_row(const Src *src, uint16_t *dst, ptrdiff_t n)
{
    constexpr ptrdiff_t N = PER_VECTOR<uint16_t>;
    ptrdiff_t i = 0;
    for (; i + N <= n; i += N)
        step(src + i, dst + 2 * i);
    if (i < n)
        row_rest<Src, uint16_t, N, step, 2>(src + i, dst + 2 * i, n - i);
}

// Computed twice rather than read back.
template <typename Src, Step<Src, uint16_t> step>
void twice(const Src *src, ptrdiff_t src_pitch, uint16_t *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    for (; h > 0; h--, src += src_pitch, dst += 2 * dst_pitch) {
        double_row<Src, step>(src, dst, w);
        double_row<Src, step>(src, dst + dst_pitch, w);
    }
}

} // namespace
