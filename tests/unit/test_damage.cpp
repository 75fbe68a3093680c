// SPDX-License-Identifier: MIT
// Damage, the one idle render, the render lock and the count of synchronised surfaces.
#include <climits>

#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/compositor_test.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Rect PLACE{10, 20, 110, 70};

class Damage : public CompositorTest {
protected:
    Damage()
    {
        open_server();
        surface = add_shown("fb.a", {10, 20, 100, 50}, XRGB32);
        settle();
        primary_output.calls.clear();
    }

    // Renders of the output since the set-up.
    int renders() const { return primary_output.count(OutputCall::FLUSH); }

    ImageSurface *surface; // shown and clean
};

// ---- client damage ----

TEST_F(Damage, AReportIsCollectedAndSchedules)
{
    fs_add_dirty(server, surface, 5, 6, 20, 30);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{5, 6, 25, 36}));
    EXPECT_TRUE(render_is_pending());
    EXPECT_THAT(damage_of(surface), IsEmpty());
}

TEST_F(Damage, ReportsOfHiddenSurfacesAreDropped)
{
    fs_hide_surface(server, surface);
    settle();
    forget_damage();
    fs_add_dirty(server, surface, 5, 6, 20, 30);
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Damage, ReportsOfDirtySurfacesAreDropped)
{
    fs_move_surface(server, surface, 0, 0);
    forget_damage();
    fs_add_dirty(server, surface, 5, 6, 20, 30);
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Damage, AScaledSurfaceCollectsReportsHiddenAndDirtyToo)
{
    fs_set_scale(server, surface, 0, 0, 40, 40, 10, 20, 80, 80);
    settle();
    fs_hide_surface(server, surface);
    settle();
    forget_damage();
    fs_add_dirty(server, surface, 5, 6, 20, 30);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{5, 6, 25, 36}));
    EXPECT_TRUE(render_is_pending());

    fs_show_surface(server, surface);
    ASSERT_TRUE(surface_has(surface, SURFACE_DIRTY));
    fs_add_dirty(server, surface, 25, 6, 5, 30);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{5, 6, 30, 36}));
}

TEST_F(Damage, ReportsOfAColourPlaneAreDropped)
{
    fs_set_color_plane(server, surface, static_cast<int32_t>(0xFF0000FF));
    fs_add_dirty(server, surface, 5, 6, 20, 30);
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Damage, AnEmptyReportSchedulesAllTheSame)
{
    fs_add_dirty(server, surface, 5, 6, 0, 30);
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Damage, AHugeReportIsTheWholeSurface)
{
    for (const int32_t size : {100000, INT_MAX}) {
        primary_output.calls.clear();
        fs_add_dirty(server, surface, 10, 10, size, size);
        settle();
        EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{20, 30, 110, 70}})) << size;
    }
    primary_output.calls.clear();
    fs_add_dirty(server, surface, INT_MIN, INT_MIN, INT_MAX, INT_MAX);
    fs_add_dirty(server, surface, -40000, -40000, INT_MAX, 100000);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{PLACE}));
}

// A region ends at 32767: what of such a surface is on the screen could not be told.
TEST_F(Damage, AReportBeyondWhatARegionHoldsIsTheWholeSurface)
{
    for (const Place place : {Place{-40000, 20, 50000, 2}, Place{10, -40000, 2, 50000}}) {
        ImageSurface *large = add_shown("fb.large", place, XRGB32, 1);
        settle();
        paint(large, 0x00ABCDEF);
        const bool wide = place.w > place.h;
        const Place report = wide ? Place{0, 0, INT_MAX, 2} : Place{0, 0, 2, INT_MAX};
        for (const int32_t from : {0, 45000}) { // neither does a region hold where the second one begins
            primary_output.calls.clear();
            if (wide)
                fs_add_dirty(server, large, from, report.y, report.w, report.h);
            else
                fs_add_dirty(server, large, report.x, from, report.w, report.h);
            settle();
            EXPECT_EQ(primary_output.pixel(11, 21), 0xABCDEFu);
            EXPECT_THAT(primary_output.updates(),
                        ElementsAre(Rects{wide ? Rect{0, 20, 320, 22} : Rect{10, 0, 12, 240}}));
        }
        primary_output.calls.clear();
        fs_add_dirty(server, large, 40000, 40000, INT_MAX, 0);
        settle();
        EXPECT_THAT(primary_output.updates(), IsEmpty()) << "an empty report is none";
        fs_remove_surface(server, large);
        settle();
    }
}

