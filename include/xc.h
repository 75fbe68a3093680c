/* SPDX-License-Identifier: MIT */
/*
 * xc.h - images over memory, and the row operations that composing them needs.
 *
 * Coordinates are pixels, (0, 0) is the top left one; rows run downwards. All words are little-endian. A function
 * here writes only into the destination that it is given and keeps no state.
 */
#ifndef XC_H
#define XC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Pixel formats. */
enum xc_format {
	XC_FORMAT_ARGB32 = 0, /* 32-bit word 0xAARRGGBB, colours premultiplied by alpha */
	XC_FORMAT_XRGB32 = 1, /* 32-bit word 0x??RRGGBB, top byte ignored */
	XC_FORMAT_RGB16 = 3,  /* 16-bit word, red bits 11..15, green 5..10, blue 0..4 */
	XC_FORMAT_RGB18 = 8,  /* 32-bit word, red bits 12..17, green 6..11, blue 0..5, the rest 0 */
};

/* Bits of xc_image.flags. */
#define XC_IMAGE_ALPHA 0x01u  /* the pixels carry alpha that is to be honoured */
#define XC_IMAGE_SHARED 0x10u /* the pixels are another process's shared memory: never freed or unmapped here */

/*
 * An image. Readers may look at every field; writers may change `flags` (XC_IMAGE_ALPHA), `stride` and `extent`.
 * A pixel (x, y) exists when its bytes lie within [0, extent) from `pixels`, whatever width and height say.
 */
typedef struct xc_image {
	void *pixels;    /* address of pixel (0, 0) */
	int32_t width;   /* pixels */
	int32_t height;  /* rows */
	int32_t stride;  /* bytes from one row to the next */
	uint8_t depth;   /* bits of colour: 16, 18 or 32 (24 is met on outputs that somebody else describes) */
	uint8_t format;  /* enum xc_format */
	uint32_t flags;  /* XC_IMAGE_* */
	size_t extent;   /* bytes that may be touched, counted from `pixels` */
	int refs;        /* references; the library's */
	uint8_t owned;   /* the pixels are the library's */
} xc_image;

/* The intersection of rectangles and the server's rectangles: corner form, x2 and y2 exclusive. */
typedef struct xc_rect {
	int32_t x1, y1, x2, y2;
} xc_rect;

/*
 * A new image of width x height pixels in `format` (enum xc_format), with rows `stride` bytes apart.
 * `borrowed` 1: over `pixels`, which must outlive the image; extent is stride x height (0 when that is negative or
 * `pixels` is NULL, at most PTRDIFF_MAX) until the caller, who knows what is mapped, sets it. Any stride will do.
 * `borrowed` 0 with null pixels: over storage of stride x height zero bytes, freed with the last reference. Pages of
 * it that nobody writes take no memory.
 * `reserved` is 0. XC_IMAGE_ALPHA is set for XC_FORMAT_ARGB32 only.
 * Returns one reference, or NULL: unknown format, width or height below 1, no memory; and with own storage also a
 * stride below 1, a size above INT32_MAX bytes, or pixels that are not NULL. (A stride smaller than a row makes rows
 * overlap; what exists is still decided by the extent.)
 */
xc_image *xc_image_new_with_data(int32_t width, int32_t height, void *pixels, int format, int reserved, int borrowed,
                                 int32_t stride);
xc_image *xc_image_ref(xc_image *image);  /* one reference more; returns the image */
void xc_image_unref(xc_image *image); /* NULL is allowed */

/* Address of pixel (x, y): pixels + y x stride + x x bytes per pixel. Not checked against the extent: of a pixel that
 * does not exist it is a number to compare with, not an address to use. */
void *xc_image_pointer(const xc_image *image, int32_t x, int32_t y);
/* Bytes per pixel in memory: 2 for depth 16, else 4. */
int xc_image_pixel_size(const xc_image *image);

/* result = intersection of a and b, component by component: of disjoint rectangles it comes out inverted
 * (x2 < x1 or y2 < y1). `result` may be a or b. */
void xg_area_cross(const xc_rect *a, const xc_rect *b, xc_rect *result);

/*
 * Whole-rectangle conversion of 32-bit pixels (top byte ignored). `src` and `dst` point at the rectangle's first
 * pixel; the skips are the pixels from the end of a row to the start of the next (pitch - w). w or h below 1
 * converts nothing. `sx`, `sy` tell where the rectangle lies in the source image; nothing here depends on them.
 * To 16 bits each channel loses its low bits (8 to 5, 6, 5), to 18 bits likewise (8 to 6); no rounding, no dither.
 */
void xc_convert_rgba_to_16(const uint32_t *src, uint16_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                           int32_t h, int32_t sx, int32_t sy);
void xc_convert_rgba_to_18(const uint32_t *src, uint32_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                           int32_t h, int32_t sx, int32_t sy);
/* The two turned names: they are told neither the panel's size nor the destination's bounds, and what they write
 * into a work image is turned by the present that follows. So they convert the rectangle where it stands, exactly as
 * xc_convert_rgba_to_18 does. */
void xc_convert_rgba_to_18_90(const uint32_t *src, uint32_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                              int32_t h, int32_t sx, int32_t sy);
void xc_convert_rgba_to_18_270(const uint32_t *src, uint32_t *dst, ptrdiff_t src_skip, ptrdiff_t dst_skip, int32_t w,
                               int32_t h, int32_t sx, int32_t sy);

/* Rows of n pixels; n below 1 does nothing. Source and destination must not overlap. */
void xc_copy_pixels_rgba_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n); /* words unchanged */
void xc_copy_pixels_rgb_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n);  /* alpha becomes 255 */
/*
 * Porter-Duff OVER of premultiplied pixels, each of the four bytes by itself:
 *   dst = min(255, src + mul(dst, 255 - src alpha)),  mul(a, b) = (t + (t >> 8)) >> 8 with t = a x b + 128
 * which is pixman's rounding, bit for bit. On a destination without alpha the top byte of the result is
 * unspecified; here it is computed like the others.
 */
void xc_blend_pixels_rgba_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n);
void xc_blend_pixels_rgba_to_rgb(const uint32_t *src, uint32_t *dst, int32_t n);

#ifdef __cplusplus
}
#endif
#endif
