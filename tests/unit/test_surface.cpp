// SPDX-License-Identifier: MIT
// The server object and its surfaces: how they are made, stacked and removed.
#include <climits>
#include <cstring>

#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/compositor_test.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Surfaces : public CompositorTest {
protected:
    Surfaces() { open_server(); }

    std::vector<std::string> stack() const
    {
        std::vector<std::string> names;
        for (int32_t i = 0; i < server->n_surface; i++)
            names.emplace_back(server->surfaces[i]->name);
        return names;
    }
};

TEST_F(Surfaces, ANewServerHasItsSizeAndNothingElse)
{
    FbServer *other = fs_new(480, 272);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->w, 480);
    EXPECT_EQ(other->h, 272);
    EXPECT_EQ(other->native_w, 480);
    EXPECT_EQ(other->native_h, 272);
    EXPECT_EQ(other->surfaces, nullptr);
    EXPECT_EQ(other->n_surface, 0);
    EXPECT_EQ(other->surface_capacity, 0);
    EXPECT_EQ(other->rotation, 0);
    EXPECT_EQ(other->rotation_lock, 0);
    EXPECT_EQ(other->lock_count, 0);
    EXPECT_EQ(other->idle_source, 0u);
    EXPECT_EQ(other->n_backend, 0);
    EXPECT_EQ(other->backends, nullptr);
    fs_destroy(other);
}

TEST_F(Surfaces, DestroyTakesNull)
{
    fs_destroy(nullptr);
}

TEST_F(Surfaces, ANewServerOpensNoOutput)
{
    EXPECT_THAT(primary_output.calls, IsEmpty());
    EXPECT_THAT(second_output.calls, IsEmpty());
}

TEST_F(Surfaces, ASurfaceStartsHiddenCleanAndUnlocked)
{
    ImageSurface *surface = add("fb.a", {10, 20, 100, 50}, RGB16, 7);
    EXPECT_EQ(surface->flags, SURFACE_DIRECT);
    EXPECT_EQ(surface->area, (Rect{10, 20, 110, 70}));
    EXPECT_EQ(surface->drawing_area, (Rect{10, 20, 110, 70}));
    EXPECT_EQ(surface->clip, nullptr);
    EXPECT_EQ(surface->level, 7);
    EXPECT_EQ(surface->rotation, 0);
    EXPECT_EQ(surface->lock_counter, 0);
    EXPECT_EQ(surface->color_plane, -1);
    EXPECT_EQ(surface->scale_state, nullptr);
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
    EXPECT_THAT(rects_of(surface->aux_region), IsEmpty());
}

TEST_F(Surfaces, CreatingDamagesNothingAndSchedulesNothing)
{
    ImageSurface *surface = add("fb.a", {10, 20, 100, 50}, RGB16);
    EXPECT_THAT(damage_of(surface), IsEmpty());
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Surfaces, ASurfaceKeepsACopyOfItsName)
{
    char name[] = "fb.menu";
    ImageSurface *surface = add(name, {0, 0, 10, 10}, RGB16);
    strcpy(name, "xxxxxxx");
    EXPECT_STREQ(surface->name, "fb.menu");
}

TEST_F(Surfaces, TheImageIsTheClientsSharedMemory)
{
    ImageSurface *surface = add_with_stride("fb.a", {0, 0, 10, 6}, 28, RGB16);
    EXPECT_EQ(surface->img->pixels, memories.back()->data());
    EXPECT_EQ(surface->img->width, 10);
    EXPECT_EQ(surface->img->height, 6);
    EXPECT_EQ(surface->img->stride, 28);
    EXPECT_EQ(surface->img->flags & XC_IMAGE_SHARED, XC_IMAGE_SHARED);
}

struct FormatCase {
    int32_t format;
    int depth;
    bool direct, opaque, alpha;
};

TEST_F(Surfaces, TheFormatDecidesDirectOpaqueAndAlpha)
{
    for (const FormatCase &expected :
         {FormatCase{ARGB32, 32, false, false, true}, FormatCase{XRGB32, 32, false, true, false},
          FormatCase{RGB16, 16, true, true, false}, FormatCase{RGB18, 18, true, true, false}}) {
        SCOPED_TRACE(expected.format);
        const Rects whole = {{0, 0, 100, 50}};
        ImageSurface *surface = add("fb.a", {10, 20, 100, 50}, expected.format);
        EXPECT_EQ(surface_has(surface, SURFACE_DIRECT), expected.direct);
        EXPECT_EQ(rects_of(surface->opaque_area), expected.opaque ? whole : Rects());
        EXPECT_EQ(image_has_alpha(surface->img), expected.alpha);
        EXPECT_EQ(surface->img->depth, expected.depth);
    }
}

