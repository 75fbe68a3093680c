// SPDX-License-Identifier: MIT
// A surface with a colour plane shows a colour, or dims what lies below it, instead of its image.
#include "composite.h"

#include "../base/output.h"
#include "../kernels/kernels.h"
#include "extent.h"

namespace {

constexpr uint32_t COLORS = 0x00FFFFFF;
constexpr uint32_t OPAQUE = 0xFF;

// Calls paint(pixels, count) for the existing part of each row of a box.
template <typename Pixel, typename Paint> void for_each_row(xc_image *work, const Box &box, Paint paint)
{
    const PixelGrid grid = image_grid(work, sizeof(Pixel));
    auto *bytes = static_cast<uint8_t *>(work->pixels);
    for (int32_t y = box.y1; y < box.y2; y++) {
        const int64_t start = grid.offset(box.x1, y);
        const PixelRun run = existing_run(grid, start, grid.size, box.x2 - box.x1);
        paint(reinterpret_cast<Pixel *>(bytes + start + run.first * grid.size), run.count);
    }
}

// Whether all pixels of a box exist. (A work image is as wide as whole words.)
bool is_whole(const PixelGrid &grid, const Box &box)
{
    return box.x1 < box.x2 && box.y1 < box.y2 &&
           grid.holds(grid.offset(box.x1, box.y1), grid.offset(box.x2 - 1, box.y1)) &&
           grid.holds(grid.offset(box.x1, box.y2 - 1), grid.offset(box.x2 - 1, box.y2 - 1));
}

template <typename Pixel> void fill(xc_image *work, const Region *region, Pixel value, FillKernel<Pixel> kernel)
{
    const PixelGrid grid = image_grid(work, sizeof(Pixel));
    const Box *rects = region_rects(region);
    const int n = region_num_rects(region);
    for (int i = 0; i < n; i++) {
        const Box &box = rects[i];
        if (is_whole(grid, box)) {
            auto *start = static_cast<uint8_t *>(work->pixels) + grid.offset(box.x1, box.y1);
            kernel(reinterpret_cast<Pixel *>(start), static_cast<ptrdiff_t>(grid.pitch / grid.size), value,
                   box.x2 - box.x1, box.y2 - box.y1);
        } else {
            for_each_row<Pixel>(work, box, [=](Pixel *row, int32_t count) { kernel(row, count, value, count, 1); });
        }
    }
}

void dim(xc_image *work, const Region *region, uint32_t strength)
{
    const Box *rects = region_rects(region);
    const int n = region_num_rects(region);
    for (int i = 0; i < n; i++)
        for_each_row<uint32_t>(work, rects[i],
                               [strength](uint32_t *row, int32_t count) { kernels->dim(row, strength, count); });
}

uint16_t to_565(uint32_t c)
{
    return static_cast<uint16_t>((c >> 19 & 0x1F) << 11 | (c >> 10 & 0x3F) << 5 | (c >> 3 & 0x1F));
}

void paint_16(xc_image *work, const Region *region, uint32_t c)
{
    if ((c & COLORS) == COLORS) // a veil: nothing to see on 16 bits
        return;
    if (c >> 24 == OPAQUE)
        fill(work, region, to_565(c), kernels->fill_16);
    else
        out_puts("unsupported color plane");
}

void paint_32(xc_image *work, const Region *region, uint32_t c)
{
    if ((c & COLORS) == COLORS)
        dim(work, region, c >> 24);
    else if (c >> 24 == OPAQUE)
        fill(work, region, c, kernels->fill_32);
    else
        out_puts("unsupported color plane");
}

} // namespace

void color_plane_paint(xc_image *work, const Region *region, int32_t c)
{
    if (work == nullptr)
        return;
    // Tools that count layers in the log rely on one line for 16 bits and two for everything else.
    if (work->format == XC_FORMAT_RGB16) {
        paint_16(work, region, static_cast<uint32_t>(c));
        out_puts("overlay_color_layer");
    } else {
        paint_32(work, region, static_cast<uint32_t>(c));
        out_puts("overlay_color_layer");
        out_puts("overlay_color_layer");
    }
}
