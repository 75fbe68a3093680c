// SPDX-License-Identifier: MIT
// What a pass leaves out: surfaces are many, and most of them have nothing to do with what has changed.
#include <gtest/gtest.h>

#include "../support/compositor_test.h"
#include "../support/failing_regions.h"

namespace {

class PassWork : public CompositorTest {
protected:
    PassWork() { open_server(); }

    // Operations on regions in the pass after these reports.
    int operations(ImageSurface *surface, const std::vector<Place> &reports)
    {
        for (const Place &p : reports)
            fs_add_dirty(server, surface, p.x, p.y, p.w, p.h);
        fail_regions(0, 0); // none fails, all are counted
        settle();
        return regions_worked_on();
    }
};

TEST_F(PassWork, NothingForSurfacesBetweenThePlacesOfDamage)
{
    // Two corners, as when two clients draw; and a third place, in the same rows as the second.
    const std::vector<Place> reports = {{0, 0, 10, 10}, {310, 230, 10, 10}, {5, 230, 10, 10}};
    ImageSurface *background = add_shown("fb.a", {0, 0, 320, 240}, XRGB32);
    settle();
    const int alone = operations(background, reports);
    for (const Place &place : {Place{100, 20, 50, 50}, {10, 0, 40, 10}, {300, 0, 20, 230}, {15, 225, 295, 15}})
        add_shown("fb.b", place, ARGB32);
    settle();
    EXPECT_EQ(operations(background, reports), alone);
    ImageSurface *met = add_shown("fb.c", {5, 200, 30, 31}, ARGB32);
    settle();
    EXPECT_GT(operations(background, reports), alone) << "this one is drawn";
    EXPECT_TRUE(region_is_empty(&met->aux_region));
}

} // namespace