TEST_F(Damage, TwoReportsGiveOneRenderThatCoversBoth)
{
    fs_add_dirty(server, surface, 0, 0, 5, 5);
    const uint32_t source = server->idle_source;
    fs_add_dirty(server, surface, 20, 0, 5, 5);
    EXPECT_EQ(server->idle_source, source);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{10, 20, 15, 25}, {30, 20, 35, 25}}));
    EXPECT_EQ(renders(), 1);
}

// Scattered single pixels, no two of them in one rectangle.
TEST_F(Damage, ManyScatteredReportsArePaintedAndNothingElse)
{
    paint(surface, 0x00FFFFFF);
    for (int32_t y = 0; y < 50; y += 2) {
        for (int32_t x = y % 4; x < 100; x += 3)
            fs_add_dirty(server, surface, x, y, 1, 1);
    }
    settle();
    for (int32_t y = 0; y < 50; y++) {
        for (int32_t x = 0; x < 100; x++) {
            const bool reported = y % 2 == 0 && x >= y % 4 && (x - y % 4) % 3 == 0;
            ASSERT_EQ(primary_output.pixel(10 + x, 20 + y), reported ? 0xFFFFFFu : 0u) << x << "," << y;
        }
    }
    EXPECT_EQ(renders(), 1);
}

// Reports that lie apart find the room that those before them have used, unless it is much.
TEST_F(Damage, RoomForAFewReportsIsKept)
{
    const auto report = [this](int32_t n) {
        for (int32_t i = 0; i < n; i++)
            fs_add_dirty(server, surface, i % 50 * 2, i / 50 * 2, 1, 1);
    };
    report(5);
    const int32_t room = surface->reports.capacity;
    EXPECT_GE(room, 4);
    settle();
    EXPECT_EQ(surface->reports.n, 0);
    EXPECT_EQ(surface->reports.capacity, room);
    report(1250);
    EXPECT_GT(surface->reports.capacity, 256);
    settle();
    EXPECT_EQ(surface->reports.capacity, 0);
    EXPECT_EQ(surface->reports.boxes, nullptr);
    EXPECT_EQ(renders(), 2);
}

TEST_F(Damage, ReportsThatAreOneRectangleNeedNoRoom)
{
    for (const Rect &rect : {Rect{10, 10, 5, 5}, Rect{15, 10, 5, 5}, Rect{10, 15, 10, 3}, Rect{11, 11, 2, 2},
                             Rect{3, 3, 0, 5}, Rect{0, 0, 100, 50}})
        fs_add_dirty(server, surface, rect.x1, rect.y1, rect.x2, rect.y2); // here width and height
    EXPECT_EQ(surface->reports.boxes, nullptr);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{0, 0, 100, 50}));
}

TEST_F(Damage, ManyScatteredReportsWaitWhileTheSurfaceIsHidden)
{
    for (int32_t x = 0; x < 100; x += 2) {
        for (int32_t y = 0; y < 50; y += 2)
            fs_add_dirty(server, surface, x, y, 1, 1);
    }
    fs_hide_surface(server, surface);
    forget_damage();
    surface->flags |= SURFACE_SHOWN; // shown again, but not wholly dirty
    fs_schedule_render(server);
    settle();
    const std::vector<Rects> updates = primary_output.updates();
    ASSERT_FALSE(updates.empty());
    Region painted;
    region_init(&painted, nullptr);
    for (const Rect &rect : updates.back())
        region_union_rect(&painted, &painted, &rect);
    const Box last{108, 68, 109, 69}, between{109, 68, 110, 69};
    EXPECT_EQ(pixman_region_contains_rectangle(&painted, const_cast<Box *>(&last)), PIXMAN_REGION_IN);
    EXPECT_EQ(pixman_region_contains_rectangle(&painted, const_cast<Box *>(&between)), PIXMAN_REGION_OUT);
    region_uninit(&painted);
}

