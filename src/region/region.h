// SPDX-License-Identifier: MIT
// Sets of pixels as non-overlapping rectangles: a thin layer over pixman's 16-bit region.
//
// Rectangles are in corner form, x2 and y2 exclusive. The 32-bit rectangles that come in are narrowed to 16 bits by
// saturation: a rectangle of 100 000 pixels still covers everything that can be on a screen. Each operation works in
// whatever space its caller uses (surface or logical screen); a Region does not know its space.
#pragma once

#include <pixman.h>

#include "xc.h"

using Region = pixman_region16_t;
using Box = pixman_box16_t; // a rectangle inside a Region
using Rect = xc_rect;       // a rectangle everywhere else

// Empty. Without memory: a broken-region marker that all such callers share. Release with pixman_region_destroy.
Region *region_new();
// Holding `box`; empty when box is null or empty.
Region *region_new_with_rect(const Box *box);
void region_init(Region *region, const Box *box);
void region_uninit(Region *region);
// Uninit, then free unless it is the broken-region marker. Null is allowed.
void pixman_region_destroy(Region *region);

inline int region_num_rects(const Region *region)
{
    return region->data != nullptr ? static_cast<int>(region->data->numRects) : 1;
}
inline const Box *region_rects(const Region *region)
{
    return region->data != nullptr ? reinterpret_cast<const Box *>(region->data + 1) : &region->extents;
}

// Where an operation finds no memory, 0 is returned and the result is one rectangle, which needs none: that around what
// it should be, or more. It is never left as pixman marks such regions, broken: they stay empty whatever is added.
int region_copy(Region *dst, const Region *src);
int region_union(Region *result, const Region *a, const Region *b);
// An empty rectangle returns 0 and leaves `result` untouched.
int region_union_rect(Region *result, const Region *src, const Rect *rect);
// Where the union is one rectangle or none. 0, and the region untouched, where it may be several.
int region_union_single(Region *region, const Rect *rect);
int region_add_i(Region *region, const Region *other); // unites other into region
// The same; other is empty afterwards, and its memory may have gone over.
int region_move_into(Region *region, Region *other);
// Unites n boxes into the region, in one go: they may overlap, be empty and be in any order.
int region_add_boxes(Region *region, const Box *boxes, int n);
int region_intersect(Region *result, const Region *a, const Region *b);
int region_intersect_rect(Region *result, const Region *src, const Rect *rect);
int region_subtract(Region *result, const Region *minuend, const Region *subtrahend);
// How many operations have found no memory so far.
unsigned region_failures();
void region_translate(Region *region, int32_t dx, int32_t dy);
// Makes the region exactly `rect`, or empty when rect is empty or inverted.
void region_reset(Region *region, const Rect *rect);
void region_make_empty(Region *region);
// Becomes the one rectangle around it.
void region_simplify(Region *region);
inline int region_is_empty(const Region *region)
{
    return region->data != nullptr && region->data->numRects == 0;
}
// A region of more than `most` rectangles is simplified. 1 when it was.
inline int region_bound(Region *region, int most)
{
    if (region_num_rects(region) <= most)
        return 0;
    region_simplify(region);
    return 1;
}
// Rows of rectangles: those of one row begin and end at the same height.
int region_num_rows(const Region *region);
// 1 when every rectangle of the region lies inside the box; an empty region does.
int region_contained_in_rectangle(const Region *region, const Box *box);
// Writes the region to standard output, for debugging.
void region_print(const Region *region);

// A rectangle as a Region stores it: every coordinate saturated to 16 bits.
Box region_box(const Rect &rect);
