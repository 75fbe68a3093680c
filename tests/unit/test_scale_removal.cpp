// SPDX-License-Identifier: MIT
// Scales that are taken away again: equal sizes of source and destination.
#include <gmock/gmock.h>

#include "../support/scale_test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(Scale, EqualSizesOnAnUnscaledSurfaceOnlyDamage)
{
    const uint32_t flags = surface->flags;
    EXPECT_EQ(printed([&] { scale({0, 0, 30, 30}, {200, 100, 30, 30}); }), "");
    EXPECT_EQ(surface->area, (Rect{10, 20, 110, 70}));
    EXPECT_EQ(surface->flags, flags);
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{10, 20, 110, 70}));
    EXPECT_EQ(printed([&] { scale({0, 0, 0, 0}, {200, 100, 0, 0}); }), "");
}

TEST_F(Scale, OffScreenTheDamageThatComesFirstStillSchedules)
{
    fs_move_surface(server, surface, 1000, 0);
    forget_damage();
    scale({0, 0, 30, 30}, {0, 0, 30, 30});
    EXPECT_THAT(damage_of(surface), IsEmpty());
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Scale, RemovingPutsTheSurfaceAtTheDestinationAndMakesItDirty)
{
    xc_image *client = surface->img;
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    settle();
    scale({0, 0, 30, 20}, {300, 100, 30, 20});
    EXPECT_EQ(surface->scale_state, nullptr);
    EXPECT_EQ(surface->img, client);
    EXPECT_EQ(surface->area, (Rect{300, 100, 330, 120}));
    EXPECT_EQ(surface->drawing_area, (Rect{300, 100, 320, 120}));
    EXPECT_THAT(rects_of(surface->opaque_area), ElementsAre(Rect{0, 0, 30, 20}));
    EXPECT_TRUE(surface_has(surface, SURFACE_DIRTY));
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{0, 0, 200, 100}));
}

TEST_F(Scale, RemovedTheSurfaceIsCutToItsClip)
{
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    fs_set_clip(server, surface, 50, 0, 30, 400);
    scale({0, 0, 100, 50}, {0, 0, 100, 50});
    EXPECT_EQ(surface->drawing_area, (Rect{50, 0, 80, 50}));
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    scale({0, 0, 50, 50}, {100, 10, 50, 50});
    EXPECT_EQ(surface->drawing_area, (Rect{0, 10, 0, 60})); // only the axis that the clip misses
}

TEST_F(Scale, RemovedAnImageWithAlphaKeepsItsOpaqueArea)
{
    ImageSurface *blended = add("fb.b", {0, 0, 20, 20}, ARGB32);
    scale(blended, {0, 0, 20, 20}, {0, 0, 40, 40});
    fs_set_opaque_surface(server, blended, 1, 2, 3, 4);
    scale(blended, {0, 0, 20, 20}, {0, 0, 20, 20});
    EXPECT_THAT(rects_of(blended->opaque_area), ElementsAre(Rect{1, 2, 4, 6}));
}

TEST_F(Scale, RemovedWhileHiddenItIsPaintedWholeAtItsNewPlaceWhenShown)
{
    paint(surface, 0x00123456);
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    settle();
    fs_hide_surface(server, surface);
    settle();
    forget_damage();
    fs_add_dirty(server, surface, 0, 0, 5, 5); // kept while it is hidden, as it is scaled
    scale({0, 0, 100, 50}, {150, 120, 100, 50});
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{0, 0, 200, 100}));
    EXPECT_FALSE(surface_has(surface, SURFACE_SHOWN));
    EXPECT_TRUE(surface_has(surface, SURFACE_DIRTY));
    forget_damage();
    primary_output.calls.clear();
    fs_show_surface(server, surface);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{150, 120, 250, 170}}));
    EXPECT_EQ(primary_output.pixel(249, 169), 0x123456u);
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
}

TEST_F(Scale, RemovingWithASizeBelowOneIsRefused)
{
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    settle();
    const std::string text = printed([&] { scale({0, 0, 0, 20}, {0, 0, 0, 20}); });
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    EXPECT_NE(surface->scale_state, nullptr);
    EXPECT_EQ(surface->area, (Rect{0, 0, 200, 100}));
}

TEST_F(Scale, RemovedToARectangleLargerThanTheImageOnlyItsPixelsAreDrawn)
{
    paint(surface, 0x00123456);
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    settle();
    scale({0, 0, 150, 150}, {0, 0, 150, 150});
    settle();
    EXPECT_EQ(primary_output.pixel(50, 30), 0x123456u);
}

} // namespace
