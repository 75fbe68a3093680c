// SPDX-License-Identifier: MIT
// The passes of the compositor: what is drawn, what is left over, what each output is told, and what is printed.
#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/compositor_test.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *NOTHING_DAMAGED = "dirty region is empty!!!!!!!!!!!!!!!!!!!!\n";
constexpr const char *NULL_REGION = "image_render: render region is null\n";

class RenderPass : public CompositorTest {
protected:
    RenderPass() { open_server(); }

    // Renders what waits and forgets the calls.
    void settle_quietly()
    {
        const StdoutCapture quiet;
        const StderrCapture silent;
        settle();
        primary_output.calls.clear();
        second_output.calls.clear();
    }

    static std::string lines(int n, const char *line)
    {
        std::string text;
        for (int i = 0; i < n; i++)
            text += line;
        return text;
    }
};

// ---- nothing to do ----

TEST_F(RenderPass, WithoutDamageItSaysSoAndReturnsFalse)
{
    add_shown("fb.a", {0, 0, 10, 10}, XRGB32);
    settle_quietly();
    const std::string message = complained([&] { EXPECT_EQ(fs_render(server), 0); });
    EXPECT_EQ(message, NOTHING_DAMAGED);
    EXPECT_EQ(message.size(), 42u);
    EXPECT_THAT(primary_output.calls, IsEmpty());
}

TEST_F(RenderPass, WithoutBackendsItSaysSoAndReturnsFalse)
{
    EXPECT_EQ(complained([&] { EXPECT_EQ(fs_render(server), 0); }), NOTHING_DAMAGED);
}

TEST_F(RenderPass, ItConsumesTheIdleSourceAndReturnsFalse)
{
    add_shown("fb.a", {0, 0, 10, 10}, XRGB32);
    const uint32_t source = server->idle_source;
    EXPECT_EQ(fs_render(server), 0);
    EXPECT_EQ(server->idle_source, 0u);
    g_source_remove(source);
}

TEST_F(RenderPass, DamageOutsideEveryShownSurfaceDrawsNothingAndIsLeftOver)
{
    ImageSurface *surface = add_shown("fb.a", {0, 0, 10, 10}, XRGB32);
    add_shown("fb.b", {100, 100, 10, 10}, XRGB32);
    settle_quietly();
    fs_hide_surface(server, surface);
    EXPECT_EQ(complained([&] { settle(); }), "");
    EXPECT_THAT(primary_output.calls, IsEmpty());
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{0, 0, 10, 10}));
}

TEST_F(RenderPass, LeftOverDamageIsDrawnByThePassThatFindsASurfaceThere)
{
    ImageSurface *surface = add_shown("fb.a", {0, 0, 10, 10}, XRGB32);
    settle_quietly();
    fs_hide_surface(server, surface);
    settle_quietly();
    ImageSurface *later = add_shown("fb.b", {5, 5, 20, 20}, XRGB32);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{5, 5, 25, 25}}));
    EXPECT_THAT(damage_of(later), IsEmpty());
}

TEST_F(RenderPass, OnThePrimaryOutputTheLastPixelsOfAHiddenSurfaceStay)
{
    ImageSurface *surface = add_shown("fb.a", {0, 0, 10, 10}, XRGB32);
    paint(surface, 0x00AABBCC);
    settle_quietly();
    fs_hide_surface(server, surface);
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(5, 5), 0x00AABBCCu);
}

// ---- what takes part ----

TEST_F(RenderPass, AHiddenSurfaceOnThePrimaryOutputIsSkippedAndKeepsItsDamage)
{
    ImageSurface *below = add_shown("fb.a", {0, 0, 50, 50}, XRGB32);
    ImageSurface *hidden = add_shown("fb.b", {0, 0, 10, 10}, XRGB32);
    paint(hidden, 0x123456);
    settle_quietly();
    fs_add_dirty(server, hidden, 1, 1, 3, 3);
    fs_hide_surface(server, hidden);
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(5, 5), 0u);
    EXPECT_THAT(rects_of(hidden->dirty_region), ElementsAre(Rect{1, 1, 4, 4}));
    fs_set_level_surface(server, hidden, 1);
    fs_add_dirty(server, below, 0, 0, 50, 50);
    settle_quietly();
    EXPECT_TRUE(surface_has(hidden, SURFACE_DIRTY));
    EXPECT_EQ(primary_output.pixel(5, 5), 0u);
    fs_show_surface(server, hidden);
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(5, 5), 0x123456u);
    EXPECT_FALSE(surface_has(hidden, SURFACE_DIRTY));
    EXPECT_THAT(rects_of(hidden->dirty_region), IsEmpty());
}

