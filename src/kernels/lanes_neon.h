// SPDX-License-Identifier: MIT
// Vectors of 16 bytes with NEON, of 32-bit and 64-bit ARM. See vector.h for what is asked of such a file.
#pragma once

#include <arm_neon.h>
#include <cstddef>
#include <cstdint>

#include "kernels.h"

namespace {

constexpr int LANES = 1;
constexpr const Kernels &NARROWER = kernels_plain;

using U8 = uint8x16_t;
using U16 = uint16x8_t;
using U32 = uint32x4_t;

template <int SHIFT> U16 pack_in_lanes(U32 a, U32 b)
{
    return vcombine_u16(vshrn_n_u32(a, SHIFT), vshrn_n_u32(b, SHIFT));
}

constexpr int RGB_TO_16_SHIFT = 5;
inline U32 rgb_to_16_above(U32 p) // green stays where it is
{
    return (p & 0xFC00u) | (p >> 3 & 0x1F0000u) | (p << 2 & 0x03E0u);
}

inline U16 rgb_to_16_in_lanes(U32 a, U32 b)
{
    return pack_in_lanes<RGB_TO_16_SHIFT>(rgb_to_16_above(a), rgb_to_16_above(b));
}

inline U16 lanes_to_memory(U16 v)
{
    return v;
}

inline U8 add_saturated(U8 a, U8 b)
{
    return vqaddq_u8(a, b);
}
inline U16 multiply_high(U16 a, U16 b)
{
    return vcombine_u16(vshrn_n_u32(vmull_u16(vget_low_u16(a), vget_low_u16(b)), 16),
                        vshrn_n_u32(vmull_u16(vget_high_u16(a), vget_high_u16(b)), 16));
}

inline bool is_zero(U32 v)
{
    return vget_lane_u64(vreinterpret_u64_u32(vorr_u32(vget_low_u32(v), vget_high_u32(v))), 0) == 0;
}
inline bool is_opaque(U32 v)
{
    const uint32x2_t both = vand_u32(vget_low_u32(v), vget_high_u32(v));
    return (vget_lane_u32(both, 0) & vget_lane_u32(both, 1)) >= 0xFF000000;
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
    return vzipq_u16(a, b).val[0];
}
inline U16 unpack_high(U16 a, U16 b)
{
    return vzipq_u16(a, b).val[1];
}
inline U32 unpack_low(U32 a, U32 b)
{
    return vzipq_u32(a, b).val[0];
}
inline U32 unpack_high(U32 a, U32 b)
{
    return vzipq_u32(a, b).val[1];
}
inline U32 unpack_pairs_low(U32 a, U32 b)
{
    return vcombine_u32(vget_low_u32(a), vget_low_u32(b));
}
inline U32 unpack_pairs_high(U32 a, U32 b)
{
    return vcombine_u32(vget_high_u32(a), vget_high_u32(b));
}

inline void exchange_lanes(U32 &, U32 &) {} // there is one

// On their way from memory into a vector, pixels would pass other registers or the stack, and wait there.
constexpr bool GATHERS = false;

// Every other pixel of both.
inline U16 evens(U16 a, U16 b)
{
    return vuzpq_u16(a, b).val[0];
}
inline U32 evens(U32 a, U32 b)
{
    return vuzpq_u32(a, b).val[0];
}

// 16 bytes into each lane, the lanes `step` bytes apart.
template <typename V> V load_lanes(const uint8_t *p, ptrdiff_t)
{
    return reinterpret_cast<V>(vld1q_u8(p));
}

} // namespace
