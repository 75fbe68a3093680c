// SPDX-License-Identifier: MIT
// Turns among other requests: with locks, scales, a second layer, and clients that go in the middle of a turn.
#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/turned_test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(Turned, EveryOutputIsTurned)
{
    open_server(PANEL_W, PANEL_H);
    for (const char *name : {"fb.a", "fb2.a", "x.a"})
        add(name, {0, 0, 10, 10}, RGB16);
    fs_rotate_display(server, 270);
    ASSERT_EQ(server->n_backend, 2);
    for (int32_t i = 0; i < 2; i++) {
        const Backend *backend = server->backends[i];
        EXPECT_THAT(rects_of(backend->damage_region), ElementsAre(Rect{0, 0, PANEL_H, PANEL_W}));
        EXPECT_EQ(backend->work_img->stride, 4 * PANEL_H);
    }
}

TEST_F(Turned, WhileAClientHoldsTheLockNoRenderIsScheduled)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *hidden = add("fb.a", {0, 0, 10, 10}, RGB16);
    fs_set_lock_area(server, hidden, 0, 0, 1, 1);
    fs_rotate_display(server, 90);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_EQ(server->rotation_lock, 0);
    EXPECT_FALSE(render_is_pending());
    EXPECT_THAT(damage_of(hidden), ElementsAre(Rect{0, 0, PANEL_H, PANEL_W}));
}

TEST_F(Turned, AScreenWithoutRowsSchedulesNothingAndANegativeSizeAborts)
{
    open_server(PANEL_W, 0);
    ImageSurface *surface = add("fb.a", {0, 0, 10, 10}, RGB16);
    forget_damage();
    const Box left_over{0, 0, 5, 5};
    *surface->backend->damage_region = Region{left_over, nullptr};
    fs_rotate_display(server, 0);
    EXPECT_FALSE(render_is_pending());
    EXPECT_THAT(damage_of(surface), IsEmpty());
    fs_rotate_display(server, 90); // no columns, but rows
    EXPECT_TRUE(render_is_pending());
    close_server();
    open_server(PANEL_W, -1);
    add("fb.a", {0, 0, 10, 10}, RGB16);
    EXPECT_ABORT(fs_rotate_display(server, 0), "composite/", "fs_crop_area", "rect->y2 >= rect->y1");
    EXPECT_ABORT(fs_rotate_display(server, 90), "composite/", "fs_crop_area", "rect->x2 >= rect->x1");
}

// Hidden surfaces do not count, and hiding one ends nothing: only a surface that goes is looked at.
TEST_F(Turned, WhenTheTurnedClientGoesInMidTurnTheHoldStays)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *upright = add_shown("fb.a", {0, 0, 10, 10}, RGB16);
    ImageSurface *turned = add("fb.b", {0, 0, 10, 10}, RGB16, 0, 90);
    fs_remove_surface(server, turned);
    EXPECT_EQ(server->rotation, 90);
    EXPECT_EQ(server->rotation_lock, 1);
    EXPECT_FALSE(render_is_pending());
    ImageSurface *again = add("fb.b", {0, 0, 10, 10}, RGB16, 0, 90);
    EXPECT_EQ(server->lock_count, 1);
    fs_hide_surface(server, upright);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_FALSE(render_is_pending());
    fs_remove_surface(server, again);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_EQ(server->rotation_lock, 0);
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Turned, WhenTheLastSurfaceGoesInMidTurnTheNextOneIsDrawn)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *upright = add_shown("fb.a", {0, 0, 10, 10}, XRGB32);
    add("x.b", {0, 0, 10, 10}, RGB16, 0, 90);
    fs_remove_surface(server, upright);
    EXPECT_EQ(primary_output.count(OutputCall::RELEASE), 1);
    EXPECT_EQ(server->lock_count, 0);
    ImageSurface *next = add_shown("fb.c", {20, 30, 10, 10}, XRGB32, 0, 90);
    paint(next, 0x00345678);
    EXPECT_EQ(primary_output.requested_w, PANEL_H);
    EXPECT_EQ(primary_output.requested_h, PANEL_W);
    EXPECT_EQ(next->drawing_area, (Rect{20, 30, PANEL_H, PANEL_W}));
    settle_quietly();
    EXPECT_FALSE(surface_has(next, SURFACE_DIRTY));
}

