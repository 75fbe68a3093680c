// SPDX-License-Identifier: MIT
// Passes on the second layer, whose output carries alpha: clearing, hidden surfaces, the alpha bits and what is left
// behind in them.
#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/compositor_test.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SecondLayer : public CompositorTest {
protected:
    SecondLayer() { open_server(); }

    void settle_quietly()
    {
        const StdoutCapture quiet;
        const StderrCapture silent;
        settle();
        second_output.calls.clear();
    }
};

TEST_F(SecondLayer, WhereNothingIsShownAnyMoreTheLayerIsTransparent)
{
    add("fb2.below", {100, 100, 10, 10}, ARGB32);
    ImageSurface *surface = add_shown("fb2.a", {10, 10, 20, 20}, ARGB32);
    paint(surface, 0xFF445566);
    settle_quietly();
    EXPECT_EQ(second_output.pixel(15, 15), 0xFF445566u);
    Backend *backend = surface->backend;
    fs_remove_surface(server, surface);
    settle();
    EXPECT_EQ(second_output.pixel(15, 15), 0u);
    EXPECT_THAT(second_output.updates(), ElementsAre(Rects{{10, 10, 30, 30}}));
    EXPECT_EQ(second_output.count(OutputCall::FLUSH), 1);
    EXPECT_THAT(rects_of(backend->clear_region), IsEmpty());
    EXPECT_THAT(rects_of(backend->damage_region), IsEmpty());
}

TEST_F(SecondLayer, APlaceThatASurfaceLeavesIsCleared)
{
    ImageSurface *surface = add_shown("fb2.a", {10, 10, 20, 20}, ARGB32);
    paint(surface, 0xFF445566);
    settle_quietly();
    fs_move_surface(server, surface, 20, 10);
    settle_quietly();
    EXPECT_EQ(second_output.pixel(15, 15), 0u);
    EXPECT_EQ(second_output.pixel(35, 15), 0xFF445566u);
}

TEST_F(SecondLayer, TranslucentPixelsAreNotBlendedWithTheirPredecessors)
{
    ImageSurface *surface = add_shown("fb2.a", {10, 10, 20, 20}, ARGB32);
    paint(surface, 0x80402010);
    settle_quietly();
    for (int pass = 0; pass < 2; pass++) {
        fs_add_dirty(server, surface, 0, 0, 20, 20);
        settle_quietly();
        EXPECT_EQ(second_output.pixel(15, 15), 0x80402010u);
    }
}

TEST_F(SecondLayer, ThreeLayersBlendWithTheirAlpha)
{
    ImageSurface *bottom = add_shown("fb2.a", {0, 0, 20, 20}, XRGB32);
    ImageSurface *top = add_shown("fb2.b", {10, 0, 20, 20}, ARGB32);
    paint(bottom, 0x00204060);
    paint(top, 0x80400000);
    settle_quietly();
    EXPECT_EQ(second_output.pixel(5, 5), 0xFF204060u);
    EXPECT_EQ(second_output.pixel(15, 5), 0xFF502030u);
    EXPECT_EQ(second_output.pixel(25, 5), 0x80400000u);
}

TEST_F(SecondLayer, TheWholeDamageIsPresentedNotOnlyWhatIsDrawn)
{
    ImageSurface *surface = add_shown("fb2.a", {0, 0, 20, 20}, ARGB32);
    settle_quietly();
    fs_move_surface(server, surface, 100, 100);
    settle();
    EXPECT_THAT(second_output.updates(), ElementsAre(Rects{{0, 0, 20, 20}, {100, 100, 120, 120}}));
}

TEST_F(SecondLayer, BothImagesEndWithAlphaSetWhateverTheyHeld)
{
    for (const int32_t formats : {ARGB32, XRGB32}) {
        ImageSurface *surface = add_shown("fb2.a", {0, 0, 20, 20}, formats);
        Backend *backend = surface->backend;
        backend->work_img->flags &= ~XC_IMAGE_ALPHA;
        settle_quietly();
        EXPECT_TRUE(image_has_alpha(backend->work_img));
        EXPECT_TRUE(image_has_alpha(backend->frame_img));
        fs_remove_surface(server, surface);
    }
}

TEST_F(SecondLayer, AloneASurfacesImageEndsWithAlphaSet)
{
    ImageSurface *surface = add_shown("fb2.a", {0, 0, 20, 20}, XRGB32);
    settle_quietly();
    EXPECT_TRUE(image_has_alpha(surface->img));
}

TEST_F(SecondLayer, AloneASurfaceIsCopiedWithItsTopByte)
{
    ImageSurface *surface = add_shown("fb2.a", {0, 0, 20, 20}, XRGB32);
    paint(surface, 0x12345678);
    settle_quietly();
    EXPECT_EQ(second_output.pixel(5, 5), 0x12345678u);
}

