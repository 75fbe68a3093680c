// SPDX-License-Identifier: MIT
// Copies and conversions that leave a rectangle the way it stands.
#pragma once

#include "vector.h"

namespace {

// Bytes from which on memcpy is worth a call for each row.
constexpr size_t LONG_ROW = LANES == 1 ? 64 : 512;

inline void copy(const uint8_t *src, ptrdiff_t src_pitch, uint8_t *dst, ptrdiff_t dst_pitch, size_t size, int32_t h)
{
    if (size < sizeof(U8) || size > LONG_ROW) {
        (size < sizeof(U8) ? NARROWER : kernels_plain).copy(src, src_pitch, dst, dst_pitch, size, h);
        return;
    }
    const size_t last = size - sizeof(U8);
    for (; h > 0; h--, src += src_pitch, dst += dst_pitch) {
        for (size_t i = 0; i < last; i += sizeof(U8))
            store(dst + i, load<U8>(src + i));
        store(dst + last, load<U8>(src + last));
    }
}

template <U32 pixel(U32)> [[gnu::always_inline]] inline void words_step(const uint32_t *src, uint32_t *dst)
{
    store(dst, pixel(load<U32>(src)));
}

template <U16 pack(U32, U32)> [[gnu::always_inline]] inline void narrow_step(const uint32_t *src, uint16_t *dst)
{
    store(dst, lanes_to_memory(pack(load<U32>(src), load<U32>(src + PER_VECTOR<uint32_t>))));
}

// Blue and green move up to red, over its lowest bit, by an addition: processors do more of them at a time than shifts.
inline U32 from_18_to_16_above(U32 p)
{
    return (p & 0x3EFFEu) + (p & 0x00FFEu);
}

inline U16 pack_18_in_lanes(U32 a, U32 b)
{
    return pack_in_lanes<2>(from_18_to_16_above(a), from_18_to_16_above(b));
}

// Words out of their lower and upper halves.
inline void store_words(uint32_t *dst, U16 low, U16 high)
{
    store(dst, unpack_low(low, high));
    store(dst + PER_VECTOR<uint32_t>, unpack_high(low, high));
}

[[gnu::always_inline]] inline void step_16_to_32(const uint16_t *src, uint32_t *dst)
{
    const U16 p = lanes_to_memory(load<U16>(src));
    store_words(dst, (p << 5 & 0xFC00) | (p << 3 & 0x00F8), p >> 8 & 0x00F8);
}

[[gnu::always_inline]] inline void step_16_to_18(const uint16_t *src, uint32_t *dst)
{
    const U16 p = lanes_to_memory(load<U16>(src));
    store_words(dst, (p << 1 & 0x0FFE) | (p << 2 & 0xE000), p >> 14);
}

// One vector of pixels of 16 bits, in the order that unpacking wants.
[[gnu::always_inline]] inline U16 to_be_unpacked(const uint16_t *src)
{
    return lanes_to_memory(load<U16>(src));
}
[[gnu::always_inline]] inline U16 to_be_unpacked(const uint32_t *src)
{
    return rgb_to_16_in_lanes(load<U32>(src), load<U32>(src + PER_VECTOR<uint32_t>));
}

// Both rows at the same time: neither is read back, and nothing is computed twice.
template <typename Src, Kernel<Src, uint16_t> Kernels::*own>
void twice(const Src *src, ptrdiff_t src_pitch, uint16_t *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    constexpr int32_t N = PER_VECTOR<uint16_t>;
    if (w < N || dst_pitch < 2 * w) { // where rows overlap, the order of all pixels tells what is seen
        (NARROWER.*own)(src, src_pitch, dst, dst_pitch, w, h);
        return;
    }
    for (; h > 0; h--, src += src_pitch, dst += 2 * dst_pitch) {
        for (int32_t i = 0; i < w; i += N) {
            const int32_t at = i + N <= w ? i : w - N; // the last step may begin earlier
            const U16 p = to_be_unpacked(src + at);
            const U16 low = unpack_low(p, p), high = unpack_high(p, p);
            uint16_t *to = dst + 2 * at;
            store(to, low);
            store(to + N, high);
            store(to + dst_pitch, low);
            store(to + dst_pitch + N, high);
        }
    }
}

} // namespace