TEST_F(Damage, TheRenderRunsAtIdlePriority)
{
    fs_add_dirty(server, surface, 0, 0, 5, 5);
    GSource *source = g_main_context_find_source_by_id(nullptr, server->idle_source);
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(g_source_get_priority(source), 200);
}

// ---- screen damage ----

TEST_F(Damage, SurfaceDamageIsTheDrawingArea)
{
    fs_damage_surface(server, surface);
    EXPECT_THAT(damage_of(surface), ElementsAre(PLACE));
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Damage, SurfaceDamageCutsTheDrawingAreaInPlaceWithoutZeroing)
{
    surface->drawing_area = {-5, -6, 400, 300};
    fs_damage_surface(server, surface);
    EXPECT_EQ(surface->drawing_area, (Rect{0, 0, 320, 240}));
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{0, 0, 320, 240}));
    surface->drawing_area = {100, 300, 200, 400};
    fs_damage_surface(server, surface);
    EXPECT_EQ(surface->drawing_area, (Rect{100, 300, 200, 240}));
}

TEST_F(Damage, AnInvertedDrawingAreaAborts)
{
    surface->drawing_area = {10, 0, 5, 10};
    EXPECT_ABORT(fs_damage_surface(server, surface), "composite/", "fs_crop_area", "rect->x2 >= rect->x1");
    surface->drawing_area = {0, 10, 10, 5};
    EXPECT_ABORT(fs_damage_surface(server, surface), "composite/", "fs_crop_area", "rect->y2 >= rect->y1");
}

TEST_F(Damage, OffScreenNothingIsDamagedButARenderIsScheduled)
{
    fs_move_surface(server, surface, 1000, 1000);
    forget_damage();
    fs_damage_surface(server, surface);
    EXPECT_THAT(damage_of(surface), IsEmpty());
    EXPECT_TRUE(render_is_pending());
}

// ---- the states of the render lock ----

TEST_F(Damage, IdleBecomesPendingOnDamageAndIdleAgainWhenTheRenderStarts)
{
    ASSERT_EQ(server->idle_source, 0u);
    fs_schedule_render(server);
    EXPECT_TRUE(render_is_pending());
    const StderrCapture quiet; // nothing is damaged
    settle();
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Damage, EachScheduledSourceRunsOnce)
{
    fs_damage_surface(server, surface);
    settle();
    settle();
    EXPECT_EQ(renders(), 1);
    EXPECT_FALSE(g_main_context_pending(nullptr));
}

TEST_F(Damage, RendersOneAfterTheOtherRunOnceEach)
{
    for (int i = 1; i <= 3; i++) {
        fs_damage_surface(server, surface);
        GSource *source = g_main_context_find_source_by_id(nullptr, server->idle_source);
        ASSERT_NE(source, nullptr);
        EXPECT_EQ(g_source_get_priority(source), 200);
        settle();
        EXPECT_EQ(server->idle_source, 0u);
        EXPECT_EQ(renders(), i);
        EXPECT_FALSE(g_main_context_pending(nullptr));
    }
}

TEST_F(Damage, ARenderThatIsPendingRunsWhateverIsRenderedMeanwhile)
{
    fs_damage_surface(server, surface);
    const uint32_t first = server->idle_source;
    fs_render(server);
    fs_damage_surface(server, surface);
    const uint32_t second = server->idle_source;
    EXPECT_NE(second, first);
    g_source_remove(second);
    EXPECT_TRUE(g_main_context_pending(nullptr));
    settle();
    EXPECT_EQ(renders(), 2);
    EXPECT_FALSE(g_main_context_pending(nullptr));
}

