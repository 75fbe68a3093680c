// SPDX-License-Identifier: MIT
// Where and whether a surface is seen: showing, moving, resizing, restacking, clipping, and the damage of each.
#include <climits>
#include <functional>

#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/compositor_test.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Rect NOWHERE{0, 0, 0, 0};
constexpr Rect AT_FIRST{10, 20, 110, 70}; // where the surface of each test lies

class Geometry : public CompositorTest {
protected:
    Geometry()
    {
        open_server();
        surface = add("fb.a", {10, 20, 100, 50}, XRGB32);
    }

    // Shown, rendered, nothing waiting.
    void show_clean()
    {
        fs_show_surface(server, surface);
        settle();
        ASSERT_FALSE(surface_has(surface, SURFACE_DIRTY));
        ASSERT_FALSE(render_is_pending());
        ASSERT_THAT(damage_of(surface), IsEmpty());
    }

    // Shown, nothing rendered since, nothing waiting.
    void show_dirty()
    {
        fs_show_surface(server, surface);
        forget_damage();
        ASSERT_TRUE(surface_has(surface, SURFACE_DIRTY));
    }

    // No damage, not made dirty, no render.
    void expect_untouched(uint32_t flags) const
    {
        EXPECT_EQ(surface->flags, flags);
        EXPECT_THAT(damage_of(surface), IsEmpty());
        EXPECT_FALSE(render_is_pending());
    }

    std::vector<ImageSurface *> stack() const { return {server->surfaces, server->surfaces + server->n_surface}; }

    ImageSurface *surface;
};

// ---- the damage of each operation ----

using Operation = std::function<void(FbServer *, ImageSurface *)>;

struct OperationCase {
    const char *name;
    Operation run;
    enum When { NEVER, SHOWN, SHOWN_CLEAN, ALWAYS } damages;
};

const OperationCase OPERATIONS[] = {
    {"move", [](FbServer *fs, ImageSurface *s) { fs_move_surface(fs, s, 200, 100); }, OperationCase::SHOWN_CLEAN},
    {"resize", [](FbServer *fs, ImageSurface *s) { fs_resize_surface(fs, s, 30, 30); }, OperationCase::SHOWN},
    {"set level", [](FbServer *fs, ImageSurface *s) { fs_set_level_surface(fs, s, 4); }, OperationCase::ALWAYS},
    {"set clip", [](FbServer *fs, ImageSurface *s) { fs_set_clip(fs, s, 0, 0, 50, 50); }, OperationCase::ALWAYS},
    {"opaque area", [](FbServer *fs, ImageSurface *s) { fs_set_opaque_surface(fs, s, 0, 0, 5, 5); },
     OperationCase::NEVER},
    {"colour plane", [](FbServer *fs, ImageSurface *s) { fs_set_color_plane(fs, s, 5); }, OperationCase::NEVER},
    {"colour format", [](FbServer *fs, ImageSurface *) { fs_set_color_format(fs, 3); }, OperationCase::NEVER},
};

TEST_F(Geometry, OnAHiddenSurfaceOnlyRestackingAndClippingDamage)
{
    for (const OperationCase &operation : OPERATIONS) {
        SCOPED_TRACE(operation.name);
        ImageSurface *hidden = add("fb.b", {10, 20, 100, 50}, XRGB32);
        operation.run(server, hidden);
        const bool damages = operation.damages == OperationCase::ALWAYS;
        EXPECT_EQ(damage_of(hidden), damages ? Rects{AT_FIRST} : Rects{});
        EXPECT_EQ(surface_has(hidden, SURFACE_DIRTY), damages);
        EXPECT_EQ(render_is_pending(), damages);
        forget_damage();
    }
}