TEST_F(Surfaces, TheDrawingAreaIsCutToTheScreen)
{
    EXPECT_EQ(add("fb.a", {-10, -5, 30, 30}, RGB16)->drawing_area, (Rect{0, 0, 20, 25}));
    EXPECT_EQ(add("fb.b", {310, 235, 30, 30}, RGB16)->drawing_area, (Rect{310, 235, 320, 240}));
}

TEST_F(Surfaces, OffScreenTheDrawingAreaIsAllZero)
{
    for (const Place place :
         {Place{320, 10, 30, 30}, Place{-30, 10, 30, 30}, Place{10, 240, 30, 30}, Place{10, -30, 30, 30}})
        EXPECT_EQ(add("fb.a", place, RGB16)->drawing_area, (Rect{0, 0, 0, 0}));
}

TEST_F(Surfaces, AnotherRotationTurnsTheDisplayBeforeTheDrawingAreaIsComputed)
{
    ImageSurface *surface = add("fb.a", {0, 0, 300, 300}, RGB16, 0, 90);
    EXPECT_EQ(server->rotation, 90);
    EXPECT_EQ(server->w, 240);
    EXPECT_EQ(server->h, 320);
    EXPECT_EQ(surface->rotation, 90);
    EXPECT_EQ(surface->drawing_area, (Rect{0, 0, 240, 300}));
}

TEST_F(Surfaces, TheDisplaysOwnRotationTurnsNothing)
{
    add_shown("fb.a", {0, 0, 30, 30}, RGB16);
    add("fb.b", {0, 0, 30, 30}, RGB16);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_EQ(server->rotation_lock, 0);
}

TEST_F(Surfaces, SameLevelsStackInOrderOfCreation)
{
    for (const char *name : {"fb.a", "fb.b", "fb.c"})
        add(name, {0, 0, 10, 10}, RGB16, 5);
    EXPECT_THAT(stack(), ElementsAre("fb.a", "fb.b", "fb.c"));
}

TEST_F(Surfaces, TheLowestLevelGoesToTheBottomAndTheHighestToTheTop)
{
    add("fb.mid", {0, 0, 10, 10}, RGB16, 5);
    add("fb.high", {0, 0, 10, 10}, RGB16, 9);
    add("fb.low", {0, 0, 10, 10}, RGB16, -1);
    EXPECT_THAT(stack(), ElementsAre("fb.low", "fb.mid", "fb.high"));
}

TEST_F(Surfaces, AMiddleLevelGoesAboveItsEqualsAndBelowTheNext)
{
    add("fb.1", {0, 0, 10, 10}, RGB16, 1);
    add("fb.5a", {0, 0, 10, 10}, RGB16, 5);
    add("fb.9", {0, 0, 10, 10}, RGB16, 9);
    add("fb.5b", {0, 0, 10, 10}, RGB16, 5);
    EXPECT_THAT(stack(), ElementsAre("fb.1", "fb.5a", "fb.5b", "fb.9"));
}

TEST_F(Surfaces, TheListGrowsByDoublingAndNeverShrinks)
{
    std::vector<int32_t> capacities;
    for (int i = 0; i < 9; i++) {
        add("x", {0, 0, 10, 10}, RGB16);
        capacities.push_back(server->surface_capacity);
    }
    EXPECT_THAT(capacities, ElementsAre(4, 4, 4, 4, 8, 8, 8, 8, 16));
    while (server->n_surface > 0)
        fs_remove_surface(server, server->surfaces[0]);
    EXPECT_EQ(server->surface_capacity, 16);
}

TEST_F(Surfaces, RemovingClosesTheGapAndNullsTheEntryPastTheEnd)
{
    add("fb.a", {0, 0, 10, 10}, RGB16);
    ImageSurface *middle = add("fb.b", {0, 0, 10, 10}, RGB16);
    add("fb.c", {0, 0, 10, 10}, RGB16);
    fs_remove_surface(server, middle);
    EXPECT_THAT(stack(), ElementsAre("fb.a", "fb.c"));
    EXPECT_EQ(server->surfaces[2], nullptr);
}

TEST_F(Surfaces, RemovingASurfaceThatIsInNoListAborts)
{
    ImageSurface *surface = add("fb.a", {0, 0, 10, 10}, RGB16);
    FbServer *other = fs_new(320, 240);
    EXPECT_ABORT(fs_remove_surface(other, surface), "composite/", "fs_remove_surface", "i < fs->n_surface");
    fs_destroy(other);
}