TEST_F(Damage, LockingWhileIdleLocks)
{
    fs_lock_render(server);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Damage, LockingWhilePendingRemovesTheRender)
{
    fs_damage_surface(server, surface);
    const uint32_t source = server->idle_source;
    fs_lock_render(server);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_FALSE(render_is_pending());
    EXPECT_EQ(g_main_context_find_source_by_id(nullptr, source), nullptr);
}

TEST_F(Damage, LocksNestAndTheLastUnlockSchedules)
{
    fs_lock_render(server);
    fs_lock_render(server);
    EXPECT_EQ(server->lock_count, 2);
    fs_unlock_render(server);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_FALSE(render_is_pending());
    fs_unlock_render(server);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_TRUE(render_is_pending());
    forget_damage();
}

TEST_F(Damage, WhileLockedDamageIsOnlyAccumulated)
{
    fs_lock_render(server);
    fs_damage_surface(server, surface);
    fs_add_dirty(server, surface, 0, 0, 5, 5);
    EXPECT_FALSE(render_is_pending());
    EXPECT_THAT(damage_of(surface), ElementsAre(PLACE));
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{0, 0, 5, 5}));
    settle();
    EXPECT_EQ(renders(), 0);
}

TEST_F(Damage, ShowingWhileLockedSchedulesNothing)
{
    fs_lock_render(server);
    add_shown("fb.b", {0, 0, 10, 10}, XRGB32);
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Damage, AnUnlockWithoutALockStopsRenderingUntilALockBringsItBack)
{
    fs_unlock_render(server);
    EXPECT_EQ(server->lock_count, -1);
    fs_damage_surface(server, surface);
    EXPECT_FALSE(render_is_pending());
    fs_lock_render(server);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_FALSE(render_is_pending());
    fs_damage_surface(server, surface);
    EXPECT_TRUE(render_is_pending());
}

// ---- lock-area requests ----

TEST_F(Damage, ALockAreaDamagesItsRectangleAndHoldsRendering)
{
    fs_set_lock_area(server, surface, 5, 6, 20, 30);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{5, 6, 25, 36}));
    EXPECT_EQ(surface->lock_counter, 1);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Damage, ALockedAreaIsPaintedOnceAfterTheUnlock)
{
    fs_set_lock_area(server, surface, 5, 6, 20, 30);
    settle();
    EXPECT_EQ(renders(), 0);
    fs_set_unlock(server, surface);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{15, 26, 35, 56}}));
    EXPECT_EQ(renders(), 1);
    EXPECT_EQ(surface->lock_counter, 0);
}

TEST_F(Damage, AReportWhileLockedIsPaintedAfterTheLastUnlock)
{
    ImageSurface *other = add("fb.b", {200, 100, 10, 10}, XRGB32);
    fs_set_lock_area(server, other, 0, 0, 0, 0);
    fs_add_dirty(server, surface, 5, 6, 20, 30);
    settle();
    EXPECT_EQ(renders(), 0);
    fs_set_unlock(server, other);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{15, 26, 35, 56}}));
}

TEST_F(Damage, TwoLockAreasNeedTwoUnlocks)
{
    fs_set_lock_area(server, surface, 0, 0, 5, 5);
    fs_set_lock_area(server, surface, 20, 0, 5, 5);
    EXPECT_EQ(surface->lock_counter, 2);
    EXPECT_EQ(server->lock_count, 1);
    fs_set_unlock(server, surface);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_FALSE(render_is_pending());
    fs_set_unlock(server, surface);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Damage, RenderingResumesWhenEverySurfaceHasUnlocked)
{
    ImageSurface *other = add_shown("fb.b", {200, 100, 10, 10}, XRGB32);
    fs_set_lock_area(server, surface, 0, 0, 5, 5);
    fs_set_lock_area(server, other, 0, 0, 5, 5);
    EXPECT_EQ(server->lock_count, 2);
    fs_set_unlock(server, surface);
    EXPECT_FALSE(render_is_pending());
    fs_set_unlock(server, other);
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Damage, AnUnlockWithoutALockAreaAborts)
{
    EXPECT_ABORT(fs_set_unlock(server, surface), "composite/", "fs_set_unlock", "surface->lock_counter >= 0");
}

