// SPDX-License-Identifier: MIT
// The converters that leave a rectangle the way it stands.
#include "render.h"

#include "walk.h"

RENDER_CONVERTER(render_rgb_to_16)
{
    return walk_rectangle<uint16_t, xc_convert_rgba_to_16>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_rgb_to_18)
{
    return walk_rectangle<uint32_t, xc_convert_rgba_to_18>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

[[gnu::hot]] RENDER_CONVERTER(render_argb_to_32)
{
    return walk<uint32_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->over);
}

RENDER_CONVERTER(render_argb_to_32a)
{
    return walk<uint32_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->over);
}

[[gnu::hot]] RENDER_CONVERTER(render_rgb_to_32)
{
    return walk_copy<uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_rgb_to_32a)
{
    return walk<uint32_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->rgb_to_argb);
}

RENDER_CONVERTER(render_32_to_32)
{
    return walk_copy<uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

[[gnu::hot]] RENDER_CONVERTER(render_16_to_16)
{
    return walk_copy<uint16_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_16_to_32)
{
    return walk<uint16_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->from_16_to_32);
}

RENDER_CONVERTER(render_18_to_32)
{
    return walk<uint32_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->from_18_to_32);
}

RENDER_CONVERTER(render_16_to_18)
{
    return walk<uint16_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->from_16_to_18);
}

RENDER_CONVERTER(render_18_to_16)
{
    return walk<uint32_t, uint16_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->from_18_to_16);
}

RENDER_CONVERTER(render_argb_to_32_alpha4)
{
    return walk<uint32_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->argb_to_alpha4);
}

RENDER_CONVERTER(render_rgb_to_32_alpha4)
{
    return walk<uint32_t, uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->rgb_to_alpha4);
}

RENDER_CONVERTER(render_16_to_16_x2)
{
    return walk_doubled<uint16_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->double_16);
}

RENDER_CONVERTER(render_rgb_to_16_x2)
{
    return walk_doubled<uint32_t>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride}, kernels->double_rgb_to_16);
}
