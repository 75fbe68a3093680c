// SPDX-License-Identifier: MIT
// Nearest-pixel scaling of the damaged parts of a client's image into the image that its surface shows.
#include "composite.h"

#include <algorithm>
#include <cstring>

#include "../kernels/kernels.h"
#include "extent.h"

namespace {

int32_t clamp_to(int64_t value, int32_t low, int32_t high)
{
    return static_cast<int32_t>(std::min<int64_t>(std::max<int64_t>(value, low), high));
}

// A rectangle of the client's image in scaled surface coordinates: starts rounded down, ends rounded up.
Rect map_to_scaled(const ImageSurface *surface, const Box &box)
{
    const ScaleState &s = *surface->scale_state;
    const int32_t width = surface->area.x2 - surface->area.x1;
    const int32_t height = surface->area.y2 - surface->area.y1;
    const auto start = [](int64_t v, int64_t scale, int64_t offset) { return (v * scale + offset) >> 16; };
    const auto end = [](int64_t v, int64_t scale, int64_t offset) { return (v * scale + offset + 0xFFFF) >> 16; };
    return Rect{clamp_to(start(box.x1, s.x_scale, s.x_offset), 0, INT32_MAX),
                clamp_to(start(box.y1, s.y_scale, s.y_offset), 0, INT32_MAX),
                clamp_to(end(box.x2, s.x_scale, s.x_offset), INT32_MIN, width),
                clamp_to(end(box.y2, s.y_scale, s.y_offset), INT32_MIN, height)};
}

// One row of the refresh. Offsets count bytes from the start of each image's pixels.
struct RowWalk {
    const uint8_t *src;
    uint8_t *dst;
    PixelGrid src_grid;
    PixelGrid dst_grid;
    int64_t src_at; // the first source pixel
    int64_t dst_at; // the first destination pixel
    int64_t fraction;
    int64_t step; // 16.16 source pixels per destination pixel
    int32_t n;    // destination pixels
};

// With 32-bit pixels a fraction of exactly one whole pixel does not step the source yet, with 16-bit ones it does.
// Clients have laid out their scaled pictures by that, pixel by pixel.
template <typename Pixel> constexpr int64_t STEP_ABOVE = sizeof(Pixel) == 4 ? 0x10000 : 0xFFFF;

// Adds the step; returns how many source pixels to go on.
template <typename Pixel> int64_t advance(int64_t &fraction, int64_t step)
{
    constexpr int64_t limit = STEP_ABOVE<Pixel>;
    fraction += step;
    if (fraction <= limit)
        return 0;
    const int64_t pixels = (fraction - limit + 0xFFFF) >> 16;
    fraction -= pixels << 16;
    return pixels;
}

template <typename Pixel> void copy_pixel(const RowWalk &row, int64_t src_at, int64_t dst_at)
{
    memcpy(row.dst + dst_at, row.src + src_at, sizeof(Pixel)); // a client's stride need not keep rows aligned
}

// Pixel by pixel, those that exist.
template <typename Pixel> void walk_row(const RowWalk &row)
{
    constexpr int64_t size = sizeof(Pixel);
    int64_t src_at = row.src_at;
    int64_t dst_at = row.dst_at;
    int64_t fraction = row.fraction;
    for (int32_t i = 0; i < row.n; i++, dst_at += size) {
        if (row.src_grid.holds(src_at, src_at) && row.dst_grid.holds(dst_at, dst_at))
            copy_pixel<Pixel>(row, src_at, dst_at);
        src_at += advance<Pixel>(fraction, row.step) * size;
    }
}

// The source pixels of a row lie between the first and this one.
template <typename Pixel> int64_t last_source(const RowWalk &row)
{
    return row.src_at + (((row.fraction + row.step * row.n) >> 16) + 1) * static_cast<int64_t>(sizeof(Pixel));
}

// Whether all pixels of a row exist, so that it can be done at once. (A mapping that runs backwards is left to the
// walk.)
template <typename Pixel> bool is_whole(const RowWalk &row)
{
    return row.step >= 0 && row.src_grid.holds(row.src_at, last_source<Pixel>(row)) &&
           row.dst_grid.holds(row.dst_at, row.dst_at + (row.n - 1) * row.dst_grid.size);
}

// The columns of the source are the same in all rows: they are worked out once for a strip of the destination.
struct Strip {
    int32_t x;     // of the rectangle's columns, the first
    int64_t first; // source pixels from the start of the row to there
    PickPlan plan;
};

// Column x comes from the source pixel at place >> 16 with place = fraction + x x step, counted from that of column 0:
// as often as advance() steps in x times.
template <typename Pixel> void strip_fill(Strip *strip, int32_t x, const RowWalk &row)
{
    int64_t place = row.fraction + x * row.step - (STEP_ABOVE<Pixel> - 0xFFFF);
    strip->x = x;
    strip->first = std::max<int64_t>(0, place) >> 16;
    strip->plan.n = std::min(PICK_MOST, row.n - x);
    for (int32_t i = 0; i < strip->plan.n; i++, place += row.step)
        strip->plan.columns[i] = static_cast<int32_t>((std::max<int64_t>(0, place) >> 16) - strip->first);
    pick_plan_finish(&strip->plan, sizeof(Pixel));
}

// Rows y1 to y2 of a strip. `row` comes with what all rows share.
template <typename Pixel>
void refresh_strip(const ScaleState &s, RowWalk row, const Strip &strip, const Rect &to, int64_t start)
{
    constexpr int64_t size = sizeof(Pixel);
    const PickKernel pick = size == 4 ? kernels->pick_32 : kernels->pick_16;
    const uint8_t *done = nullptr; // the destination row above, when it was done at once
    int64_t done_src_row = 0;
    for (int64_t y = to.y1; y < to.y2; y++) {
        const int64_t src_row = (y * s.y_step + s.src_y_origin) >> 16;
        row.src_at = row.src_grid.offset(start >> 16, src_row);
        row.dst_at = row.dst_grid.offset(to.x1, y);
        if (!is_whole<Pixel>(row)) {
            done = nullptr;
            if (strip.x == 0) // all of it at the first strip
                walk_row<Pixel>(row);
            continue;
        }
        uint8_t *dst = row.dst + row.dst_at + strip.x * size;
        if (done != nullptr && done_src_row == src_row)
            memcpy(dst, done, static_cast<size_t>(strip.plan.n * size));
        else
            pick(row.src + row.src_at + strip.first * size, dst, &strip.plan);
        done = dst;
        done_src_row = src_row;
    }
}

template <typename Pixel> void refresh_rectangle(const ImageSurface *surface, const Rect &to)
{
    const ScaleState &s = *surface->scale_state;
    RowWalk row{static_cast<const uint8_t *>(s.orig_img->pixels),
                static_cast<uint8_t *>(surface->img->pixels),
                image_grid(s.orig_img, sizeof(Pixel)),
                image_grid(surface->img, sizeof(Pixel)),
                0,
                0,
                0,
                s.x_step,
                to.x2 - to.x1};
    const int64_t start = static_cast<int64_t>(to.x1) * s.x_step + s.src_x_origin;
    row.fraction = start & 0xFFFF;
    Strip strip;
    for (int32_t x = 0; x < row.n; x += strip.plan.n) {
        strip_fill<Pixel>(&strip, x, row);
        refresh_strip<Pixel>(s, row, strip, to, start);
    }
}

// Rectangles that lie apart may meet in a small scaled image, all of them in a row of it. No more than two images and
// this many pixels are refreshed in a pass.
constexpr int64_t FREE_PIXELS = 1 << 20;

bool is_too_much(const ImageSurface *surface, const Box *rects, int n)
{
    int64_t pixels = 0;
    for (int i = 0; i < n; i++) {
        const Rect to = map_to_scaled(surface, rects[i]);
        if (to.x1 < to.x2 && to.y1 < to.y2)
            pixels += (int64_t{to.x2} - to.x1) * (int64_t{to.y2} - to.y1);
    }
    return pixels > 2 * int64_t{surface->img->width} * surface->img->height + FREE_PIXELS;
}

} // namespace

void scale_refresh(ImageSurface *surface)
{
    if (is_too_much(surface, region_rects(&surface->dirty_region), region_num_rects(&surface->dirty_region)))
        region_simplify(&surface->dirty_region);
    Region refreshed;
    region_init(&refreshed, nullptr);
    const int n = region_num_rects(&surface->dirty_region);
    const Box *rects = region_rects(&surface->dirty_region);
    for (int i = 0; i < n; i++) {
        const Rect to = map_to_scaled(surface, rects[i]);
        region_union_rect(&refreshed, &refreshed, &to);
        if (to.x1 >= to.x2 || to.y1 >= to.y2)
            continue;
        if (surface->scale_state->orig_img->depth == 32)
            refresh_rectangle<uint32_t>(surface, to);
        else
            refresh_rectangle<uint16_t>(surface, to);
    }
    region_copy(&surface->dirty_region, &refreshed);
    region_uninit(&refreshed);
}
