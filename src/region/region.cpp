// SPDX-License-Identifier: MIT
#include "region.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <utility>

#include "../base/output.h"

namespace {

int16_t narrow(int32_t value)
{
    return static_cast<int16_t>(std::clamp<int32_t>(value, SHRT_MIN, SHRT_MAX));
}

bool is_empty(const Box &box)
{
    return box.x2 <= box.x1 || box.y2 <= box.y1;
}

// pixman takes regions that it does not change by pointers to non-const.
Region *unchanged(const Region *region)
{
    return const_cast<Region *>(region);
}

// One rectangle, or none: it may be written over.
bool has_no_memory(const Region *region)
{
    return region->data == nullptr || region->data->size == 0;
}

// Still within 16 bits, as the caller has seen to.
Box moved(const Box &box, int x, int y)
{
    return Box{static_cast<int16_t>(box.x1 + x), static_cast<int16_t>(box.y1 + y), static_cast<int16_t>(box.x2 + x),
               static_cast<int16_t>(box.y2 + y)};
}

// What pixman marks empty regions with. A broken one, which found no memory, is marked otherwise and stays broken.
pixman_region16_data_t *empty_mark()
{
    static Region nothing;
    if (nothing.data == nullptr)
        pixman_region_init(&nothing);
    return nothing.data;
}

bool is_inside(const Box &inner, const Box &outer)
{
    return inner.x1 >= outer.x1 && inner.y1 >= outer.y1 && inner.x2 <= outer.x2 && inner.y2 <= outer.y2;
}

// True when the region adds nothing to a rectangle.
bool adds_nothing(const Region *region, const Box &box)
{
    return region->data == empty_mark() || is_inside(region->extents, box);
}

Box box_around(const Box &a, const Box &b)
{
    return Box{std::min(a.x1, b.x1), std::min(a.y1, b.y1), std::max(a.x2, b.x2), std::max(a.y2, b.y2)};
}

// ---- without memory ----

unsigned failures;

// What cannot be had in full becomes the box around it. pixman has left `result` without memory of its own.
int settle_for(Region *result, const Box &around)
{
    failures++;
    result->extents = around;
    result->data = is_empty(around) ? empty_mark() : nullptr;
    return 0;
}

Box around_both(const Region *a, const Region *b)
{
    if (region_is_empty(a))
        return b->extents;
    if (region_is_empty(b))
        return a->extents;
    return box_around(a->extents, b->extents);
}

Box around_all(const Region *region, const Box *boxes, int n)
{
    Region all{region->extents, region_is_empty(region) ? empty_mark() : nullptr};
    for (int i = 0; i < n; i++) {
        const Region one{boxes[i], nullptr};
        if (!is_empty(boxes[i]))
            all = Region{around_both(&all, &one), nullptr};
    }
    return all.extents;
}

Box common_box(const Box &a, const Box &b)
{
    return Box{std::max(a.x1, b.x1), std::max(a.y1, b.y1), std::min(a.x2, b.x2), std::min(a.y2, b.y2)};
}

// The results of pixman's own operations on regions of several rectangles.

int unite(Region *result, const Region *a, const Region *b)
{
    const Box around = around_both(a, b);
    return pixman_region_union(result, unchanged(a), unchanged(b)) || settle_for(result, around);
}

int intersect(Region *result, const Region *a, const Region *b)
{
    const Box around = common_box(a->extents, b->extents);
    return pixman_region_intersect(result, unchanged(a), unchanged(b)) || settle_for(result, around);
}

// ---- one rectangle ----

// Two intervals that overlap or touch.
bool meet(int16_t from, int16_t to, int16_t other_from, int16_t other_to)
{
    return from <= other_to && other_from <= to;
}

// True when two boxes make one: along a whole side of both, with nothing between them.
bool are_neighbours(const Box &a, const Box &b)
{
    return (a.y1 == b.y1 && a.y2 == b.y2 && meet(a.x1, a.x2, b.x1, b.x2)) ||
           (a.x1 == b.x1 && a.x2 == b.x2 && meet(a.y1, a.y2, b.y1, b.y2));
}

// The union, where it is one rectangle: most of the time damage is. False for most others.
bool unite_single(Region *result, const Region *a, const Region *b)
{
    if (a->data != nullptr || !adds_nothing(b, a->extents))
        std::swap(a, b);
    if (a->data != nullptr || !has_no_memory(result))
        return false;
    if (adds_nothing(b, a->extents))
        result->extents = a->extents;
    else if (b->data == nullptr && are_neighbours(a->extents, b->extents))
        result->extents = box_around(a->extents, b->extents);
    else
        return false;
    result->data = nullptr;
    return true;
}

// Stores what two boxes have in common. False, and nothing stored, when that is nothing.
bool cross(const Box &a, const Box &b, Box *result)
{
    const Box common = common_box(a, b);
    if (is_empty(common))
        return false;
    *result = common;
    return true;
}

// Where region_new finds no memory. It is an empty region that all such callers share and nobody frees.
Region *broken_region()
{
    static Region region;
    pixman_region_init(&region); // each time, not once: that would take the C++ library, for this alone
    return &region;
}

} // namespace

