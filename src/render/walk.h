// SPDX-License-Identifier: MIT
// The ways through a rectangle that the converters share. Each writes nothing when w or h is below 1, looks at the
// server only where it turns, and returns 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include "../composite/records.h"
#include "../kernels/kernels.h"

// The arguments of a converter (render.h), as they came.
struct Call {
    const FbServer *fs;
    const void *src;
    void *dst;
    int32_t sx;
    int32_t sy;
    int32_t dx;
    int32_t dy;
    int32_t w;
    int32_t h;
    int32_t sstride;
    int32_t dstride;
};

inline bool call_is_empty(const Call &call)
{
    return call.w < 1 || call.h < 1;
}

// Bytes per row in whole pixels. The stride counts as unsigned.
template <typename Pixel> constexpr ptrdiff_t pitch_of(int32_t stride)
{
    return static_cast<ptrdiff_t>(static_cast<uint32_t>(stride) / sizeof(Pixel));
}

// Where the rectangle starts in the source, and in a destination that is not turned.
template <typename Pixel> const Pixel *source_start(const Call &call)
{
    return static_cast<const Pixel *>(call.src) + pitch_of<Pixel>(call.sstride) * call.sy + call.sx;
}
template <typename Pixel> Pixel *destination_start(const Call &call)
{
    return static_cast<Pixel *>(call.dst) + pitch_of<Pixel>(call.dstride) * call.dy + call.dx;
}

// A kernel over the rectangle where it stands.
template <typename Src, typename Dst> int32_t walk(const Call &call, Kernel<Src, Dst> kernel)
{
    if (call_is_empty(call))
        return 0;
    kernel(source_start<Src>(call), pitch_of<Src>(call.sstride), destination_start<Dst>(call),
           pitch_of<Dst>(call.dstride), call.w, call.h);
    return 0;
}

// Words unchanged: row by row, or as one row where nothing lies between.
template <typename Pixel> int32_t walk_copy(const Call &call)
{
    if (call_is_empty(call))
        return 0;
    const ptrdiff_t src_pitch = pitch_of<Pixel>(call.sstride);
    const ptrdiff_t dst_pitch = pitch_of<Pixel>(call.dstride);
    const bool whole = src_pitch == call.w && dst_pitch == call.w;
    const size_t size = sizeof(Pixel) * static_cast<size_t>(call.w) * static_cast<size_t>(whole ? call.h : 1);
    constexpr ptrdiff_t bytes = sizeof(Pixel);
    kernels->copy(reinterpret_cast<const uint8_t *>(source_start<Pixel>(call)), src_pitch * bytes,
                  reinterpret_cast<uint8_t *>(destination_start<Pixel>(call)), dst_pitch * bytes, size,
                  whole ? 1 : call.h);
    return 0;
}

// The whole rectangle handed to one function of libxc, which is told how many pixels lie between its rows.
template <typename Dst, void convert(const uint32_t *, Dst *, ptrdiff_t, ptrdiff_t, int32_t, int32_t, int32_t, int32_t)>
int32_t walk_rectangle(const Call &call)
{
    if (call_is_empty(call))
        return 0;
    convert(source_start<uint32_t>(call), destination_start<Dst>(call), pitch_of<uint32_t>(call.sstride) - call.w,
            pitch_of<Dst>(call.dstride) - call.w, call.w, call.h, call.sx, call.sy);
    return 0;
}

// Onto a panel that stands a quarter turn from the screen: a source column, read from the bottom up, becomes a row of
// the panel. Source pixel (sx + i, sy + j) lands at row dx + i, column native_w - 1 - dy - j.
template <typename Src, typename Dst> int32_t walk_turned(const Call &call, Kernel<Src, Dst> kernel)
{
    if (call_is_empty(call))
        return 0;
    const ptrdiff_t dst_pitch = pitch_of<Dst>(call.dstride);
    const ptrdiff_t column = ptrdiff_t{call.fs->native_w} - call.dy - call.h;
    kernel(source_start<Src>(call), pitch_of<Src>(call.sstride),
           static_cast<Dst *>(call.dst) + dst_pitch * call.dx + column, dst_pitch, call.w, call.h);
    return 0;
}

// Every source pixel as a block of 2 x 2 16-bit pixels. A destination step is a pair of pixels: dx counts pairs, dy
// double rows, and a stride that is no whole number of pairs loses the rest.
template <typename Src> int32_t walk_doubled(const Call &call, Kernel<Src, uint16_t> kernel)
{
    if (call_is_empty(call))
        return 0;
    const ptrdiff_t dst_pitch = 2 * pitch_of<uint32_t>(call.dstride);
    // In 16-bit units, because a 16-bit buffer need not lie on a 32-bit boundary.
    uint16_t *dst = static_cast<uint16_t *>(call.dst) + 2 * (dst_pitch * call.dy + call.dx);
    kernel(source_start<Src>(call), pitch_of<Src>(call.sstride), dst, dst_pitch, call.w, call.h);
    return 0;
}
