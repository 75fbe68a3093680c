// SPDX-License-Identifier: MIT
// Whole rectangles of 32-bit pixels into the formats with fewer bits.
#include "xc.h"

namespace {

constexpr uint16_t pixel_to_16(uint32_t p)
{
    return static_cast<uint16_t>((p >> 8 & 0xF800) | (p >> 5 & 0x07E0) | (p >> 3 & 0x001F));
}

constexpr uint32_t pixel_to_18(uint32_t p)
{
    return (p >> 6 & 0x3F000) | (p >> 4 & 0x00FC0) | (p >> 2 & 0x0003F);
}

template <typename Pixel, Pixel convert(uint32_t)>
void convert_row(const uint32_t *__restrict src, Pixel *__restrict dst, int32_t n)
{
    for (int32_t i = 0; i < n; i++)
        dst[i] = convert(src[i]);
}

template <typename Pixel, Pixel convert(uint32_t)>
void convert_rectangle(const uint32_t *src, Pixel *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w, int32_t h)
{
    if (w < 1)
        return;
    for (; h > 0; h--) {
        convert_row<Pixel, convert>(src, dst, w);
        src += w + src_skip;
        dst += w + dst_skip;
    }
}

} // namespace

void xc_convert_rgba_to_16(const uint32_t *src, uint16_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                           int32_t h, int32_t, int32_t)
{
    convert_rectangle<uint16_t, pixel_to_16>(src, dst, src_skip, dst_skip, w, h);
}

void xc_convert_rgba_to_18(const uint32_t *src, uint32_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                           int32_t h, int32_t, int32_t)
{
    convert_rectangle<uint32_t, pixel_to_18>(src, dst, src_skip, dst_skip, w, h);
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
