// SPDX-License-Identifier: MIT
// Where pixels move from one image into another: choose a converter, then call it for every rectangle.
#include "composite.h"

#include <algorithm>

#include "../base/assert.h"
#include "../base/output.h"
#include "../base/wrap.h"
#include "../render/render.h"
#include "extent.h"

int32_t image_band_bytes = 8192;

namespace {

// The C library writes a copy of this many bytes or more past the caches, which saves more than bands do.
constexpr int64_t LONG_COPY = 4 << 20;

// One rectangle on its way: the eleven arguments of a converter, and what exists of both buffers.
struct Transfer {
    const FbServer *fs;
    const ConverterChoice *choice;
    const xc_image *src;
    xc_image *dst;
    PixelGrid src_grid;
    PixelGrid dst_grid;
    int32_t sx, sy; // source image
    int32_t dx, dy; // screen; a turned converter maps them to the panel
    int32_t w, h;
};

// Offset of source pixel (i, j) of the rectangle.
int64_t src_offset(const Transfer &t, int64_t i, int64_t j)
{
    return t.src_grid.offset(t.sx + i, t.sy + j);
}

// Offset at which source pixel (i, j) of the rectangle lands.
int64_t dst_offset(const Transfer &t, int64_t i, int64_t j)
{
    if (t.choice->turned)
        return t.dst_grid.offset(static_cast<int64_t>(t.fs->native_w) - 1 - t.dy - j, t.dx + i);
    return t.dst_grid.offset(t.dx + i, t.dy + j);
}

[[gnu::hot]] bool is_whole(const Transfer &t)
{
    const int64_t right = t.w - 1;
    const int64_t bottom = t.h - 1;
    const bool dst_whole = t.choice->turned ? t.dst_grid.holds(dst_offset(t, 0, bottom), dst_offset(t, right, 0))
                                            : t.dst_grid.holds(dst_offset(t, 0, 0), dst_offset(t, right, bottom));
    return dst_whole && t.src_grid.holds(src_offset(t, 0, 0), src_offset(t, right, bottom));
}

void convert(const Transfer &t, int32_t i, int32_t j, int32_t w, int32_t h)
{
    t.choice->run(t.fs, t.src->pixels, t.dst->pixels, t.sx + i, t.sy + j, t.dx + i, t.dy + j, w, h, t.src->stride,
                  t.dst->stride);
}

// The pixels that exist in both buffers, in the converter's own order: row by row, or column by column when it turns.
void convert_existing(const Transfer &t)
{
    const int64_t src_step = t.choice->turned ? t.src_grid.pitch : t.src_grid.size;
    const int64_t dst_step = t.choice->turned ? -t.dst_grid.size : t.dst_grid.size;
    const int32_t lines = t.choice->turned ? t.w : t.h;
    const int32_t length = t.choice->turned ? t.h : t.w;
    for (int32_t line = 0; line < lines; line++) {
        const int32_t i = t.choice->turned ? line : 0;
        const int32_t j = t.choice->turned ? 0 : line;
        const PixelRun run = common_run(existing_run(t.src_grid, src_offset(t, i, j), src_step, length),
                                        existing_run(t.dst_grid, dst_offset(t, i, j), dst_step, length));
        if (run.count == 0)
            continue;
        if (t.choice->turned)
            convert(t, i, run.first, 1, run.count);
        else
            convert(t, run.first, j, run.count, 1);
    }
}

void render_rectangle(const Transfer &t)
{
    if (t.choice->announce != nullptr)
        t.choice->announce(t.fs, t.src->pixels, t.dst->pixels, t.sx, t.sy, t.dx, t.dy, t.w, t.h, t.src->stride,
                           t.dst->stride);
    if (is_whole(t))
        convert(t, 0, 0, t.w, t.h);
    else
        convert_existing(t);
}

Transfer make_transfer(const FbServer *fs, const ConverterChoice *choice, const xc_image *src, xc_image *dst)
{
    return Transfer{
        fs, choice, src, dst, converter_grid(src, choice->src_size), converter_grid(dst, choice->dst_size), 0, 0,
        0,  0,      0,   0};
}

void place(Transfer *t, const Box &box, int32_t x, int32_t y)
{
    t->sx = wrap_sub(box.x1, x);
    t->sy = wrap_sub(box.y1, y);
    t->dx = box.x1;
    t->dy = box.y1;
    t->w = box.x2 - box.x1;
    t->h = box.y2 - box.y1;
}

// ---- two steps at once ----

// Leaves a rectangle the way it stands, and tells nobody.
bool is_plain(const ConverterChoice *choice)
{
    return choice != nullptr && choice->announce == nullptr && !choice->turned;
}

// All of what image_render asserts.
bool is_on_screen(const Transfer &t)
{
    return t.w > 0 && t.h > 0 && t.sx >= 0 && t.sy >= 0 && t.dx >= 0 && t.dy >= 0 && t.dx + t.w <= t.fs->w &&
           t.dy + t.h <= t.fs->h;
}

// Every pixel of the destination belongs to one row alone, so that it does not matter when the others are written.
bool rows_are_apart(const Transfer &t)
{
    return t.w * t.dst_grid.size <= t.dst_grid.pitch;
}

bool is_long_copy(const Transfer &t)
{
    return t.w * t.dst_grid.size == t.dst_grid.pitch && t.h * t.dst_grid.pitch >= LONG_COPY;
}

int32_t band_rows(const Transfer &t)
{
    const int32_t row = t.w * static_cast<int32_t>(sizeof(uint32_t));
    return t.h * int64_t{row} <= image_band_bytes ? t.h : std::max(1, image_band_bytes / row);
}

bool can_go_by_bands(const Transfer &in, const Transfer &out)
{
    return is_on_screen(in) && is_whole(in) && is_whole(out) && rows_are_apart(in) && rows_are_apart(out) &&
           !is_long_copy(out);
}

} // namespace