TEST_F(Geometry, OnAShownCleanSurfaceTheOldPlaceIsDamagedAndTheSurfaceBecomesDirty)
{
    for (const OperationCase &operation : OPERATIONS) {
        SCOPED_TRACE(operation.name);
        ImageSurface *shown = add_shown("fb.b", {10, 20, 100, 50}, XRGB32);
        settle();
        operation.run(server, shown);
        const bool damages = operation.damages != OperationCase::NEVER;
        EXPECT_EQ(damage_of(shown), damages ? Rects{AT_FIRST} : Rects{});
        EXPECT_EQ(surface_has(shown, SURFACE_DIRTY), damages);
        EXPECT_EQ(render_is_pending(), damages);
        fs_remove_surface(server, shown);
        settle();
        forget_damage();
    }
}

TEST_F(Geometry, OnAShownDirtySurfaceAMoveDamagesNothingButTheOthersDo)
{
    for (const OperationCase &operation : OPERATIONS) {
        SCOPED_TRACE(operation.name);
        ImageSurface *shown = add_shown("fb.b", {10, 20, 100, 50}, XRGB32);
        forget_damage();
        operation.run(server, shown);
        const bool damages = operation.damages == OperationCase::ALWAYS || operation.damages == OperationCase::SHOWN;
        EXPECT_EQ(damage_of(shown), damages ? Rects{AT_FIRST} : Rects{});
        EXPECT_TRUE(surface_has(shown, SURFACE_DIRTY));
        EXPECT_EQ(render_is_pending(), damages);
        fs_remove_surface(server, shown);
        settle();
        forget_damage();
    }
}

// ---- show and hide ----

TEST_F(Geometry, ShowingMakesDirtyAndSchedulesWithoutDamage)
{
    fs_show_surface(server, surface);
    EXPECT_EQ(surface->flags, SURFACE_SHOWN | SURFACE_DIRTY);
    EXPECT_THAT(damage_of(surface), IsEmpty());
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Geometry, HidingDamagesThePlaceAndLeavesDirtyAsItWas)
{
    show_clean();
    fs_hide_surface(server, surface);
    EXPECT_EQ(surface->flags, 0u);
    EXPECT_THAT(damage_of(surface), ElementsAre(AT_FIRST));
    EXPECT_TRUE(render_is_pending());

    show_dirty();
    fs_hide_surface(server, surface);
    EXPECT_EQ(surface->flags, SURFACE_DIRTY);
}

TEST_F(Geometry, ShowingAShownSurfaceChangesNothing)
{
    fs_set_sync(server, surface, 1);
    show_clean();
    fs_show_surface(server, surface);
    expect_untouched(SURFACE_SHOWN | SURFACE_SYNC);
    EXPECT_EQ(surface->backend->sync_count, 1);
}

TEST_F(Geometry, HidingAHiddenSurfaceChangesNothing)
{
    fs_set_sync(server, surface, 1);
    fs_hide_surface(server, surface);
    expect_untouched(SURFACE_SYNC);
    EXPECT_EQ(surface->backend->sync_count, 0);
}

TEST_F(Geometry, ShowAndHideCountASynchronisedSurface)
{
    fs_set_sync(server, surface, 1);
    fs_show_surface(server, surface);
    EXPECT_EQ(surface->backend->sync_count, 1);
    fs_hide_surface(server, surface);
    EXPECT_EQ(surface->backend->sync_count, 0);
}

// ---- move ----

TEST_F(Geometry, MovingToTheCurrentPlaceChangesNothing)
{
    show_clean();
    fs_move_surface(server, surface, 10, 20);
    expect_untouched(SURFACE_SHOWN);
}

TEST_F(Geometry, MovingAlongOneAxisIsAMove)
{
    show_clean();
    fs_move_surface(server, surface, 10, 21);
    EXPECT_EQ(surface->area, (Rect{10, 21, 110, 71}));
    EXPECT_THAT(damage_of(surface), ElementsAre(AT_FIRST));
    settle();
    fs_move_surface(server, surface, 11, 21);
    EXPECT_EQ(surface->area, (Rect{11, 21, 111, 71}));
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{10, 21, 110, 71}));
}