TEST_F(RenderPass, AHiddenSurfaceOnAnOutputWithAlphaIsDrawn)
{
    ImageSurface *shown = add_shown("fb2.a", {0, 0, 50, 50}, XRGB32);
    ImageSurface *hidden = add("fb2.b", {10, 10, 10, 10}, XRGB32);
    paint(shown, 0x111111);
    paint(hidden, 0x222222);
    settle_quietly();
    EXPECT_EQ(second_output.pixel(15, 15), 0xFF222222u);
    EXPECT_EQ(second_output.pixel(5, 5), 0xFF111111u);
}

TEST_F(RenderPass, ASecondLayerOf16BitsCountsAsOneWithAlphaFromItsFirstPresentOn)
{
    second_output.depth = 16;
    ImageSurface *shown = add_shown("fb2.a", {0, 0, 50, 50}, RGB16);
    ImageSurface *hidden = add("fb2.b", {10, 10, 10, 10}, RGB16);
    paint(shown, 0x1111);
    paint(hidden, 0x2222);
    ASSERT_FALSE(image_has_alpha(shown->backend->frame_img));
    settle_quietly();
    EXPECT_EQ(second_output.pixel(15, 15), 0x1111u);
    EXPECT_TRUE(image_has_alpha(shown->backend->frame_img));
    fs_add_dirty(server, shown, 0, 0, 50, 50);
    settle_quietly();
    EXPECT_EQ(second_output.pixel(15, 15), 0x2222u);
}

// ---- damage ----

TEST_F(RenderPass, ClientDamageIsMappedToTheScreenAndCutToTheDrawingArea)
{
    ImageSurface *surface = add_shown("fb.a", {10, 20, 100, 50}, XRGB32);
    fs_set_clip(server, surface, 0, 0, 60, 240);
    settle_quietly();
    fs_add_dirty(server, surface, 40, 5, 100, 10);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{50, 25, 60, 35}}));
}

TEST_F(RenderPass, AShownSurfaceIsPaintedWhole)
{
    add_shown("fb.a", {-10, -10, 30, 30}, XRGB32);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{0, 0, 20, 20}}));
}

TEST_F(RenderPass, OnlyTheDamagedPixelsAreTouched)
{
    ImageSurface *surface = add_shown("fb.a", {10, 20, 100, 50}, XRGB32);
    settle_quietly();
    paint(surface, 0x00FFFFFF);
    fs_add_dirty(server, surface, 5, 5, 10, 10);
    settle();
    for (const auto &[x, y] : {std::pair{14, 30}, {25, 30}, {20, 24}, {20, 35}})
        EXPECT_EQ(primary_output.pixel(x, y), 0u);
    for (const auto &[x, y] : {std::pair{15, 25}, {24, 34}})
        EXPECT_EQ(primary_output.pixel(x, y), 0xFFFFFFu);
}

// Occlusion counts when draw regions are assigned, never while damage is collected.
TEST_F(RenderPass, DamageBelowAnOpaqueSurfaceRedrawsThatSurface)
{
    ImageSurface *lower = add_shown("fb.a", {0, 0, 50, 50}, XRGB32);
    add_shown("fb.b", {0, 0, 50, 50}, XRGB32);
    settle_quietly();
    fs_add_dirty(server, lower, 5, 5, 10, 10);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{5, 5, 15, 15}}));
}

TEST_F(RenderPass, AnInvertedDrawingAreaOfADirtySurfaceAborts)
{
    ImageSurface *surface = add_shown("fb.a", {0, 0, 50, 50}, XRGB32);
    surface->drawing_area = {10, 0, 5, 10};
    EXPECT_ABORT(fs_render(server), "composite/", "fs_crop_area", "rect->x2 >= rect->x1");
    surface->drawing_area = {0, 10, 10, 5};
    EXPECT_ABORT(fs_render(server), "composite/", "fs_crop_area", "rect->y2 >= rect->y1");
}

