// SPDX-License-Identifier: MIT
// The pixel-format converters: each moves one rectangle from a source buffer into a destination buffer.
//
// A name states source, destination and turn. "rgb" and "argb" are 32-bit words (the top byte ignored or honoured),
// "32" is 32-bit units unchanged, "16" is RGB 5-6-5, "18" is RGB 6-6-6 in a 32-bit word.
//
// Arguments of every converter:
//   fs                read by the 90-degree ones only, and only native_w (the panel's width in pixels)
//   src, dst          pixel (0, 0) of each buffer
//   sx, sy            top left pixel of the rectangle in the source
//   dx, dy            the same in the destination, in screen coordinates (a 90-degree one turns them itself)
//   w, h              size of the rectangle in pixels; below 1 writes nothing
//   sstride, dstride  bytes per row, rounded down to whole pixels
// Nothing is checked here: image_render hands over only rectangles whose pixels exist in both buffers.
// The result means nothing.
#pragma once

#include "../composite/records.h"

using Converter = int32_t (*)(const FbServer *fs, const void *src, void *dst, int32_t sx, int32_t sy, int32_t dx,
                              int32_t dy, int32_t w, int32_t h, int32_t sstride, int32_t dstride);

#define RENDER_CONVERTER(name)                                                                                         \
    int32_t name(const FbServer *fs, const void *src, void *dst, int32_t sx, int32_t sy, int32_t dx, int32_t dy,       \
                 int32_t w, int32_t h, int32_t sstride, int32_t dstride)

RENDER_CONVERTER(render_rgb_to_16);
// Prints its arguments on each call, see render_rgb_to_16_90_announce.
RENDER_CONVERTER(render_rgb_to_16_90);
RENDER_CONVERTER(render_rgb_to_16_270);
RENDER_CONVERTER(render_rgb_to_18);
RENDER_CONVERTER(render_rgb_to_18_90);
RENDER_CONVERTER(render_rgb_to_18_270);
RENDER_CONVERTER(render_argb_to_32);
RENDER_CONVERTER(render_argb_to_32a);
RENDER_CONVERTER(render_rgb_to_32);
RENDER_CONVERTER(render_rgb_to_32a);
RENDER_CONVERTER(render_32_to_32);
RENDER_CONVERTER(render_32_to_32_90);
RENDER_CONVERTER(render_32_to_32_270);
RENDER_CONVERTER(render_16_to_16);
RENDER_CONVERTER(render_16_to_16_90);
RENDER_CONVERTER(render_16_to_16_270);
RENDER_CONVERTER(render_16_to_32);
RENDER_CONVERTER(render_18_to_32);
RENDER_CONVERTER(render_16_to_18);
RENDER_CONVERTER(render_18_to_16);
RENDER_CONVERTER(render_argb_to_32_alpha4);
RENDER_CONVERTER(render_rgb_to_32_alpha4);
RENDER_CONVERTER(render_16_to_16_x2);
RENDER_CONVERTER(render_rgb_to_16_x2);

// render_rgb_to_16_90 in two halves, for a caller that draws one rectangle in several pieces: the lines on standard
// output (once per rectangle) and the work.
RENDER_CONVERTER(render_rgb_to_16_90_announce);
RENDER_CONVERTER(render_rgb_to_16_90_quiet);

// What image_render needs to know of a converter, found by find_converter.
struct ConverterChoice {
    Converter run;      // prints nothing
    Converter announce; // null, or what has to be printed once per rectangle before `run`
    uint8_t src_size;   // bytes per pixel
    uint8_t dst_size;
    bool turned; // source pixel (sx + i, sy + j) lands at row dx + i, column native_w - 1 - dy - j
};

// The converter for a pair of images and a rotation in degrees, or null when there is none.
const ConverterChoice *find_converter(const xc_image *src, const xc_image *dst, int32_t rotation);