TEST_F(Geometry, AMovedHiddenSurfaceIsPaintedAtTheNewPlaceWhenShown)
{
    paint(surface, 0xABCDEF);
    fs_move_surface(server, surface, 200, 100);
    EXPECT_EQ(surface->area, (Rect{200, 100, 300, 150}));
    EXPECT_EQ(surface->drawing_area, (Rect{200, 100, 300, 150}));
    expect_untouched(0);
    fs_show_surface(server, surface);
    settle();
    EXPECT_EQ(primary_output.pixel(200, 100), 0xABCDEFu);
    EXPECT_EQ(primary_output.pixel(299, 149), 0xABCDEFu);
    EXPECT_EQ(primary_output.pixel(10, 20), 0u);
}

TEST_F(Geometry, TheSecondOfTwoMovesBeforeARenderDamagesNothing)
{
    show_clean();
    fs_move_surface(server, surface, 200, 20);
    fs_move_surface(server, surface, 100, 150);
    EXPECT_THAT(damage_of(surface), ElementsAre(AT_FIRST));
    EXPECT_EQ(surface->drawing_area, (Rect{100, 150, 200, 200}));
}

TEST_F(Geometry, MovedOffScreenTheDrawingAreaIsAllZero)
{
    for (const auto &[x, y] : {std::pair{320, 20}, {-100, 20}, {10, 240}, {10, -50}}) {
        fs_move_surface(server, surface, x, y);
        EXPECT_EQ(surface->drawing_area, NOWHERE);
    }
}

TEST_F(Geometry, MovedPartlyOffScreenTheDrawingAreaIsCut)
{
    fs_move_surface(server, surface, -10, -20);
    EXPECT_EQ(surface->drawing_area, (Rect{0, 0, 90, 30}));
    fs_move_surface(server, surface, 300, 230);
    EXPECT_EQ(surface->drawing_area, (Rect{300, 230, 320, 240}));
}

TEST_F(Geometry, LeftOfTheScreenTheDrawingAreaStartsAtZero)
{
    const Rect area = add("fb.b", {-10, 0, 30, 10}, RGB16)->drawing_area;
    EXPECT_EQ(area.x1, 0);
    EXPECT_EQ(area.x2, 20);
}

TEST_F(Geometry, AMoveThatOverflowsAborts)
{
    EXPECT_ABORT(fs_move_surface(server, surface, INT_MAX, 0), "composite/", "fs_crop_area", "rect->x2 >= rect->x1");
    EXPECT_ABORT(fs_move_surface(server, surface, 0, INT_MAX), "composite/", "fs_crop_area", "rect->y2 >= rect->y1");
}

// ---- resize ----

TEST_F(Geometry, ResizingKeepsTheCornerAndMovesTheFarEdges)
{
    fs_resize_surface(server, surface, 30, 40);
    EXPECT_EQ(surface->area, (Rect{10, 20, 40, 60}));
    EXPECT_EQ(surface->drawing_area, (Rect{10, 20, 40, 60}));
}

TEST_F(Geometry, ResizingToTheImagesSizeIsAcceptedAndBeyondItIgnored)
{
    fs_resize_surface(server, surface, 30, 30);
    fs_resize_surface(server, surface, 100, 50);
    EXPECT_EQ(surface->area, AT_FIRST);
    fs_resize_surface(server, surface, 30, 30);
    show_clean();
    for (const auto &[w, h] : {std::pair{101, 50}, {100, 51}, {INT_MAX, INT_MAX}}) {
        fs_resize_surface(server, surface, w, h);
        EXPECT_EQ(surface->area, (Rect{10, 20, 40, 50}));
        expect_untouched(SURFACE_SHOWN);
    }
}

TEST_F(Geometry, ResizingBelowOnePixelAborts)
{
    EXPECT_ABORT(fs_resize_surface(server, surface, 0, 10), "composite/", "fs_resize_surface", "w > 0");
    EXPECT_ABORT(fs_resize_surface(server, surface, 10, 0), "composite/", "fs_resize_surface", "h > 0");
    EXPECT_ABORT(fs_resize_surface(server, surface, -5, 10), "composite/", "fs_resize_surface", "w > 0");
    EXPECT_ABORT(fs_resize_surface(server, surface, 10, INT_MIN), "composite/", "fs_resize_surface", "h > 0");
}

