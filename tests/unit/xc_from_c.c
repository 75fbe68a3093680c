/* SPDX-License-Identifier: MIT */
/* The image library from a C program: it links, and an image behaves. */
#include "xc.h"

#include <stdio.h>

int main(void)
{
    const xc_rect a = {0, 0, 10, 10}, b = {5, -5, 20, 5};
    xc_rect both;
    xg_area_cross(&a, &b, &both);

    xc_image *image = xc_image_new_with_data(3, 2, NULL, XC_FORMAT_ARGB32, 0, 0, 16);
    if (image == NULL)
        return 1;
    const uint32_t half = 0x80808080u;
    uint32_t *pixel = xc_image_pointer(image, 2, 1);
    *pixel = 0xFFFFFFFFu;
    xc_blend_pixels_rgba_to_rgba(&half, pixel, 1);
    const uint32_t blended = *pixel;
    const ptrdiff_t offset = (char *)pixel - (char *)image->pixels;
    xc_image_unref(image);

    printf("%d %d %d %d, offset %td, %08x\n", both.x1, both.y1, both.x2, both.y2, offset, (unsigned)blended);
    const int crossed = both.x1 == 5 && both.y1 == 0 && both.x2 == 10 && both.y2 == 5;
    return crossed && offset == 24 && blended == 0xFFFFFFFFu ? 0 : 1;
}
