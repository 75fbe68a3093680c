// SPDX-License-Identifier: MIT
// The quarter turn: blocks are transposed in registers. The rectangle is gone through in bands of source rows, few
// enough that the cache still holds their lines when the next columns come by.
#pragma once

#include "vector.h"

namespace {

constexpr int32_t BAND = 128; // source rows
constexpr int32_t LINE = 64;  // bytes that the cache gets at a time

// Both transpose inside lanes: v[i] holds row i, afterwards column i.
inline void transpose(U32 (&v)[4])
{
    const U32 a = unpack_low(v[0], v[1]);
    const U32 b = unpack_high(v[0], v[1]);
    const U32 c = unpack_low(v[2], v[3]);
    const U32 d = unpack_high(v[2], v[3]);
    v[0] = unpack_pairs_low(a, c);
    v[1] = unpack_pairs_high(a, c);
    v[2] = unpack_pairs_low(b, d);
    v[3] = unpack_pairs_high(b, d);
}

inline void transpose(U16 (&v)[8])
{
    U32 low[4];
    U32 high[4];
    for (int i = 0; i < 4; i++) {
        low[i] = reinterpret_cast<U32>(unpack_low(v[2 * i], v[2 * i + 1]));
        high[i] = reinterpret_cast<U32>(unpack_high(v[2 * i], v[2 * i + 1]));
    }
    transpose(low);
    transpose(high);
    for (int i = 0; i < 4; i++) {
        v[i] = reinterpret_cast<U16>(low[i]);
        v[i + 4] = reinterpret_cast<U16>(high[i]);
    }
}

// The pixels of one source row in each lane, the rows of the lanes `step` bytes apart.
struct Load32 {
    using Src = uint32_t;
    using Dst = uint32_t;
    using V = U32;
    static constexpr auto kernel = &Kernels::turn_32;
    static constexpr bool AHEAD = true;
    static constexpr int32_t ROWS = 4;
    static V row(const uint8_t *p, ptrdiff_t step) { return load_lanes<U32>(p, step); }
};
struct Load16 {
    using Src = uint16_t;
    using Dst = uint16_t;
    using V = U16;
    static constexpr auto kernel = &Kernels::turn_16;
    static constexpr bool AHEAD = false;
    static constexpr int32_t ROWS = 8;
    static V row(const uint8_t *p, ptrdiff_t step) { return load_lanes<U16>(p, step); }
};
struct LoadRgb {
    using Src = uint32_t;
    using Dst = uint16_t;
    using V = U16;
    static constexpr auto kernel = &Kernels::turn_rgb_to_16;
    static constexpr bool AHEAD = true;
    static constexpr int32_t ROWS = 8;
    static V row(const uint8_t *p, ptrdiff_t step)
    {
        return rgb_to_16_in_lanes(load_lanes<U32>(p, step), load_lanes<U32>(p + 16, step));
    }
};

// ROWS columns of ROWS x LANES source rows; `src` is at the lowest of them. AHEAD asks for the next line of each row:
// no processor guesses that a walk across rows comes back there.
template <typename Load, bool AHEAD>
void turn_block(const typename Load::Src *src, ptrdiff_t src_pitch, typename Load::Dst *dst, ptrdiff_t dst_pitch)
{
    const ptrdiff_t up = -src_pitch * static_cast<ptrdiff_t>(sizeof(typename Load::Src));
    const auto *from = reinterpret_cast<const uint8_t *>(src);
    typename Load::V v[Load::ROWS];
    for (int32_t i = 0; i < Load::ROWS; i++, from += up) {
        v[i] = Load::row(from, up * Load::ROWS);
        if (AHEAD) {
            for (int32_t lane = 0; lane < LANES; lane++)
                __builtin_prefetch(from + up * Load::ROWS * lane + LINE);
        }
    }
    transpose(v);
    for (int32_t i = 0; i < Load::ROWS; i++, dst += dst_pitch)
        store(dst, v[i]);
}

template <typename Load, bool AHEAD>
void turn_columns(const typename Load::Src *src, ptrdiff_t src_pitch, typename Load::Dst *dst, ptrdiff_t dst_pitch,
                  int32_t h)
{
    constexpr int32_t HEIGHT = Load::ROWS * LANES;
    for (int32_t j = 0; j < h; j += HEIGHT)
        turn_block<Load, AHEAD>(src - j * src_pitch, src_pitch, dst + j, dst_pitch);
}

// `src` is at the lowest row of the band. What is no whole block is left to the narrower kernels.
template <typename Load>
void turn_band(const typename Load::Src *src, ptrdiff_t src_pitch, typename Load::Dst *dst, ptrdiff_t dst_pitch,
               int32_t w, int32_t h)
{
    constexpr int32_t COLUMNS = Load::ROWS;
    constexpr int32_t PER_LINE = LINE / static_cast<int32_t>(sizeof(typename Load::Src));
    const int32_t whole_w = w - w % COLUMNS;
    const int32_t whole_h = h - h % (Load::ROWS * LANES);
    for (int32_t i = 0; i < whole_w; i += COLUMNS) {
        if (Load::AHEAD && i % PER_LINE == 0)
            turn_columns<Load, true>(src + i, src_pitch, dst + i * dst_pitch, dst_pitch, whole_h);
        else
            turn_columns<Load, false>(src + i, src_pitch, dst + i * dst_pitch, dst_pitch, whole_h);
    }
    const auto *top = src - (h - 1) * src_pitch;
    if (whole_h < h && whole_w > 0)
        (NARROWER.*Load::kernel)(top, src_pitch, dst + whole_h, dst_pitch, whole_w, h - whole_h);
    if (whole_w < w)
        (NARROWER.*Load::kernel)(top + whole_w, src_pitch, dst + whole_w * dst_pitch, dst_pitch, w - whole_w, h);
}

template <typename Load>
void turn(const typename Load::Src *src, ptrdiff_t src_pitch, typename Load::Dst *dst, ptrdiff_t dst_pitch, int32_t w,
          int32_t h)
{
    if (dst_pitch < h) { // the rows overlap: only their order tells what is seen
        (kernels_plain.*Load::kernel)(src, src_pitch, dst, dst_pitch, w, h);
        return;
    }
    const auto *bottom = src + src_pitch * (h - 1);
    for (int32_t j = 0; j < h; j += BAND)
        turn_band<Load>(bottom - j * src_pitch, src_pitch, dst + j, dst_pitch, w, h - j < BAND ? h - j : BAND);
}

} // namespace
