// SPDX-License-Identifier: MIT
// Vectors of 16 bytes with SSE2, which every x86-64 processor has. See vector.h for what is asked of such a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <emmintrin.h>

#include "kernels.h"

namespace {

constexpr int LANES = 1;
constexpr const Kernels &NARROWER = kernels_plain;

using U8 = uint8_t __attribute__((vector_size(16)));
using U16 = uint16_t __attribute__((vector_size(16)));
using U32 = uint32_t __attribute__((vector_size(16)));

template <typename V> V from_bits(__m128i v)
{
    return reinterpret_cast<V>(v);
}
template <typename V> __m128i bits(V v)
{
    return reinterpret_cast<__m128i>(v);
}

// There is only a signed pack, which keeps 16 bits when they come with their sign.
template <int SHIFT> U16 pack_in_lanes(U32 a, U32 b)
{
    const __m128i low = _mm_srai_epi32(_mm_slli_epi32(bits(a), 16 - SHIFT), 16);
    const __m128i high = _mm_srai_epi32(_mm_slli_epi32(bits(b), 16 - SHIFT), 16);
    return from_bits<U16>(_mm_packs_epi32(low, high));
}

constexpr bool GATHERS = true;

// Every other pixel of both.
inline U16 evens(U16 a, U16 b)
{
    return pack_in_lanes<0>(reinterpret_cast<U32>(a), reinterpret_cast<U32>(b));
}
inline U32 evens(U32 a, U32 b)
{
    const __m128 both = _mm_shuffle_ps(_mm_castsi128_ps(bits(a)), _mm_castsi128_ps(bits(b)), _MM_SHUFFLE(2, 0, 2, 0));
    return from_bits<U32>(_mm_castps_si128(both));
}
inline U32 odds(U32 a, U32 b)
{
    const __m128 both = _mm_shuffle_ps(_mm_castsi128_ps(bits(a)), _mm_castsi128_ps(bits(b)), _MM_SHUFFLE(3, 1, 3, 1));
    return from_bits<U32>(_mm_castps_si128(both));
}

constexpr int RGB_TO_16_SHIFT = 5;
inline U32 rgb_to_16_above(U32 p) // green stays where it is; red and blue come to it by multiplication
{
    const __m128i red_blue = _mm_and_si128(bits(p), _mm_set1_epi32(0x00F800F8));
    const auto moved = from_bits<U32>(_mm_madd_epi16(red_blue, _mm_set1_epi32(0x20000004)));
    return (p & 0xFC00u) | moved;
}

// Every other pixel, then the others: put beside each other they need fewer shifts than to be packed.
inline U16 rgb_to_16_in_lanes(U32 a, U32 b)
{
    const U32 first = rgb_to_16_above(evens(a, b)), second = rgb_to_16_above(odds(a, b));
    return reinterpret_cast<U16>(first >> RGB_TO_16_SHIFT | second << (16 - RGB_TO_16_SHIFT));
}

inline U16 lanes_to_memory(U16 v)
{
    return v;
}

inline U8 add_saturated(U8 a, U8 b)
{
    return from_bits<U8>(_mm_adds_epu8(bits(a), bits(b)));
}
inline U16 multiply_high(U16 a, U16 b)
{
    return from_bits<U16>(_mm_mulhi_epu16(bits(a), bits(b)));
}

inline bool is_zero(U32 v)
{
    return _mm_movemask_epi8(_mm_cmpeq_epi32(bits(v), _mm_setzero_si128())) == 0xFFFF;
}
inline bool is_opaque(U32 v)
{
    return (_mm_movemask_epi8(_mm_cmpeq_epi8(bits(v), _mm_set1_epi32(-1))) & 0x8888) == 0x8888;
}

inline bool may_be_plain(U32 v)
{
    return is_zero(v) || is_opaque(v);
}
inline U16 alpha_in_halves(U32 v)
{
    const U32 once = v >> 24;
    return reinterpret_cast<U16>(once | once << 16);
}

inline U16 unpack_low(U16 a, U16 b)
{
    return from_bits<U16>(_mm_unpacklo_epi16(bits(a), bits(b)));
}
inline U16 unpack_high(U16 a, U16 b)
{
    return from_bits<U16>(_mm_unpackhi_epi16(bits(a), bits(b)));
}
inline U32 unpack_low(U32 a, U32 b)
{
    return from_bits<U32>(_mm_unpacklo_epi32(bits(a), bits(b)));
}
inline U32 unpack_high(U32 a, U32 b)
{
    return from_bits<U32>(_mm_unpackhi_epi32(bits(a), bits(b)));
}
inline U32 unpack_pairs_low(U32 a, U32 b)
{
    return from_bits<U32>(_mm_unpacklo_epi64(bits(a), bits(b)));
}
inline U32 unpack_pairs_high(U32 a, U32 b)
{
    return from_bits<U32>(_mm_unpackhi_epi64(bits(a), bits(b)));
}

inline void exchange_lanes(U32 &, U32 &) {} // there is one

// 16 bytes into each lane, the lanes `step` bytes apart.
template <typename V> V load_lanes(const uint8_t *p, ptrdiff_t)
{
    return from_bits<V>(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)));
}

} // namespace