TEST_F(Turned, OfThreeNestedTurnsEveryCountIsGivenBack)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *upright = add_shown("fb.a", {0, 0, 10, 10}, RGB16);
    ImageSurface *right = add_shown("fb.b", {0, 0, 10, 10}, RGB16, 0, 90);
    ImageSurface *left = add_shown("fb.c", {0, 0, 10, 10}, RGB16, 0, 270);
    add_shown("fb.d", {0, 0, 10, 10}, RGB16, 0, 90);
    EXPECT_EQ(server->lock_count, 3);
    fs_set_lock_area(server, right, 0, 0, 1, 1);
    fs_remove_surface(server, upright);
    EXPECT_EQ(server->lock_count, 4);
    fs_remove_surface(server, left);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_EQ(server->rotation_lock, 0);
    EXPECT_FALSE(render_is_pending());
    fs_set_unlock(server, right);
    EXPECT_TRUE(render_is_pending());
    settle_quietly();
}

// ---- scaled surfaces on turned displays ----

TEST_F(Turned, AScaledSurfaceIsLaidOutAgainAndItsMappingStays)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *surface = add("fb.a", {0, 0, 4, 4}, XRGB32);
    paint(surface, 0x00345678);
    fs_set_scale(server, surface, 0, 0, 4, 4, 20, 10, 16, 28);
    EXPECT_EQ(surface->drawing_area, (Rect{20, 10, 36, PANEL_H}));
    const xc_image *scaled = surface->img;
    const ScaleState before = *surface->scale_state;
    fs_rotate_display(server, 90);
    EXPECT_EQ(surface->drawing_area, (Rect{20, 10, PANEL_H, 38}));
    EXPECT_EQ(surface->area, (Rect{20, 10, 36, 38}));
    EXPECT_EQ(surface->img, scaled);
    EXPECT_EQ(surface->scale_state->y_step, before.y_step);
    EXPECT_EQ(surface->scale_state->dst_rect, before.dst_rect);
    fs_show_surface(server, surface);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{20, 10, PANEL_H, 38}}));
    EXPECT_EQ(primary_output.pixel(23, 23), 0x345678u); // 32 bits are not turned
}

TEST_F(Turned, ASurfaceScaledWhileTurnedComesOutTurned)
{
    primary_output.depth = 16;
    open_server(PANEL_W, PANEL_H);
    ImageSurface *surface = add_shown("fb.a", {0, 0, 4, 4}, XRGB32, 0, 90);
    ImageSurface *above = add_shown("fb.b", {0, 0, 2, 2}, XRGB32, 1, 90);
    settle_quietly();
    paint(surface, 0x0000FF00);
    put(surface->img, 3, 3, 0x00FF0000);
    paint(above, 0x000000FF);
    fs_set_scale(server, surface, 0, 0, 4, 4, 12, 20, 8, 12);
    EXPECT_EQ(surface->drawing_area, (Rect{12, 20, 20, 32}));
    fs_add_dirty(server, above, 0, 0, 2, 2);
    settle_quietly();
    const auto turned = [](int32_t x, int32_t y) { return primary_output.pixel(PANEL_W - 1 - y, x); };
    EXPECT_EQ(turned(12, 20), 0x07E0u);
    EXPECT_EQ(turned(19, 31), 0xF800u);
    EXPECT_EQ(turned(19, 28), 0x07E0u);
    EXPECT_EQ(turned(20, 31), 0u);
    EXPECT_EQ(turned(1, 1), 0x001Fu);
    fs_set_scale(server, surface, 0, 0, 4, 4, 12, 38, 4, 4); // removed; half of it beyond the turned screen's end
    EXPECT_EQ(surface->drawing_area, (Rect{12, 38, 16, PANEL_W}));
}

// ---- the second layer ----

TEST_F(Turned, TheSecondLayerOpenedWhileTurnedIsAskedForTheTurnedSize)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *first = add("fb.a", {0, 0, 10, 10}, XRGB32, 0, 90);
    ImageSurface *layer = add_shown("fb2.a", {10, 20, 10, 30}, ARGB32, 0, 90);
    paint(layer, 0xFF345678);
    EXPECT_EQ(second_output.requested_w, PANEL_H);
    EXPECT_EQ(second_output.requested_h, PANEL_W);
    EXPECT_EQ(layer->backend->work_img->stride, 4 * PANEL_H);
    EXPECT_EQ(layer->drawing_area, (Rect{10, 20, 20, PANEL_W}));
    settle_quietly();
    EXPECT_EQ(second_output.pixel(10, 20), 0xFF345678u);
    EXPECT_EQ(second_output.pixel(19, PANEL_H - 1), 0xFF345678u); // further rows the device does not have
    EXPECT_EQ(second_output.pixel(20, 20), 0u);
    EXPECT_EQ(first->backend->work_img->stride, 4 * PANEL_H);
}

} // namespace
