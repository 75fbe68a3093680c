// SPDX-License-Identifier: MIT
// The ways through a rectangle that the converters share. Each writes nothing when w or h is below 1, looks at the
// server only where it turns, and returns 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "../composite/records.h"

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

// Row functions for walk_rows, as those of libxc: n pixels, n at least 1.
template <typename Src, typename Dst, Dst pixel(Src)>
void convert_row(const Src *__restrict src, Dst *__restrict dst, int32_t n)
{
    for (int32_t i = 0; i < n; i++)
        dst[i] = pixel(src[i]);
}
template <typename Pixel> void copy_row(const Pixel *src, Pixel *dst, int32_t n)
{
    memcpy(dst, src, static_cast<size_t>(n) * sizeof(Pixel));
}

// Row by row, unturned.
template <typename Src, typename Dst, void row(const Src *, Dst *, int32_t)> int32_t walk_rows(const Call &call)
{
    if (call_is_empty(call))
        return 0;
    const Src *src = source_start<Src>(call);
    Dst *dst = destination_start<Dst>(call);
    for (int32_t left = call.h; left > 0; left--) {
        row(src, dst, call.w);
        src += pitch_of<Src>(call.sstride);
        dst += pitch_of<Dst>(call.dstride);
    }
    return 0;
}

// The same over the formula of one pixel.
template <typename Src, typename Dst, Dst pixel(Src)> int32_t walk_pixels(const Call &call)
{
    return walk_rows<Src, Dst, convert_row<Src, Dst, pixel>>(call);
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
// the panel. Source pixel (sx + i, sy + j) lands at row dx + i, column native_w - 1 - dy - j. The panel's memory may be
// slow and uncached, so it is the writing that goes straight ahead and the reading that jumps.
template <typename Src, typename Dst, Dst pixel(Src)> int32_t walk_columns(const Call &call)
{
    if (call_is_empty(call))
        return 0;
    const ptrdiff_t src_pitch = pitch_of<Src>(call.sstride);
    const ptrdiff_t dst_pitch = pitch_of<Dst>(call.dstride);
    const Src *bottom = source_start<Src>(call) + src_pitch * (call.h - 1);
    const ptrdiff_t column = ptrdiff_t{call.fs->native_w} - call.dy - call.h;
    Dst *row = static_cast<Dst *>(call.dst) + dst_pitch * call.dx + column;
    for (int32_t i = 0; i < call.w; i++, bottom++, row += dst_pitch) {
        const Src *src = bottom;
        for (int32_t j = 0; j < call.h; j++, src -= src_pitch)
            row[j] = pixel(*src);
    }
    return 0;
}

// Every source pixel as a block of 2 x 2 16-bit pixels. A destination step is a pair of pixels: dx counts pairs, dy
// double rows, and a stride that is no whole number of pairs loses the rest.
template <typename Src, uint16_t pixel(Src)> int32_t walk_doubled(const Call &call)
{
    if (call_is_empty(call))
        return 0;
    const ptrdiff_t dst_pitch = 2 * pitch_of<uint32_t>(call.dstride);
    const Src *src = source_start<Src>(call);
    // In 16-bit units, because a 16-bit buffer need not lie on a 32-bit boundary.
    uint16_t *dst = static_cast<uint16_t *>(call.dst) + 2 * (dst_pitch * call.dy + call.dx);
    for (int32_t left = call.h; left > 0; left--) {
        for (int32_t i = 0; i < call.w; i++) {
            const uint16_t value = pixel(src[i]);
            dst[2 * i] = dst[2 * i + 1] = dst[dst_pitch + 2 * i] = dst[dst_pitch + 2 * i + 1] = value;
        }
        src += pitch_of<Src>(call.sstride);
        dst += 2 * dst_pitch;
    }
    return 0;
}