// ---- occlusion ----

// A surface that is drawn among several paints its colour plane and says so: a way to see who was drawn.
void mark(FbServer *server, ImageSurface *surface)
{
    fs_set_color_plane(server, surface, static_cast<int32_t>(0xFF00FF00));
}

TEST_F(RenderPass, WhatAnOpaqueSurfaceHidesIsNotDrawn)
{
    ImageSurface *lower = add_shown("fb.a", {0, 0, 50, 50}, XRGB32);
    add_shown("fb.b", {0, 0, 30, 50}, XRGB32);
    add_shown("fb.c", {20, 0, 30, 50}, XRGB32);
    mark(server, lower);
    EXPECT_EQ(printed([&] { settle(); }), "");
    EXPECT_THAT(rects_of(lower->aux_region), IsEmpty());
}

TEST_F(RenderPass, WhatAnOpaqueSurfaceLeavesIsDrawn)
{
    ImageSurface *lower = add_shown("fb.a", {0, 0, 51, 50}, XRGB32);
    add_shown("fb.b", {0, 0, 30, 50}, XRGB32);
    add_shown("fb.c", {20, 0, 30, 50}, XRGB32);
    mark(server, lower);
    EXPECT_EQ(printed([&] { settle(); }), "overlay_color_layer\noverlay_color_layer\n");
}

TEST_F(RenderPass, AnOpaqueAreaHidesOnlyItsPartInsideTheDrawingArea)
{
    ImageSurface *lower = add_shown("fb.a", {0, 0, 50, 50}, XRGB32);
    ImageSurface *upper = add_shown("fb.b", {0, 0, 50, 50}, ARGB32);
    paint(lower, 0x00FF0000);
    fs_set_opaque_surface(server, upper, 0, 0, 50, 50);
    fs_set_clip(server, upper, 0, 0, 25, 50);
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(40, 10), 0x00FF0000u);
    EXPECT_EQ(primary_output.pixel(10, 10), 0u);
}

TEST_F(RenderPass, AnOpaqueAreaFollowsItsSurface)
{
    ImageSurface *lower = add_shown("fb.a", {0, 0, 100, 100}, XRGB32);
    ImageSurface *upper = add_shown("fb.b", {20, 60, 30, 30}, ARGB32);
    mark(server, lower);
    fs_set_opaque_surface(server, upper, 10, 10, 10, 10);
    settle_quietly();
    ImageSurface *top = add_shown("fb.c", {20, 60, 30, 30}, ARGB32);
    settle_quietly();
    fs_add_dirty(server, top, 12, 12, 5, 5); // on the screen (32,72 - 37,77)
    EXPECT_EQ(printed([&] { settle(); }), "");
    fs_add_dirty(server, top, 5, 5, 3, 3);
    EXPECT_EQ(printed([&] { settle(); }), "overlay_color_layer\noverlay_color_layer\n");
}

// ---- after a pass ----

TEST_F(RenderPass, AfterAPassThatDrawsNothingIsLeft)
{
    for (const char *output : {"fb", "fb2"}) {
        std::vector<ImageSurface *> surfaces;
        for (int32_t i = 0; i < 3; i++) {
            surfaces.push_back(add_shown(output, {i * 20, i * 20, 50, 50}, i == 1 ? RGB16 : ARGB32));
            settle_quietly();
            for (const ImageSurface *surface : surfaces)
                EXPECT_THAT(rects_of(surface->aux_region), IsEmpty());
            EXPECT_THAT(damage_of(surfaces[0]), IsEmpty());
            EXPECT_THAT(rects_of(surfaces[0]->backend->clear_region), IsEmpty());
            EXPECT_EQ(server->idle_source, 0u);
        }
    }
}

// ---- one surface ----

TEST_F(RenderPass, AloneASurfaceIsPresentedWithOneUpdateAndOneFlush)
{
    add_shown("fb.a", {10, 10, 20, 20}, RGB16);
    primary_output.calls.clear();
    EXPECT_EQ(printed([&] { settle(); }), "");
    ASSERT_EQ(primary_output.calls.size(), 2u);
    EXPECT_EQ(primary_output.calls[0].kind, OutputCall::UPDATE);
    EXPECT_THAT(primary_output.calls[0].region, ElementsAre(Rect{10, 10, 30, 30}));
    EXPECT_EQ(primary_output.calls[1].kind, OutputCall::FLUSH);
}

