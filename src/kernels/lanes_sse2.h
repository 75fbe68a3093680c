// SPDX-License-Identifier: MIT
// Vectors of 16 bytes with SSE2, which every x86-64 processor has. See vector.h for what is asked of such a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <emmintrin.h>

namespace {

constexpr int LANES = 1;

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

inline U16 pack_in_lanes(U32 a, U32 b)
{
    // There is only a signed pack, which keeps 16 bits when they come with their sign.
    const __m128i low = _mm_srai_epi32(_mm_slli_epi32(bits(a), 16), 16);
    const __m128i high = _mm_srai_epi32(_mm_slli_epi32(bits(b), 16), 16);
    return from_bits<U16>(_mm_packs_epi32(low, high));
}

inline U16 rgb_to_16_in_lanes(U32 a, U32 b)
{
    const auto top = [](__m128i p) { // the result in the upper half of each word, with its sign below
        const __m128i red_blue =
            _mm_madd_epi16(_mm_and_si128(p, _mm_set1_epi32(0x00F800F8)), _mm_set1_epi32(0x08000001));
        const __m128i green = _mm_srli_epi32(_mm_and_si128(p, _mm_set1_epi32(0x0000FC00)), 2);
        return _mm_srai_epi32(_mm_slli_epi32(_mm_or_si128(red_blue, green), 13), 16);
    };
    return from_bits<U16>(_mm_packs_epi32(top(bits(a)), top(bits(b))));
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

// 16 bytes into each lane, the lanes `step` bytes apart.
template <typename V> V load_lanes(const uint8_t *p, ptrdiff_t)
{
    return from_bits<V>(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)));
}

} // namespace
