// SPDX-License-Identifier: MIT
// Vectors of 32 bytes with AVX2: two lanes of 16 bytes, which most instructions keep apart. See vector.h for what is
// asked of such a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <immintrin.h>

#include "kernels.h"

namespace {

constexpr int LANES = 2;
constexpr const Kernels &NARROWER = kernels_sse2;

using U8 = uint8_t __attribute__((vector_size(32)));
using U16 = uint16_t __attribute__((vector_size(32)));
using U32 = uint32_t __attribute__((vector_size(32)));

template <typename V> V from_bits(__m256i v)
{
    return reinterpret_cast<V>(v);
}
template <typename V> __m256i bits(V v)
{
    return reinterpret_cast<__m256i>(v);
}

template <int SHIFT> U16 pack_in_lanes(U32 a, U32 b)
{
    return from_bits<U16>(_mm256_packus_epi32(_mm256_srli_epi32(bits(a), SHIFT), _mm256_srli_epi32(bits(b), SHIFT)));
}

constexpr int RGB_TO_16_SHIFT = 3;
inline U32 rgb_to_16_above(U32 p) // blue + 64 x green and red, each kept in a half, then put together
{
    const __m256i kept = _mm256_and_si256(bits(p), _mm256_set1_epi32(0x00F8FCF8));
    const __m256i halves = _mm256_maddubs_epi16(kept, _mm256_set1_epi32(0x00014001));
    return from_bits<U32>(_mm256_madd_epi16(halves, _mm256_set1_epi32(0x08000001)));
}

inline U16 rgb_to_16_in_lanes(U32 a, U32 b)
{
    return pack_in_lanes<RGB_TO_16_SHIFT>(rgb_to_16_above(a), rgb_to_16_above(b));
}

inline U16 lanes_to_memory(U16 v)
{
    return from_bits<U16>(_mm256_permute4x64_epi64(bits(v), 0xD8));
}

inline U8 add_saturated(U8 a, U8 b)
{
    return from_bits<U8>(_mm256_adds_epu8(bits(a), bits(b)));
}
inline U16 multiply_high(U16 a, U16 b)
{
    return from_bits<U16>(_mm256_mulhi_epu16(bits(a), bits(b)));
}

inline bool is_zero(U32 v)
{
    return _mm256_testz_si256(bits(v), bits(v)) != 0;
}
inline bool is_opaque(U32 v)
{
    return _mm256_testc_si256(bits(v), _mm256_set1_epi32(static_cast<int>(0xFF000000))) != 0;
}

inline bool may_be_plain(U32 v)
{
    const __m256i alpha = _mm256_set1_epi32(static_cast<int>(0xFF000000));
    return _mm256_testnzc_si256(bits(v), alpha) == 0;
}
inline U16 alpha_in_halves(U32 v)
{
    const __m256i places =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(3, -1, 3, -1, 7, -1, 7, -1, 11, -1, 11, -1, 15, -1, 15, -1));
    return from_bits<U16>(_mm256_shuffle_epi8(bits(v), places));
}

inline U16 unpack_low(U16 a, U16 b)
{
    return from_bits<U16>(_mm256_unpacklo_epi16(bits(a), bits(b)));
}
inline U16 unpack_high(U16 a, U16 b)
{
    return from_bits<U16>(_mm256_unpackhi_epi16(bits(a), bits(b)));
}
inline U32 unpack_low(U32 a, U32 b)
{
    return from_bits<U32>(_mm256_unpacklo_epi32(bits(a), bits(b)));
}
inline U32 unpack_high(U32 a, U32 b)
{
    return from_bits<U32>(_mm256_unpackhi_epi32(bits(a), bits(b)));
}
inline U32 unpack_pairs_low(U32 a, U32 b)
{
    return from_bits<U32>(_mm256_unpacklo_epi64(bits(a), bits(b)));
}
inline U32 unpack_pairs_high(U32 a, U32 b)
{
    return from_bits<U32>(_mm256_unpackhi_epi64(bits(a), bits(b)));
}

// The first lanes of both, and the second ones.
inline void exchange_lanes(U32 &a, U32 &b)
{
    const __m256i first = _mm256_permute2x128_si256(bits(a), bits(b), 0x20);
    b = from_bits<U32>(_mm256_permute2x128_si256(bits(a), bits(b), 0x31));
    a = from_bits<U32>(first);
}

// 16 bytes into each lane, the lanes `step` bytes apart.
template <typename V> V load_lanes(const uint8_t *p, ptrdiff_t step)
{
    const auto *first = reinterpret_cast<const __m128i *>(p);
    const auto *second = reinterpret_cast<const __m128i *>(p + step);
    return from_bits<V>(
        _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(first)), _mm_loadu_si128(second), 1));
}

} // namespace