TEST_F(RenderPass, AloneASurfaceIsPresentedWithWhatElseWaits)
{
    ImageSurface *surface = add_shown("fb.a", {0, 0, 10, 10}, XRGB32);
    settle_quietly();
    const Rect waits{0, 0, 60, 60};
    put(surface->backend->work_img, 50, 50, 0x123456);
    region_union_rect(surface->backend->clear_region, surface->backend->clear_region, &waits);
    fs_add_dirty(server, surface, 0, 0, 10, 10);
    settle();
    EXPECT_EQ(primary_output.pixel(50, 50), 0x123456u);
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{waits}));
}

TEST_F(RenderPass, AloneASurfaceIgnoresItsColourPlane)
{
    ImageSurface *surface = add_shown("fb.a", {10, 10, 20, 20}, XRGB32);
    paint(surface, 0x123456);
    mark(server, surface);
    EXPECT_EQ(printed([&] { settle(); }), "");
    EXPECT_EQ(primary_output.pixel(15, 15), 0x123456u);
}

// ---- several surfaces ----

TEST_F(RenderPass, BlendedSurfacesArePresentedWithOneUpdateAndOneFlush)
{
    add_shown("fb.a", {0, 0, 20, 20}, XRGB32);
    add_shown("fb.b", {10, 10, 20, 20}, ARGB32);
    primary_output.calls.clear();
    EXPECT_EQ(printed([&] { settle(); }), "");
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{0, 0, 20, 10}, {0, 10, 30, 20}, {10, 20, 30, 30}}));
    EXPECT_EQ(primary_output.calls.size(), 2u);
}

TEST_F(RenderPass, AnUncoveredDirectSurfaceIsUpdatedByItselfAndPrintsOneNullRegionMessage)
{
    add_shown("fb.a", {0, 0, 20, 20}, XRGB32);
    ImageSurface *direct = add_shown("fb.b", {100, 100, 20, 20}, RGB16);
    primary_output.calls.clear();
    EXPECT_EQ(printed([&] { settle(); }), NULL_REGION);
    EXPECT_THAT(primary_output.updates(),
                ElementsAre(Rects{{100, 100, 120, 120}}, Rects{{0, 0, 20, 20}, {100, 100, 120, 120}}));
    EXPECT_EQ(primary_output.count(OutputCall::FLUSH), 1);
    // On each such pass.
    for (int pass = 0; pass < 2; pass++) {
        fs_add_dirty(server, direct, 0, 0, 5, 5);
        fs_add_dirty(server, server->surfaces[0], 0, 0, 5, 5);
        EXPECT_EQ(printed([&] { settle(); }), NULL_REGION);
    }
}

TEST_F(RenderPass, OfADirectSurfaceOnlyTheUncoveredPartGoesStraightToTheOutput)
{
    add_shown("fb.a", {0, 0, 40, 20}, RGB16);
    add_shown("fb.b", {20, 0, 40, 20}, ARGB32);
    primary_output.calls.clear();
    EXPECT_EQ(printed([&] { settle(); }), "");
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{0, 0, 20, 20}}, Rects{{0, 0, 60, 20}}));
}

TEST_F(RenderPass, AFullyCoveredDirectSurfaceGoesThroughTheWorkImage)
{
    add_shown("fb.a", {10, 5, 10, 10}, RGB16);
    add_shown("fb.b", {0, 0, 40, 20}, ARGB32);
    primary_output.calls.clear();
    EXPECT_EQ(printed([&] { settle(); }), "");
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{0, 0, 40, 20}}));
}

TEST_F(RenderPass, SurfacesOfAnotherOutputCoverNothing)
{
    add_shown("fb.a", {0, 0, 20, 20}, RGB16);
    add_shown("fb2.b", {0, 0, 40, 20}, ARGB32);
    primary_output.calls.clear();
    EXPECT_EQ(printed([&] { settle(); }), NULL_REGION);
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{0, 0, 20, 20}}, Rects{{0, 0, 20, 20}}));
}

