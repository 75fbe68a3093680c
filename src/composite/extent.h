// SPDX-License-Identifier: MIT
// The one guard over pixel memory. Strides, sizes and rectangles come from clients and devices unchecked; what may be
// touched is decided here, from the bytes that an image really has (xc_image.extent). Pixels that exist are read and
// written, pixels that do not are skipped.
#pragma once

#include <cstdint>

#include "xc.h"

// Where the pixels of an image lie, as the loops that walk them count: byte offsets from xc_image.pixels.
struct PixelGrid {
    int64_t pitch;  // bytes from one row to the next
    int64_t size;   // bytes per pixel
    int64_t extent; // bytes that exist

    int64_t offset(int64_t x, int64_t y) const { return y * pitch + x * size; }
    // All pixels between two offsets, the last one included.
    bool holds(int64_t first, int64_t last) const { return first >= 0 && last + size <= extent; }
};

// The grid of a converter with pixels of `size` bytes, 2 or 4: the stride counts as unsigned whole pixels. Asked for at
// every surface that is drawn, and without a division, which small processors have to compute.
PixelGrid converter_grid(const xc_image *image, int size);
// The grid of xc_image_pointer: the stride as it is.
PixelGrid image_grid(const xc_image *image, int size);

// A run of pixels: first, first + 1, ... first + count - 1; count may be 0.
struct PixelRun {
    int32_t first;
    int32_t count;
};

// Of `count` pixels at the byte offsets start, start + step, ... those that exist (they are always one run).
PixelRun existing_run(const PixelGrid &grid, int64_t start, int64_t step, int32_t count);
PixelRun common_run(PixelRun a, PixelRun b);
