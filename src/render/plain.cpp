// SPDX-License-Identifier: MIT
// The converters that leave a rectangle the way it stands.
#include "render.h"

#include "pixel.h"
#include "walk.h"

RENDER_CONVERTER(render_rgb_to_16)
{
    return walk_rectangle<uint16_t, xc_convert_rgba_to_16>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_rgb_to_18)
{
    return walk_rectangle<uint32_t, xc_convert_rgba_to_18>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_argb_to_32)
{
    return walk_rows<uint32_t, uint32_t, xc_blend_pixels_rgba_to_rgb>(
        {fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_argb_to_32a)
{
    return walk_rows<uint32_t, uint32_t, xc_blend_pixels_rgba_to_rgba>(
        {fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_rgb_to_32)
{
    return walk_rows<uint32_t, uint32_t, xc_copy_pixels_rgba_to_rgba>(
        {fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_rgb_to_32a)
{
    return walk_rows<uint32_t, uint32_t, xc_copy_pixels_rgb_to_rgba>(
        {fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_32_to_32)
{
    return walk_rows<uint32_t, uint32_t, copy_row<uint32_t>>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_16_to_16)
{
    return walk_rows<uint16_t, uint16_t, copy_row<uint16_t>>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_16_to_32)
{
    return walk_pixels<uint16_t, uint32_t, pixel_16_to_32>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_18_to_32)
{
    return walk_pixels<uint32_t, uint32_t, pixel_18_to_32>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_16_to_18)
{
    return walk_pixels<uint16_t, uint32_t, pixel_16_to_18>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_18_to_16)
{
    return walk_pixels<uint32_t, uint16_t, pixel_18_to_16>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_argb_to_32_alpha4)
{
    return walk_pixels<uint32_t, uint32_t, pixel_argb_to_alpha4>(
        {fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_rgb_to_32_alpha4)
{
    return walk_pixels<uint32_t, uint32_t, pixel_rgb_to_alpha4>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_16_to_16_x2)
{
    return walk_doubled<uint16_t, pixel_same<uint16_t>>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}

RENDER_CONVERTER(render_rgb_to_16_x2)
{
    return walk_doubled<uint32_t, pixel_rgb_to_16>({fs, src, dst, sx, sy, dx, dy, w, h, sstride, dstride});
}
