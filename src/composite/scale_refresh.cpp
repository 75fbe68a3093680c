// SPDX-License-Identifier: MIT
// Nearest-pixel scaling of the damaged parts of a client's image into the image that its surface shows.
#include "composite.h"

#include <algorithm>
#include <cstring>

#include "../kernels/kernels.h"
#include "client_limits.h"
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

// Column x of the destination comes from this column of the source, counted from that of column 0: as often as
// advance() steps in x times.
template <typename Pixel> int64_t column_of(const RowWalk &row, int64_t x)
{
    return std::max<int64_t>(0, row.fraction + x * row.step - (STEP_ABOVE<Pixel> - 0xFFFF)) >> 16;
}

// Whether all pixels of a row exist, so that it can be done at once. (A mapping that runs backwards is left to the
// walk.)
template <typename Pixel> bool is_whole(const RowWalk &row)
{
    return row.step >= 0 &&
           row.src_grid.holds(row.src_at, row.src_at + column_of<Pixel>(row, row.n - 1) * row.src_grid.size) &&
           row.dst_grid.holds(row.dst_at, row.dst_at + (row.n - 1) * row.dst_grid.size);
}

// The columns of the source are the same in all rows: they are worked out once for a strip of the destination.
struct Strip {
    int64_t fraction; // of the row, as the step
    int64_t step;
    int32_t x;     // of the rectangle's columns, the first
    int64_t first; // source pixels from the start of the row to there
    PickPlan plan; // n is 0 before the first one
};

template <typename Pixel> void strip_fill(Strip *strip, int32_t x, int32_t n, const RowWalk &row)
{
    PickPlan *plan = &strip->plan;
    strip->fraction = row.fraction;
    strip->step = row.step;
    strip->x = x;
    strip->first = column_of<Pixel>(row, x);
    plan->n = n;
    int64_t place = row.fraction + x * row.step - (STEP_ABOVE<Pixel> - 0xFFFF); // -1 at the least
    for (int32_t i = 0; i < n; i++, place += row.step)
        plan->columns[i] = static_cast<int32_t>((place >> 16) - strip->first);
    for (int32_t i = 0; i < n && plan->columns[i] < 0; i++)
        plan->columns[i] = 0;
    pick_plan_finish(plan, sizeof(Pixel));
}

// The strip that begins at column x. The last one is kept: a picture that moves is refreshed by the same columns again
// and again.
template <typename Pixel> const Strip &find_strip(int32_t x, const RowWalk &row)
{
    static Strip kept;
    const int32_t n = std::min(PICK_MOST, row.n - x);
    if (kept.plan.n != n || kept.x != x || kept.fraction != row.fraction || kept.step != row.step)
        strip_fill<Pixel>(&kept, x, n, row);
    return kept;
}

// Rows that are done together.
constexpr int32_t BATCH_MOST = 64;
struct Batch {
    int32_t count;
    PickRow rows[BATCH_MOST];
};

template <typename Pixel> void batch_run(Batch *batch, const PickPlan *plan)
{
    const PickKernel pick = sizeof(Pixel) == 4 ? kernels->pick_32 : kernels->pick_16;
    pick(batch->rows, batch->count, plan);
    batch->count = 0;
}

// Where row y of the destination begins, and what it is made of.
struct RowPlaces {
    const ScaleState *scale;
    int64_t first; // column of the source
    int32_t x1;

    void find(RowWalk *row, int64_t y) const
    {
        row->src_at = row->src_grid.offset(first, (y * scale->y_step + scale->src_y_origin) >> 16);
        row->dst_at = row->dst_grid.offset(x1, y);
    }
};

// Row y1 + 1 and so on lie between y1 and y2 - 1 in both images: when those exist, so do they.
template <typename Pixel> bool all_are_whole(const RowPlaces &places, RowWalk row, const Rect &to)
{
    places.find(&row, to.y1);
    const bool first = is_whole<Pixel>(row);
    places.find(&row, to.y2 - 1);
    return first && is_whole<Pixel>(row);
}

// Rows y1 to y2 of a strip, when all of them are whole.
template <typename Pixel>
void refresh_whole_strip(const RowPlaces &places, const RowWalk &row, const Strip &strip, const Rect &to)
{
    constexpr int64_t size = sizeof(Pixel);
    const int64_t src_pitch = row.src_grid.pitch, dst_pitch = row.dst_grid.pitch, step = places.scale->y_step;
    const uint8_t *src = row.src + (places.first + strip.first) * size;
    uint8_t *dst = row.dst + row.dst_grid.offset(places.x1 + strip.x, to.y1);
    int64_t place = to.y1 * step + places.scale->src_y_origin;
    Batch batch;
    for (int64_t y = to.y1; y < to.y2; y += BATCH_MOST) {
        const auto n = static_cast<int32_t>(std::min<int64_t>(to.y2 - y, BATCH_MOST));
        for (int32_t i = 0; i < n; i++, place += step, dst += dst_pitch)
            batch.rows[i] = {src + (place >> 16) * src_pitch, dst};
        batch.count = n;
        batch_run<Pixel>(&batch, &strip.plan);
    }
}

// Rows y1 to y2 of a strip. `row` comes with what all rows share.
template <typename Pixel> void refresh_strip(const RowPlaces &places, RowWalk row, const Strip &strip, const Rect &to)
{
    if (all_are_whole<Pixel>(places, row, to)) {
        refresh_whole_strip<Pixel>(places, row, strip, to);
        return;
    }
    constexpr int64_t size = sizeof(Pixel);
    Batch batch;
    batch.count = 0;
    for (int64_t y = to.y1; y < to.y2; y++) {
        places.find(&row, y);
        if (is_whole<Pixel>(row)) {
            batch.rows[batch.count++] = {row.src + row.src_at + strip.first * size,
                                         row.dst + row.dst_at + strip.x * size};
        } else if (strip.x == 0) { // all of it at the first strip
            batch_run<Pixel>(&batch, &strip.plan);
            walk_row<Pixel>(row);
        }
        if (batch.count == BATCH_MOST)
            batch_run<Pixel>(&batch, &strip.plan);
    }
    batch_run<Pixel>(&batch, &strip.plan);
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
    for (int32_t x = 0; x < row.n; x += PICK_MOST)
        refresh_strip<Pixel>({&s, start >> 16, to.x1}, row, find_strip<Pixel>(x, row), to);
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
        region_bound(&refreshed, SINGLE_RECTS); // what is drawn beyond that is as it was
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