// ---- restack ----

TEST_F(Geometry, RestackingToTheSameLevelGoesAboveTheOthersOfIt)
{
    ImageSurface *other = add("fb.b", {0, 0, 10, 10}, XRGB32);
    ImageSurface *higher = add("fb.c", {0, 0, 10, 10}, XRGB32, 1);
    fs_set_level_surface(server, surface, 0);
    EXPECT_THAT(stack(), ElementsAre(other, surface, higher));
    EXPECT_THAT(damage_of(surface), ElementsAre(AT_FIRST));
    EXPECT_TRUE(surface_has(surface, SURFACE_DIRTY));
}

TEST_F(Geometry, RestackingFindsThePlaceByLevel)
{
    ImageSurface *two = add("fb.2", {0, 0, 10, 10}, XRGB32, 2);
    ImageSurface *four = add("fb.4", {0, 0, 10, 10}, XRGB32, 4);
    fs_set_level_surface(server, surface, 3);
    EXPECT_EQ(surface->level, 3);
    EXPECT_THAT(stack(), ElementsAre(two, surface, four));
    fs_set_level_surface(server, surface, 9);
    EXPECT_THAT(stack(), ElementsAre(two, four, surface));
    fs_set_level_surface(server, surface, INT_MIN);
    EXPECT_THAT(stack(), ElementsAre(surface, two, four));
    EXPECT_EQ(server->n_surface, 3);
}

TEST_F(Geometry, RestackingAStrangerPrintsItAndTheStatus)
{
    FbServer *other = fs_new(320, 240);
    char expected[200];
    snprintf(expected, sizeof expected,
             "fs_set_level_surface: invalid surface = %p\n# of surface: 0\ncount of lock: 0\n",
             static_cast<void *>(surface));
    EXPECT_EQ(printed([&] { fs_set_level_surface(other, surface, 5); }), expected);
    EXPECT_EQ(surface->level, 0);
    fs_destroy(other);
    expect_untouched(0);
}

TEST_F(Geometry, RestackingASurfaceThatIsNotInTheListChangesNothing)
{
    ImageSurface stranger{};
    const std::string text = printed([&] { fs_set_level_surface(server, &stranger, 5); });
    EXPECT_EQ(text.rfind("fs_set_level_surface: invalid surface = 0x", 0), 0u);
    EXPECT_NE(text.find("\n# of surface: 1\n"), std::string::npos);
    EXPECT_EQ(stranger.level, 0);
    EXPECT_THAT(stack(), ElementsAre(surface));
    expect_untouched(0);
}

// ---- clip ----

TEST_F(Geometry, AClipCutsTheDrawingArea)
{
    fs_set_clip(server, surface, 50, 0, 20, 60);
    ASSERT_NE(surface->clip, nullptr);
    EXPECT_EQ(*surface->clip, (Rect{50, 0, 70, 60}));
    EXPECT_EQ(surface->drawing_area, (Rect{50, 20, 70, 60}));
    EXPECT_EQ(surface->area, AT_FIRST);
}

TEST_F(Geometry, TheSameClipTwiceDamagesOnce)
{
    fs_set_clip(server, surface, 50, 0, 20, 60);
    settle();
    forget_damage();
    const uint32_t flags = surface->flags;
    fs_set_clip(server, surface, 50, 0, 20, 60);
    expect_untouched(flags);
}

TEST_F(Geometry, AClipThatDiffersInOneValueIsAnotherClip)
{
    Rect last{50, 0, 70, 60};
    fs_set_clip(server, surface, 50, 0, 20, 60);
    for (const Place clip : {Place{51, 0, 19, 60}, Place{51, 1, 19, 59}, Place{51, 1, 20, 59}, Place{51, 1, 20, 60}}) {
        forget_damage();
        const Rect old = surface->drawing_area;
        fs_set_clip(server, surface, clip.x, clip.y, clip.w, clip.h);
        EXPECT_THAT(damage_of(surface), ElementsAre(old));
        EXPECT_FALSE(*surface->clip == last);
        last = *surface->clip;
    }
}