TEST_F(SecondLayer, OnThePrimaryOutputALoneSurfacesAlphaIsLeftAlone)
{
    ImageSurface *opaque = add_shown("fb.a", {0, 0, 20, 20}, XRGB32);
    settle();
    EXPECT_FALSE(image_has_alpha(opaque->img));
    EXPECT_FALSE(image_has_alpha(opaque->backend->work_img));
    EXPECT_FALSE(image_has_alpha(opaque->backend->frame_img));
}

TEST_F(SecondLayer, AmongOthersASurfacesAlphaIsLeftAlone)
{
    ImageSurface *lower = add_shown("fb2.a", {0, 0, 20, 20}, XRGB32);
    ImageSurface *upper = add_shown("fb2.b", {10, 0, 20, 20}, ARGB32);
    settle_quietly();
    EXPECT_FALSE(image_has_alpha(lower->img));
    EXPECT_TRUE(image_has_alpha(upper->img));
}

TEST_F(SecondLayer, ClearingWritesWholeWordsWithinTheWorkImageOnly)
{
    second_output.width = 10;
    second_output.height = 10;
    close_server();
    open_server(10, 10);
    ImageSurface *surface = add_shown("fb2.a", {0, 0, 10, 10}, ARGB32);
    paint(surface, 0xFFFFFFFF);
    settle_quietly();
    for (int32_t i = 0; i < 100; i++)
        EXPECT_EQ(second_output.pixel(i % 10, i / 10), 0xFFFFFFFFu);
}

TEST_F(SecondLayer, ClearingLeavesTheRestOfTheWorkImageAsItWas)
{
    ImageSurface *surface = add_shown("fb2.a", {10, 10, 20, 20}, ARGB32);
    settle_quietly();
    const xc_image *work = surface->backend->work_img;
    for (int32_t y = 0; y < 40; y++) {
        for (int32_t x = 0; x < 320; x++)
            put(work, x, y, 0x5A5A5A5A);
    }
    fs_add_dirty(server, surface, 5, 6, 4, 3); // transparent pixels
    settle_quietly();
    for (int32_t y = 0; y < 40; y++) {
        for (int32_t x = 0; x < 320; x++) {
            const bool damaged = x >= 15 && x < 19 && y >= 16 && y < 19;
            ASSERT_EQ(get(work, x, y), damaged ? 0u : 0x5A5A5A5Au) << x << "," << y;
        }
    }
}

// All damage of an output with alpha is cleared and presented, so that a report must not reach beyond its surface.
TEST_F(SecondLayer, AReportBeyondTheDrawingAreaIsCutToItAndForgotten)
{
    ImageSurface *surface = add_shown("fb2.a", {10, 10, 40, 40}, ARGB32);
    fs_set_clip(server, surface, 0, 0, 30, 240);
    settle_quietly();
    fs_add_dirty(server, surface, 10, 10, 100, 10);
    settle();
    EXPECT_THAT(second_output.updates(), ElementsAre(Rects{{20, 20, 30, 30}}));
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
}

TEST_F(SecondLayer, WhereOnlyTheOtherOutputIsDamagedNothingIsPresented)
{
    ImageSurface *lower = add_shown("fb.a", {0, 0, 20, 20}, XRGB32);
    ImageSurface *upper = add_shown("fb.b", {10, 0, 20, 20}, ARGB32);
    add_shown("fb2.a", {0, 0, 20, 20}, ARGB32);
    settle_quietly();
    primary_output.calls.clear();
    fs_add_dirty(server, lower, 0, 0, 20, 20);
    fs_add_dirty(server, upper, 0, 0, 20, 20);
    EXPECT_EQ(complained([] { settle(); }), "");
    EXPECT_EQ(primary_output.count(OutputCall::FLUSH), 1);
    EXPECT_THAT(second_output.calls, IsEmpty());
}

struct ClearCase {
    Box box;
    const char *expression;
};

TEST_F(SecondLayer, ClearingBeyondTheScreenAborts)
{
    ImageSurface *surface = add_shown("fb2.a", {0, 0, 20, 20}, ARGB32);
    Region *clear = surface->backend->clear_region;
    for (const ClearCase &bad :
         {ClearCase{{5, 5, 5, 9}, "box->x2 > box->x1"}, ClearCase{{5, 5, 9, 5}, "box->y2 > box->y1"},
          ClearCase{{-1, 0, 5, 5}, "box->x1 >= 0"}, ClearCase{{0, -1, 5, 5}, "box->y1 >= 0"},
          ClearCase{{0, 0, 321, 5}, "box->x2 <= fs->w"}, ClearCase{{0, 0, 5, 241}, "box->y2 <= fs->h"}}) {
        fs_hide_surface(server, surface); // hidden and moved away: nothing joins the box below
        surface->drawing_area = {0, 0, 0, 0};
        region_reset(surface->backend->damage_region, &surface->area);
        clear->data = nullptr; // one rectangle, the extents
        clear->extents = bad.box;
        EXPECT_ABORT(fs_render(server), "composite/", "fs_render", bad.expression);
    }
    region_make_empty(clear);
}

} // namespace