TEST_F(Surfaces, RemovingAShownSurfaceDamagesItsDrawingArea)
{
    add("fb.below", {0, 0, 10, 10}, RGB16);
    ImageSurface *surface = add_shown("fb.a", {300, 20, 100, 50}, RGB16);
    settle();
    forget_damage();
    fs_remove_surface(server, surface);
    EXPECT_THAT(rects_of(server->backends[0]->damage_region), ElementsAre(Rect{300, 20, 320, 70}));
    EXPECT_THAT(rects_of(server->backends[0]->clear_region), IsEmpty());
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Surfaces, RemovingAHiddenSurfaceDamagesNothing)
{
    add("fb.below", {0, 0, 10, 10}, RGB16);
    fs_remove_surface(server, add("fb.a", {10, 20, 100, 50}, RGB16));
    EXPECT_THAT(rects_of(server->backends[0]->damage_region), IsEmpty());
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Surfaces, OnAnOutputWithAlphaRemovingAShownSurfaceAlsoClearsItsPlace)
{
    add("fb2.below", {0, 0, 10, 10}, ARGB32);
    ImageSurface *surface = add_shown("fb2.a", {10, 20, 100, 50}, ARGB32);
    settle();
    forget_damage();
    fs_remove_surface(server, surface);
    EXPECT_THAT(rects_of(server->backends[0]->damage_region), ElementsAre(Rect{10, 20, 110, 70}));
    EXPECT_THAT(rects_of(server->backends[0]->clear_region), ElementsAre(Rect{10, 20, 110, 70}));
}

TEST_F(Surfaces, RemovingAHiddenSurfaceOnAnOutputWithAlphaClearsNothing)
{
    add("fb2.below", {0, 0, 10, 10}, ARGB32);
    fs_remove_surface(server, add("fb2.a", {10, 20, 100, 50}, ARGB32));
    EXPECT_THAT(rects_of(server->backends[0]->clear_region), IsEmpty());
}

TEST_F(Surfaces, RemovingALockHolderGivesItsOneCountBack)
{
    ImageSurface *other = add_shown("fb.b", {0, 0, 10, 10}, RGB16);
    ImageSurface *surface = add_shown("fb.a", {0, 0, 10, 10}, RGB16);
    fs_set_lock_area(server, other, 0, 0, 1, 1);
    for (int i = 0; i < 3; i++)
        fs_set_lock_area(server, surface, 0, 0, 1, 1);
    ASSERT_EQ(server->lock_count, 2);
    fs_remove_surface(server, surface);
    EXPECT_EQ(server->lock_count, 1);
    fs_remove_surface(server, other);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Surfaces, RemovingDuringABlockUntilUnlockAborts)
{
    ImageSurface *surface = add("fb.a", {0, 0, 10, 10}, RGB16);
    fs_block_until_unlock(server, surface);
    EXPECT_ABORT(fs_remove_surface(server, surface), "composite/", "fs_set_unlock", "surface->lock_counter >= 0");
    fs_set_lock_area(server, surface, 0, 0, 1, 1);
    EXPECT_ABORT(fs_remove_surface(server, surface), "composite/", "fs_set_unlock", "surface->lock_counter >= 0");
}

TEST_F(Surfaces, RemovingAShownSynchronisedSurfaceUncountsIt)
{
    ImageSurface *other = add_shown("fb.b", {0, 0, 10, 10}, RGB16);
    ImageSurface *surface = add_shown("fb.a", {0, 0, 10, 10}, RGB16);
    fs_set_sync(server, other, 1);
    fs_set_sync(server, surface, 1);
    fs_remove_surface(server, surface);
    EXPECT_EQ(other->backend->sync_count, 1);
}

TEST_F(Surfaces, RemovingAScaledSurfaceReleasesBothImages)
{
    ImageSurface *surface = add_shown("fb.a", {0, 0, 20, 20}, RGB16);
    fs_set_scale(server, surface, 0, 0, 20, 20, 0, 0, 40, 40);
    xc_image *scaled = xc_image_ref(surface->img);
    xc_image *original = xc_image_ref(surface->scale_state->orig_img);
    fs_remove_surface(server, surface);
    EXPECT_EQ(scaled->refs, 1);
    EXPECT_EQ(original->refs, 1);
    xc_image_unref(scaled);
    xc_image_unref(original);
}

TEST_F(Surfaces, ARectangleThatOverflowsAborts)
{
    EXPECT_ABORT(add("fb.a", {INT_MAX, 0, 10, 10}, RGB16), "composite/", "fs_crop_area", "rect->x2 >= rect->x1");
    EXPECT_ABORT(add("fb.a", {0, INT_MAX, 10, 10}, RGB16), "composite/", "fs_crop_area", "rect->y2 >= rect->y1");
}

} // namespace