TEST_F(Geometry, AWiderClipShowsMoreAgain)
{
    fs_set_clip(server, surface, 50, 0, 20, 60);
    fs_set_clip(server, surface, 0, 0, 1000, 1000);
    EXPECT_EQ(surface->drawing_area, AT_FIRST);
}

TEST_F(Geometry, AClipBesideTheSurfaceLeavesNothing)
{
    for (const Place clip : {Place{200, 0, 50, 240}, Place{0, 100, 320, 50}, Place{200, 100, 10, 10}}) {
        fs_set_clip(server, surface, clip.x, clip.y, clip.w, clip.h);
        const Rect &left = surface->drawing_area;
        EXPECT_TRUE(left.x1 == left.x2 || left.y1 == left.y2);
    }
}

TEST_F(Geometry, OnlyTheInvertedAxisOfADisjointClipIsZeroed)
{
    fs_set_clip(server, surface, 200, 0, 50, 240);
    EXPECT_EQ(surface->drawing_area, (Rect{0, 20, 0, 70}));
    fs_set_clip(server, surface, 0, 100, 320, 50);
    EXPECT_EQ(surface->drawing_area, (Rect{10, 0, 110, 0}));
}

TEST_F(Geometry, AnInvertedClipLeavesNothing)
{
    fs_set_clip(server, surface, 100, 0, -60, 240);
    EXPECT_EQ(surface->drawing_area, (Rect{0, 20, 0, 70}));
}

TEST_F(Geometry, AClippedSurfaceMovesWithinItsClip)
{
    fs_set_clip(server, surface, 50, 0, 20, 240);
    fs_move_surface(server, surface, 60, 100);
    EXPECT_EQ(surface->drawing_area, (Rect{60, 100, 70, 150}));
    EXPECT_EQ(*surface->clip, (Rect{50, 0, 70, 240}));
}

// ---- opaque area, colour plane ----

TEST_F(Geometry, TheOpaqueAreaIsReplaced)
{
    fs_set_opaque_surface(server, surface, 5, 6, 20, 10);
    EXPECT_THAT(rects_of(surface->opaque_area), ElementsAre(Rect{5, 6, 25, 16}));
    fs_set_opaque_surface(server, surface, 0, 0, 0, 0);
    EXPECT_THAT(rects_of(surface->opaque_area), IsEmpty());
}

TEST_F(Geometry, AnInvertedOpaqueAreaIsNone)
{
    fs_set_opaque_surface(server, surface, 20, 20, -10, 10);
    EXPECT_THAT(rects_of(surface->opaque_area), IsEmpty());
}

TEST_F(Geometry, TheColourPlaneIsStored)
{
    fs_set_color_plane(server, surface, 0x7F123456);
    EXPECT_EQ(surface->color_plane, 0x7F123456);
}

// ---- the crop rule alone ----

TEST_F(Geometry, CroppingClampsEachEdgeToTheScreen)
{
    Rect rect{-5, -6, 500, 600};
    fs_crop_area(server, &rect);
    EXPECT_EQ(rect, (Rect{0, 0, 320, 240}));
    rect = {1, 2, 319, 239};
    fs_crop_area(server, &rect);
    EXPECT_EQ(rect, (Rect{1, 2, 319, 239}));
}

TEST_F(Geometry, CroppingAnInvertedRectangleAborts)
{
    Rect rect{10, 0, 9, 5};
    EXPECT_ABORT(fs_crop_area(server, &rect), "composite/", "fs_crop_area", "rect->x2 >= rect->x1");
    rect = {0, 10, 5, 9};
    EXPECT_ABORT(fs_crop_area(server, &rect), "composite/", "fs_crop_area", "rect->y2 >= rect->y1");
}

} // namespace
