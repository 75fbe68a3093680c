// SPDX-License-Identifier: MIT
// The ways through a rectangle that the converters share. Each writes nothing when w or h is below 1, looks at the
// server only where it turns, and returns 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

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

// A call for each row of up to this many bytes would cost more than the copy does.
constexpr size_t SHORT_ROW = 256;

// `size` is at least STEP. The last step begins earlier where the row is no whole number of them.
template <size_t STEP> void copy_by_steps(void *to, const void *from, size_t size)
{
    auto *dst = static_cast<uint8_t *>(to);
    const auto *src = static_cast<const uint8_t *>(from);
    for (size_t at = 0; at + STEP < size; at += STEP)
        memcpy(dst + at, src + at, STEP); // of a constant size: no call
    memcpy(dst + size - STEP, src + size - STEP, STEP);
}

// `copy` is called with each row's first pixels.
template <typename Pixel, typename Copy> void walk_rows(const Call &call, int32_t rows, Copy copy)
{
    const ptrdiff_t src_pitch = pitch_of<Pixel>(call.sstride);
    const ptrdiff_t dst_pitch = pitch_of<Pixel>(call.dstride);
    const Pixel *src = source_start<Pixel>(call);
    Pixel *dst = destination_start<Pixel>(call);
    for (; rows > 0; rows--) {
        copy(dst, src);
        src += src_pitch;
        dst += dst_pitch;
    }
}

// Words unchanged: a copy for each row, and one for all of them where nothing lies between.
template <typename Pixel> [[gnu::always_inline]] inline int32_t walk_copy(const Call &call)
{
    if (call_is_empty(call))
        return 0;
    const bool whole = pitch_of<Pixel>(call.sstride) == call.w && pitch_of<Pixel>(call.dstride) == call.w;
    const int32_t rows = whole ? 1 : call.h;
    const size_t size = sizeof(Pixel) * static_cast<size_t>(call.w) * static_cast<size_t>(whole ? call.h : 1);
    if (size < 16 || size > SHORT_ROW)
        walk_rows<Pixel>(call, rows, [size](Pixel *dst, const Pixel *src) { memcpy(dst, src, size); });
    else if (size <= 32)
        walk_rows<Pixel>(call, rows, [size](Pixel *dst, const Pixel *src) { copy_by_steps<16>(dst, src, size); });
    else
        walk_rows<Pixel>(call, rows, [size](Pixel *dst, const Pixel *src) { copy_by_steps<32>(dst, src, size); });
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
