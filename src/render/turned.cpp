// SPDX-License-Identifier: MIT
// The converters of a turned display.
#include "render.h"

#include "../base/output.h"
#include "walk.h"

// 90 degrees.

RENDER_CONVERTER(render_rgb_to_16_90)
{
    render_rgb_to_16_90_announce(fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride);
    return render_rgb_to_16_90_quiet(fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride);
}

// Two lines per rectangle, always, whatever its size: whoever follows a turned 16-bit panel in the log counts on them.
// They carry the first converter's name, strides in pixels, and the address where the walk begins: the bottom left
// pixel of the source rectangle, which is worked out in whole numbers because an empty rectangle has none.
int32_t render_rgb_to_16_90_announce(const FbServer *, const void *src, void *, int32_t sx, int32_t sy, int32_t dx,
                                     int32_t dy, int32_t w, int32_t h, int32_t sstride, int32_t dstride)
{
    const ptrdiff_t src_pitch = pitch_of<uint32_t>(sstride);
    const ptrdiff_t dst_pitch = pitch_of<uint16_t>(dstride);
    const int64_t first = (int64_t{sy} + h - 1) * src_pitch + sx;
    const uintptr_t start = reinterpret_cast<uintptr_t>(src) + static_cast<uintptr_t>(first) * sizeof(uint32_t);
    out_printf("%s: %d %d %d %d %d %d sstride = %d, dstride = %d\n", "render_rgb_to_16_90", sx, sy, dx, dy, w, h,
               static_cast<int>(src_pitch), static_cast<int>(dst_pitch));
    out_printf("src0 = %p src = %p\n", src, reinterpret_cast<const void *>(start));
    return 0;
}

RENDER_CONVERTER(render_rgb_to_16_90_quiet)
{
    return walk_turned<uint32_t, uint16_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride},
                                           kernels->turn_rgb_to_16);
}

RENDER_CONVERTER(render_16_to_16_90)
{
    return walk_turned<uint16_t, uint16_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->turn_16);
}

RENDER_CONVERTER(render_32_to_32_90)
{
    return walk_turned<uint32_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->turn_32);
}

// The library's function of this name leaves the turning to the present that follows (xc.h).
RENDER_CONVERTER(render_rgb_to_18_90)
{
    return walk_rectangle<uint32_t, xc_convert_rgba_to_18_90>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

// 270 degrees. These turn nothing: they walk the rectangle row by row and put it where an unturned converter would.
// It looks like an oversight and is meant: what reaches a panel at 270 degrees stands as it was drawn.

RENDER_CONVERTER(render_rgb_to_16_270)
{
    return walk<uint32_t, uint16_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->rgb_to_16);
}

RENDER_CONVERTER(render_16_to_16_270)
{
    return walk_copy<uint16_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_32_to_32_270)
{
    return walk_copy<uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

// Handed on with the turn in the name; the library keeps it where it stands (xc.h).
RENDER_CONVERTER(render_rgb_to_18_270)
{
    return walk_rectangle<uint32_t, xc_convert_rgba_to_18_270>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}