[[gnu::hot]] Box region_box(const Rect &rect)
{
    return Box{narrow(rect.x1), narrow(rect.y1), narrow(rect.x2), narrow(rect.y2)};
}

Region *region_new()
{
    return region_new_with_rect(nullptr);
}

Region *region_new_with_rect(const Box *box)
{
    auto *region = static_cast<Region *>(malloc(sizeof(Region)));
    if (region == nullptr)
        return broken_region();
    region_init(region, box);
    return region;
}

void region_init(Region *region, const Box *box)
{
    if (box == nullptr || is_empty(*box))
        pixman_region_init(region);
    else
        pixman_region_init_with_extents(region, const_cast<Box *>(box));
}

void region_uninit(Region *region)
{
    pixman_region_fini(region);
}

void pixman_region_destroy(Region *region)
{
    if (region == nullptr || region == broken_region())
        return;
    region_uninit(region);
    free(region);
}

int region_copy(Region *dst, const Region *src)
{
    const Box around = src->extents; // and src may be dst
    return pixman_region_copy(dst, unchanged(src)) || settle_for(dst, around);
}

[[gnu::hot]] int region_union(Region *result, const Region *a, const Region *b)
{
    return unite_single(result, a, b) || unite(result, a, b);
}

[[gnu::hot]] int region_union_rect(Region *result, const Region *src, const Rect *rect)
{
    const Box box = region_box(*rect);
    if (is_empty(box))
        return 0;
    const Region one{box, nullptr}; // one rectangle allocates nothing, so there is nothing to release
    return region_union(result, src, &one);
}

[[gnu::hot]] int region_union_single(Region *region, const Rect *rect)
{
    const Box box = region_box(*rect);
    const Region one{box, nullptr};
    return is_empty(box) || unite_single(region, region, &one);
}

[[gnu::hot]] int region_add_i(Region *region, const Region *other)
{
    return region_union(region, region, other);
}

[[gnu::hot]] int region_move_into(Region *region, Region *other)
{
    int done = 1;
    if (region->data == empty_mark())
        std::swap(*region, *other);
    else
        done = region_add_i(region, other);
    region_make_empty(other);
    return done;
}

int region_add_boxes(Region *region, const Box *boxes, int n)
{
    if (n == 1 && is_empty(*boxes)) // of several pixman leaves out what is inverted, of a single one it complains
        return 1;
    Region sum;
    if (!pixman_region_init_rects(&sum, boxes, n)) {
        const Box around = around_all(region, boxes, n);
        region_uninit(region);
        return settle_for(region, around);
    }
    const int done = region_move_into(region, &sum);
    region_uninit(&sum);
    return done;
}

