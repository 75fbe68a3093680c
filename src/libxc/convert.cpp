// SPDX-License-Identifier: MIT
// Whole rectangles of 32-bit pixels into the formats with fewer bits.
#include "xc.h"

#include "../kernels/kernels.h"

namespace {

template <typename Pixel>
void convert(Kernel<uint32_t, Pixel> kernel, const uint32_t *src, Pixel *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip,
             int32_t w, int32_t h)
{
    if (w > 0 && h > 0)
        kernel(src, w + src_skip, dst, w + dst_skip, w, h);
}

} // namespace

void xc_convert_rgba_to_16(const uint32_t *src, uint16_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                           int32_t h, int32_t, int32_t)
{
    convert(kernels->rgb_to_16, src, dst, src_skip, dst_skip, w, h);
}

void xc_convert_rgba_to_18(const uint32_t *src, uint32_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                           int32_t h, int32_t, int32_t)
{
    convert(kernels->rgb_to_18, src, dst, src_skip, dst_skip, w, h);
}

// Neither of these turns anything: without the panel's size there is no place to turn a rectangle to.
void xc_convert_rgba_to_18_90(const uint32_t *src, uint32_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                              int32_t h, int32_t sx, int32_t sy)
{
    xc_convert_rgba_to_18(src, dst, src_skip, dst_skip, w, h, sx, sy);
}

void xc_convert_rgba_to_18_270(const uint32_t *src, uint32_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                               int32_t h, int32_t sx, int32_t sy)
{
    xc_convert_rgba_to_18(src, dst, src_skip, dst_skip, w, h, sx, sy);
}
