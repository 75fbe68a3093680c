// SPDX-License-Identifier: MIT
#include "failing_regions.h"

#include <climits>

#include <pixman.h>

namespace {

using Region = pixman_region16_t;

int calls_before;
int calls_left;
int failed;
int worked_on;

bool needs_memory(const Region *region)
{
    return region->data != nullptr && region->data->numRects > 1;
}

extern "C" int __real_pixman_region_init_rects(Region *region, const pixman_box16_t *boxes, int n);

// More rectangles than there can be: what pixman makes of it is what it makes of any allocation that fails.
void break_region(Region *region)
{
    Region broken;
    const pixman_box16_t box{0, 0, 1, 1};
    __real_pixman_region_init_rects(&broken, &box, INT_MAX);
    pixman_region_fini(region);
    *region = broken;
}

// What an operation returns: its result is there, or takes memory that cannot be had.
int outcome(int done, Region *result)
{
    worked_on++;
    if (!done || calls_left == 0 || !needs_memory(result) || --calls_before > 0)
        return done;
    calls_left--;
    failed++;
    break_region(result);
    return 0;
}

} // namespace

void fail_regions(int nth, int count)
{
    calls_before = nth;
    calls_left = count;
    failed = worked_on = 0;
}

int regions_worked_on()
{
    return worked_on;
}

int regions_failed()
{
    calls_left = 0;
    return failed;
}

extern "C" {
int __real_pixman_region_copy(Region *dst, const Region *src);
int __real_pixman_region_union(Region *result, const Region *a, const Region *b);
int __real_pixman_region_intersect(Region *result, const Region *a, const Region *b);
int __real_pixman_region_subtract(Region *result, const Region *a, const Region *b);

int __wrap_pixman_region_copy(Region *dst, const Region *src)
{
    return outcome(__real_pixman_region_copy(dst, src), dst);
}
int __wrap_pixman_region_union(Region *result, const Region *a, const Region *b)
{
    return outcome(__real_pixman_region_union(result, a, b), result);
}
int __wrap_pixman_region_intersect(Region *result, const Region *a, const Region *b)
{
    return outcome(__real_pixman_region_intersect(result, a, b), result);
}
int __wrap_pixman_region_subtract(Region *result, const Region *a, const Region *b)
{
    return outcome(__real_pixman_region_subtract(result, a, b), result);
}
int __wrap_pixman_region_init_rects(Region *region, const pixman_box16_t *boxes, int n)
{
    return outcome(__real_pixman_region_init_rects(region, boxes, n), region);
}
}
