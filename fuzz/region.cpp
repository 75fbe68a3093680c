// SPDX-License-Identifier: MIT
// Operations on regions beside bitmaps. The plane of 16-bit coordinates is cut at its rims and in its middle only, so
// that a small bitmap stands for all of it: between those cells lie two wide ones, which no edge divides.
#include <algorithm>
#include <array>
#include <bitset>
#include <climits>
#include <vector>

#include "../src/base/output.h"
#include "../src/region/region.h"
#include "../tests/support/failing_memory.h"
#include "support/fuzz.h"

namespace {

constexpr int N_REGIONS = 4;
constexpr int MOST_STEPS = 80;
constexpr int RIM = 20;    // unit cells at either end
constexpr int MIDDLE = 24; // unit cells around 0
constexpr int CELLS = RIM + 1 + MIDDLE + 1 + RIM;

// Where the cells begin, on both axes; the last entry is the end of the plane.
using Edges = std::array<int32_t, CELLS + 1>;

constexpr Edges make_edges()
{
    Edges edges{};
    size_t n = 0;
    for (int32_t i = 0; i <= RIM; i++)
        edges[n++] = SHRT_MIN + i;
    for (int32_t i = -MIDDLE / 2; i <= MIDDLE / 2; i++)
        edges[n++] = i;
    for (int32_t i = SHRT_MAX - RIM; i <= SHRT_MAX; i++)
        edges[n++] = i;
    return edges;
}

constexpr Edges EDGES = make_edges();

using Bitmap = std::array<std::bitset<CELLS>, CELLS>; // rows of cells

bool is_edge(int32_t value)
{
    return std::binary_search(EDGES.begin(), EDGES.end(), value);
}

// The cell of a coordinate, or -1 outside the plane.
int cell_of(int32_t value)
{
    if (value < SHRT_MIN || value >= SHRT_MAX)
        return -1;
    return static_cast<int>(std::upper_bound(EDGES.begin(), EDGES.end(), value) - EDGES.begin()) - 1;
}

// A rectangle as it is meant: every cell that begins inside it. Its edges may lie beyond the plane.
Bitmap bitmap_of(const Rect &rect)
{
    std::bitset<CELLS> row;
    for (size_t x = 0; x < CELLS; x++)
        row[x] = EDGES[x] >= rect.x1 && EDGES[x] < rect.x2;
    Bitmap bitmap;
    for (size_t y = 0; y < CELLS; y++) {
        if (EDGES[y] >= rect.y1 && EDGES[y] < rect.y2)
            bitmap[y] = row;
    }
    return bitmap;
}

Bitmap combine(const Bitmap &a, const Bitmap &b, int how)
{
    Bitmap result;
    for (size_t y = 0; y < CELLS; y++)
        result[y] = how == 0 ? a[y] | b[y] : how == 1 ? a[y] & b[y] : a[y] & ~b[y];
    return result;
}

Bitmap moved(const Bitmap &bitmap, int32_t dx, int32_t dy)
{
    auto origin = [](int32_t to, int32_t by) {
        return cell_of(static_cast<int32_t>(std::clamp<int64_t>(int64_t{to} - by, INT_MIN, INT_MAX)));
    };
    std::array<int, CELLS> columns; // where each column comes from
    for (size_t x = 0; x < CELLS; x++)
        columns[x] = origin(EDGES[x], dx);
    Bitmap result;
    for (size_t y = 0; y < CELLS; y++) {
        const int row = origin(EDGES[y], dy);
        for (size_t x = 0; row >= 0 && x < CELLS; x++)
            result[y][x] = columns[x] >= 0 && bitmap[static_cast<size_t>(row)][static_cast<size_t>(columns[x])];
    }
    return result;
}

struct State {
    Region regions[N_REGIONS];
    Bitmap bitmaps[N_REGIONS];
};

// ---- what must hold ----

bool is_banded(const Box *rects, int n)
{
    for (int i = 1; i < n; i++) {
        const Box &a = rects[i - 1], &b = rects[i];
        const bool same_band = a.y1 == b.y1 && a.y2 == b.y2 && a.x2 < b.x1;
        if (!same_band && b.y1 < a.y2)
            return false;
    }
    return true;
}

Box extents_of(const Box *rects, int n)
{
    Box box = rects[0];
    for (int i = 1; i < n; i++)
        box = {std::min(box.x1, rects[i].x1), std::min(box.y1, rects[i].y1), std::max(box.x2, rects[i].x2),
               std::max(box.y2, rects[i].y2)};
    return box;
}

void check_form(const Region &region)
{
    const Box *rects = region_rects(&region);
    const int n = region_num_rects(&region);
    if ((n == 0) != (region_is_empty(&region) != 0))
        fuzz_finding("%d rectangles, and empty says otherwise", n);
    for (int i = 0; i < n; i++) {
        if (rects[i].x1 >= rects[i].x2 || rects[i].y1 >= rects[i].y2)
            fuzz_finding("an empty rectangle in a region");
        if (!is_edge(rects[i].x1) || !is_edge(rects[i].x2) || !is_edge(rects[i].y1) || !is_edge(rects[i].y2))
            fuzz_finding("a rectangle ends where nothing did");
    }
    if (!is_banded(rects, n))
        fuzz_finding("rectangles overlap, touch or are out of order");
    if (n == 0)
        return;
    const Box extents = extents_of(rects, n);
    const Box &told = region.extents;
    if (told.x1 != extents.x1 || told.y1 != extents.y1 || told.x2 != extents.x2 || told.y2 != extents.y2)
        fuzz_finding("the extents are not those of the rectangles");
}

void check(const State &s, int which)
{
    const Region &region = s.regions[which];
    check_form(region);
    Bitmap found;
    for (int i = 0; i < region_num_rects(&region); i++) {
        const Box &box = region_rects(&region)[i];
        found = combine(found, bitmap_of({box.x1, box.y1, box.x2, box.y2}), 0);
    }
    if (found != s.bitmaps[which])
        fuzz_finding("region %d holds other cells than it should", which);
}

// ---- values ----

// An edge of a cell, or beyond the plane.
int32_t coordinate(FuzzInput &in)
{
    static const int32_t beyond[] = {INT32_MIN, INT32_MIN + 1, SHRT_MIN - 1, SHRT_MAX + 1,
                                     40000,     -40000,        65536,        INT32_MAX};
    const uint8_t kind = in.byte();
    if (kind < 200)
        return kind < 100 ? kind % MIDDLE - MIDDLE / 2 : EDGES[kind % EDGES.size()];
    return kind < 224 ? beyond[kind % 8] : EDGES[in.byte() % EDGES.size()];
}

Rect rectangle(FuzzInput &in)
{
    Rect rect{coordinate(in), coordinate(in), coordinate(in), coordinate(in)};
    const bool keeps_order = in.chance(32); // maybe inverted
    if (!keeps_order && rect.x2 < rect.x1)
        std::swap(rect.x1, rect.x2);
    if (!keeps_order && rect.y2 < rect.y1)
        std::swap(rect.y1, rect.y2);
    return rect;
}

int32_t distance(FuzzInput &in)
{
    static const int32_t far[] = {32768, -32768, 65535, -65535, 65536, INT32_MIN, INT32_MAX, 32767};
    const uint8_t kind = in.byte();
    return kind < 192 ? kind % 17 - 8 : kind < 224 ? far[kind % 8] : far[kind % 2] + kind % 9 - 4;
}

// Edges that a move takes between the cells would be lost in the bitmap.
bool stays_on_edges(const Region &region, int32_t dx, int32_t dy)
{
    auto fits = [](int32_t value, int64_t by) {
        const int64_t to = value + by;
        return to <= SHRT_MIN || to >= SHRT_MAX || is_edge(static_cast<int32_t>(to));
    };
    for (int i = 0; i < region_num_rects(&region); i++) {
        const Box &box = region_rects(&region)[i];
        if (!fits(box.x1, dx) || !fits(box.x2, dx) || !fits(box.y1, dy) || !fits(box.y2, dy))
            return false;
    }
    return true;
}

// ---- steps ----

void add_boxes(State &s, FuzzInput &in, int to)
{
    std::vector<Box> boxes(static_cast<size_t>(in.below(20)));
    for (Box &box : boxes) {
        const Rect rect = rectangle(in);
        box = region_box(rect);
        s.bitmaps[to] = combine(s.bitmaps[to], bitmap_of({box.x1, box.y1, box.x2, box.y2}), 0);
    }
    region_add_boxes(&s.regions[to], boxes.data(), static_cast<int>(boxes.size()));
}

void translate(State &s, FuzzInput &in, int to)
{
    const int32_t dx = distance(in), dy = distance(in);
    if (!stays_on_edges(s.regions[to], dx, dy))
        return;
    region_translate(&s.regions[to], dx, dy);
    s.bitmaps[to] = moved(s.bitmaps[to], dx, dy);
}

void remake(State &s, FuzzInput &in, int to)
{
    const Rect rect = rectangle(in);
    const Box box = region_box(rect);
    region_uninit(&s.regions[to]);
    region_init(&s.regions[to], &box);
    s.bitmaps[to] = bitmap_of({box.x1, box.y1, box.x2, box.y2});
}

// Through a region of its own storage, which may not be had: it is empty then.
void pass_on(State &s, FuzzInput &in, int to)
{
    const Rect rect = rectangle(in);
    const Box box = region_box(rect);
    fail_allocation(MALLOC, in.chance(32) ? 1 : 2);
    Region *region = region_new_with_rect(&box);
    const bool failed = allocation_failed();
    region_print(region);
    region_copy(&s.regions[to], region);
    pixman_region_destroy(region);
    s.bitmaps[to] = failed ? Bitmap{} : bitmap_of({box.x1, box.y1, box.x2, box.y2});
}

void compare_containment(const State &s, FuzzInput &in, int which)
{
    const Rect rect = rectangle(in);
    const Box box = region_box(rect);
    const Bitmap outside = combine(s.bitmaps[which], bitmap_of({box.x1, box.y1, box.x2, box.y2}), 2);
    // A box that is empty or inverted holds nothing, and no region with anything in it lies inside.
    const bool expected = outside == Bitmap{};
    if ((region_contained_in_rectangle(&s.regions[which], &box) != 0) != expected)
        fuzz_finding("containment of region %d is wrong", which);
}

void step(State &s, FuzzInput &in)
{
    const uint8_t head = in.byte();
    const int kind = head % 16, to = head / 16 % 4, a = head / 64;
    const int b = kind < 3 ? in.below(N_REGIONS) : 0;
    Region *regions = s.regions;
    Bitmap *bitmaps = s.bitmaps;
    const Rect rect = kind >= 3 && kind <= 6 ? rectangle(in) : Rect{};
    switch (kind) {
    case 0:
        region_union(&regions[to], &regions[a], &regions[b]);
        bitmaps[to] = combine(bitmaps[a], bitmaps[b], 0);
        break;
    case 1:
        region_intersect(&regions[to], &regions[a], &regions[b]);
        bitmaps[to] = combine(bitmaps[a], bitmaps[b], 1);
        break;
    case 2:
        region_subtract(&regions[to], &regions[a], &regions[b]);
        bitmaps[to] = combine(bitmaps[a], bitmaps[b], 2);
        break;
    case 3:
    case 4: // an empty one leaves the result as it was
        if (region_union_rect(&regions[to], &regions[a], &rect))
            bitmaps[to] = combine(bitmaps[a], bitmap_of(rect), 0);
        else if (bitmap_of(rect) != Bitmap{})
            fuzz_finding("a rectangle was not taken in");
        break;
    case 5:
        region_intersect_rect(&regions[to], &regions[a], &rect);
        bitmaps[to] = combine(bitmaps[a], bitmap_of(rect), 1);
        break;
    case 6:
        region_reset(&regions[to], &rect);
        bitmaps[to] = bitmap_of(rect);
        break;
    case 7:
        region_make_empty(&regions[to]);
        bitmaps[to] = {};
        break;
    case 8:
        region_copy(&regions[to], &regions[a]);
        bitmaps[to] = bitmaps[a];
        break;
    case 9:
        region_add_i(&regions[to], &regions[a]);
        bitmaps[to] = combine(bitmaps[to], bitmaps[a], 0);
        break;
    case 10:
        add_boxes(s, in, to);
        break;
    case 11:
    case 12:
        translate(s, in, to);
        break;
    case 13:
        pass_on(s, in, to);
        break;
    case 14:
        remake(s, in, to);
        break;
    default:
        compare_containment(s, in, to);
    }
    check(s, to);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, data + size};
    State s{};
    for (Region &region : s.regions)
        region_init(&region, nullptr);
    for (int i = 0; i < MOST_STEPS && !in.empty(); i++)
        step(s, in);
    for (Region &region : s.regions)
        region_uninit(&region);
    out_flush();
    fuzz_printed = {};
    return 0;
}