// ---- block until unlock ----

TEST_F(Damage, BlockUntilUnlockHoldsOneCountWithoutDamage)
{
    fs_block_until_unlock(server, surface);
    EXPECT_TRUE(surface_has(surface, SURFACE_BLOCK));
    EXPECT_EQ(surface->lock_counter, 1);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
}

TEST_F(Damage, BlockUntilUnlockTwiceHasTheEffectOfOnce)
{
    fs_block_until_unlock(server, surface);
    fs_block_until_unlock(server, surface);
    EXPECT_EQ(surface->lock_counter, 1);
    EXPECT_EQ(server->lock_count, 1);
}

TEST_F(Damage, AfterBlockLockUnlockTheSurfaceHoldsNothing)
{
    fs_block_until_unlock(server, surface);
    fs_set_lock_area(server, surface, 0, 0, 5, 5);
    EXPECT_EQ(surface->lock_counter, 2);
    fs_set_unlock(server, surface);
    EXPECT_EQ(surface->lock_counter, 0);
    EXPECT_FALSE(surface_has(surface, SURFACE_BLOCK));
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Damage, AnUnlockRightAfterABlockAborts)
{
    fs_block_until_unlock(server, surface);
    EXPECT_ABORT(fs_set_unlock(server, surface), "composite/", "fs_set_unlock", "surface->lock_counter >= 0");
}

TEST_F(Damage, TheExtraCountGoesWithOneUnlockOnly)
{
    fs_set_lock_area(server, surface, 0, 0, 5, 5);
    fs_set_lock_area(server, surface, 0, 0, 5, 5);
    fs_block_until_unlock(server, surface);
    EXPECT_EQ(surface->lock_counter, 3);
    fs_set_unlock(server, surface);
    EXPECT_EQ(surface->lock_counter, 1);
    EXPECT_EQ(server->lock_count, 1);
    fs_set_unlock(server, surface);
    EXPECT_EQ(surface->lock_counter, 0);
    EXPECT_EQ(server->lock_count, 0);
}

// ---- synchronisation ----

TEST_F(Damage, SyncOfAShownSurfaceIsCountedOnce)
{
    fs_set_sync(server, surface, 1);
    fs_set_sync(server, surface, 7);
    EXPECT_TRUE(surface_has(surface, SURFACE_SYNC));
    EXPECT_EQ(surface->backend->sync_count, 1);
    fs_set_sync(server, surface, 0);
    fs_set_sync(server, surface, 0);
    EXPECT_FALSE(surface_has(surface, SURFACE_SYNC));
    EXPECT_EQ(surface->backend->sync_count, 0);
}

TEST_F(Damage, SyncOfAHiddenSurfaceIsCountedWhenItIsShown)
{
    fs_hide_surface(server, surface);
    fs_set_sync(server, surface, -1);
    EXPECT_EQ(surface->backend->sync_count, 0);
    fs_show_surface(server, surface);
    EXPECT_EQ(surface->backend->sync_count, 1);
}

TEST_F(Damage, TurningSyncOffWhileHiddenCountsNothing)
{
    fs_set_sync(server, surface, 1);
    fs_hide_surface(server, surface);
    EXPECT_EQ(surface->backend->sync_count, 0);
    fs_set_sync(server, surface, 0);
    EXPECT_EQ(surface->backend->sync_count, 0);
}

TEST_F(Damage, SyncIsCountedPerBackend)
{
    ImageSurface *other = add_shown("fb2.a", {0, 0, 10, 10}, ARGB32);
    fs_set_sync(server, surface, 1);
    fs_set_sync(server, other, 1);
    EXPECT_EQ(surface->backend->sync_count, 1);
    EXPECT_EQ(other->backend->sync_count, 1);
}

} // namespace