[[gnu::hot]] bool image_render_through(FbServer *fs, xc_image *src, xc_image *work, xc_image *frame,
                                       const Region *region, int32_t x, int32_t y, int32_t rotation)
{
    if (region->data != nullptr || src == nullptr || work == nullptr || frame == nullptr)
        return false;
    const ConverterChoice *first = find_converter(src, work, rotation);
    const ConverterChoice *second = find_converter(work, frame, rotation);
    if (!is_plain(first) || !is_plain(second))
        return false;
    Transfer in = make_transfer(fs, first, src, work);
    Transfer out = make_transfer(fs, second, work, frame);
    place(&in, region->extents, x, y);
    place(&out, region->extents, 0, 0);
    if (!can_go_by_bands(in, out))
        return false;
    const int32_t rows = band_rows(in);
    for (int32_t j = 0; j < in.h; j += rows) {
        const int32_t n = std::min(rows, in.h - j);
        convert(in, 0, j, in.w, n);
        convert(out, 0, j, in.w, n);
    }
    return true;
}

[[gnu::hot]] void image_render(FbServer *fs, [[maybe_unused]] Backend *backend, xc_image *src, xc_image *dst,
                               const Region *region, int32_t x, int32_t y, int32_t rotation)
{
    const int n = region_num_rects(region);
    if (n == 0) {
        out_printf("%s: render region is null\n", "image_render");
        return;
    }
    if (src == nullptr || dst == nullptr)
        return; // an image that could not be had: nothing to read or nowhere to write
    const ConverterChoice *choice = find_converter(src, dst, rotation);
    if (choice == nullptr) {
        err_printf("No render function: src depth: %d dst depth: %d\n", src->depth, dst->depth);
        fs_assert(0);
    }
    Transfer t = make_transfer(fs, choice, src, dst);
    const Box *rects = region_rects(region);
    for (int i = 0; i < n; i++) {
        const Box *box = &rects[i];
        fs_assert(box->x2 > box->x1);
        fs_assert(box->y2 > box->y1);
        place(&t, *box, x, y);
        fs_assert_text(t.sx >= 0, "box->x1 - x >= 0");
        fs_assert_text(t.sy >= 0, "box->y1 - y >= 0");
        fs_assert(box->x1 >= 0);
        fs_assert(box->y1 >= 0);
        fs_assert(box->x2 <= fs->w);
        fs_assert(box->y2 <= fs->h);
        render_rectangle(t);
    }
}