TEST_F(RenderPass, AHiddenSurfaceAboveCoversNoDirectOne)
{
    ImageSurface *direct = add_shown("fb2.a", {0, 0, 20, 20}, RGB16);
    add("fb2.b", {0, 0, 40, 20}, ARGB32);
    second_output.calls.clear();
    EXPECT_EQ(printed([&] { settle(); }), NULL_REGION);
    EXPECT_EQ(second_output.updates().size(), 2u);
    EXPECT_THAT(second_output.updates()[0], ElementsAre(Rect{0, 0, 20, 20}));
    EXPECT_THAT(rects_of(direct->aux_region), IsEmpty());
}

TEST_F(RenderPass, AHiddenSurfaceOutsideTheDamagePrintsTheNullRegionMessageOnAnOutputWithAlpha)
{
    ImageSurface *a = add_shown("fb2.a", {0, 0, 20, 20}, ARGB32);
    add_shown("fb2.b", {10, 0, 20, 20}, ARGB32);
    add("fb2.hidden", {100, 100, 20, 20}, ARGB32);
    settle_quietly();
    fs_add_dirty(server, a, 10, 0, 5, 5);
    EXPECT_EQ(printed([&] { settle(); }), NULL_REGION);
}

TEST_F(RenderPass, DirectWindowsBesideEachOtherNeedNoCopy)
{
    add_shown("fb.a", {0, 0, 20, 20}, RGB16);
    add_shown("fb.b", {30, 0, 20, 20}, RGB16);
    paint(server->surfaces[0], 0xF800);
    paint(server->surfaces[1], 0x001F);
    primary_output.calls.clear();
    EXPECT_EQ(printed([&] { settle(); }), lines(2, NULL_REGION));
    EXPECT_THAT(primary_output.updates(),
                ElementsAre(Rects{{0, 0, 20, 20}}, Rects{{30, 0, 50, 20}}, Rects{{0, 0, 20, 20}, {30, 0, 50, 20}}));
    EXPECT_EQ(primary_output.count(OutputCall::FLUSH), 1);
    EXPECT_EQ(primary_output.pixel(10, 10), 0xF80000u);
    EXPECT_EQ(primary_output.pixel(40, 10), 0x0000F8u);
}

TEST_F(RenderPass, WithNothingToCopyTheSecondLayersAlphaStillEndsSet)
{
    second_output.depth = 16;
    ImageSurface *a = add_shown("fb2.a", {0, 0, 20, 20}, RGB16);
    add_shown("fb2.b", {30, 0, 20, 20}, RGB16);
    EXPECT_EQ(printed([&] { settle(); }), lines(2, NULL_REGION));
    EXPECT_TRUE(image_has_alpha(a->backend->frame_img));
    EXPECT_TRUE(image_has_alpha(a->backend->work_img));
}

TEST_F(RenderPass, ADirectWindowOverAnotherSurfaceIsNotOverwrittenByThePresent)
{
    ImageSurface *below = add_shown("fb.a", {0, 0, 60, 60}, XRGB32);
    ImageSurface *window = add_shown("fb.b", {20, 20, 20, 20}, RGB16);
    paint(below, 0x112233);
    paint(window, 0x07E0);
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(30, 30), 0x00FC00u);
    EXPECT_EQ(primary_output.pixel(10, 10), 0x112233u);
    paint(window, 0x001F);
    fs_add_dirty(server, window, 0, 0, 20, 20);
    fs_add_dirty(server, below, 0, 0, 60, 60);
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(30, 30), 0x0000F8u);
}

TEST_F(RenderPass, EachOutputIsPresentedByItself)
{
    add_shown("fb.a", {0, 0, 20, 20}, XRGB32);
    add_shown("fb2.a", {5, 5, 20, 20}, ARGB32);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{0, 0, 20, 20}}));
    EXPECT_THAT(second_output.updates(), ElementsAre(Rects{{5, 5, 25, 25}}));
    EXPECT_EQ(primary_output.count(OutputCall::FLUSH), 1);
    EXPECT_EQ(second_output.count(OutputCall::FLUSH), 1);
}

} // namespace