int region_num_rows(const Region *region)
{
    const int n = region_num_rects(region);
    const Box *boxes = region_rects(region);
    int rows = n > 0 ? 1 : 0;
    for (int i = 1; i < n; i++)
        rows += boxes[i].y1 != boxes[i - 1].y1 ? 1 : 0;
    return rows;
}

int region_intersect(Region *result, const Region *a, const Region *b)
{
    return intersect(result, a, b);
}

[[gnu::hot]] int region_intersect_rect(Region *result, const Region *src, const Rect *rect)
{
    const Box box = region_box(*rect);
    if (src->data == nullptr && has_no_memory(result) && cross(src->extents, box, &result->extents)) {
        result->data = nullptr;
        return 1;
    }
    Region one;
    region_init(&one, &box);
    return intersect(result, src, &one);
}

int region_subtract(Region *result, const Region *minuend, const Region *subtrahend)
{
    const Box around = minuend->extents;
    return pixman_region_subtract(result, unchanged(minuend), unchanged(subtrahend)) || settle_for(result, around);
}

unsigned region_failures()
{
    return failures;
}

[[gnu::hot]] void region_translate(Region *region, int32_t dx, int32_t dy)
{
    // Farther than the whole coordinate range everything is out, however far: the sums stay defined.
    constexpr int32_t FAR = 2 * (SHRT_MAX + 1);
    const int32_t x = std::clamp(dx, -FAR, FAR);
    const int32_t y = std::clamp(dy, -FAR, FAR);
    // What leaves the plane is cut off first: pixman keeps empty rectangles of it.
    const Rect stays{SHRT_MIN - x, SHRT_MIN - y, SHRT_MAX - x, SHRT_MAX - y};
    const Box &extents = region->extents;
    if (extents.x1 < stays.x1 || extents.y1 < stays.y1 || extents.x2 > stays.x2 || extents.y2 > stays.y2)
        region_intersect_rect(region, region, &stays);
    if (region_is_empty(region))
        region_make_empty(region);
    else if (region->data != nullptr)
        pixman_region_translate(region, x, y);
    else
        region->extents = moved(extents, x, y);
}

void region_reset(Region *region, const Rect *rect)
{
    Box box = region_box(*rect);
    if (is_empty(box))
        region_make_empty(region); // pixman would keep an inverted box and later produce overlapping rectangles
    else
        pixman_region_reset(region, &box);
}

[[gnu::hot]] void region_make_empty(Region *region)
{
    const Box extents = region->extents;
    if (has_no_memory(region))
        region->data = empty_mark();
    else
        pixman_region_clear(region);
    region->extents = Box{extents.x1, extents.y1, extents.x1, extents.y1};
}

void region_simplify(Region *region)
{
    Box around = region->extents;
    if (!region_is_empty(region))
        pixman_region_reset(region, &around);
}

int region_contained_in_rectangle(const Region *region, const Box *box)
{
    if (region_is_empty(region))
        return 1;
    // The extents are the smallest box around all rectangles: what holds for them holds for each.
    const Box &extents = region->extents;
    return extents.x1 >= box->x1 && extents.y1 >= box->y1 && extents.x2 <= box->x2 && extents.y2 <= box->y2;
}

void region_print(const Region *region)
{
    const int n = region_num_rects(region);
    const long size = region->data != nullptr ? region->data->size : 0;
    out_printf("num: %d size: %d\n", n, static_cast<int>(size));
    out_printf("extents: %d %d %d %d\n", region->extents.x1, region->extents.y1, region->extents.x2,
               region->extents.y2);
    const Box *rects = region_rects(region);
    for (int i = 0; i < n; i++)
        out_printf("%d %d %d %d \n", rects[i].x1, rects[i].y1, rects[i].x2, rects[i].y2);
    out_printf("\n");
}
