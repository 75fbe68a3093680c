// SPDX-License-Identifier: MIT
// Turned displays: what is drawn the right way round and what is not, and that turning leaves no state behind that
// later steps stumble over.
#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/reference_picture.h"
#include "../support/turned_test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// ---- pictures ----

enum Outcome { RIGHT, UNTURNED, TWICE };

struct TurnCase {
    uint32_t panel_depth;
    int32_t format;
    Outcome alone, with_others;
};

// What a display turned by 90 degrees shows.
const TurnCase AT_90[] = {
    {16, ARGB32, TWICE, RIGHT},      {16, XRGB32, TWICE, RIGHT},      {16, RGB16, TWICE, RIGHT},
    {16, RGB18, RIGHT, UNTURNED},    {18, ARGB32, RIGHT, RIGHT},      {18, XRGB32, RIGHT, RIGHT},
    {18, RGB16, RIGHT, UNTURNED},    {18, RGB18, TWICE, RIGHT},       {32, XRGB32, UNTURNED, UNTURNED},
    {32, RGB16, UNTURNED, UNTURNED}, {32, RGB18, UNTURNED, UNTURNED},
};

constexpr Place PLACE{3, 6, 16, 15};

bool in_place(int32_t x, int32_t y)
{
    return x >= PLACE.x && x < PLACE.x + PLACE.w && y >= PLACE.y && y < PLACE.y + PLACE.h;
}

class TurnedPictures : public Turned {
protected:
    // A display turned by `rotation` that shows a numbered surface at PLACE.
    ImageSurface *show_turned(const TurnCase &turn, int32_t rotation, bool with_others)
    {
        close_server();
        memory_outputs_reset();
        primary_output.width = PANEL_W;
        primary_output.height = PANEL_H;
        primary_output.depth = turn.panel_depth;
        open_server(PANEL_W, PANEL_H);
        ImageSurface *surface = add_shown("fb.a", PLACE, turn.format, 0, rotation);
        paint_numbers(surface);
        if (with_others)
            add_shown("fb.other", {20, 0, 3, 3}, XRGB32, 0, rotation);
        settle_quietly();
        return surface;
    }

    // What the surface shows at a point of the screen, as a word of the output.
    static uint32_t word_of(ImageSurface *surface, int32_t x, int32_t y)
    {
        ImageSurface *only[] = {surface};
        return reference_pixel(only, surface->backend->frame_img->format, true, x, y, 0) & 0xFFFFFF;
    }

    // Screen point (x, y), turned by 90 degrees, on the panel.
    static uint32_t turned_pixel(int32_t x, int32_t y) { return primary_output.pixel(PANEL_W - 1 - y, x) & 0xFFFFFF; }

    // What the work image holds at row y, column x once the surface has been turned into it. Its rows are counted in
    // its own pixels: in one of 18 bits a turned row reaches into the next.
    static uint32_t work_word(ImageSurface *surface, int32_t x, int32_t y)
    {
        const xc_image *work = surface->backend->work_img;
        const int32_t pitch = work->stride / xc_image_pixel_size(work);
        uint32_t word = 0;
        for (int32_t sx = PLACE.x; sx < PLACE.x + PLACE.w; sx++) {
            for (int32_t sy = PLACE.y + PLACE.h - 1; sy >= PLACE.y; sy--) {
                if (pitch * sx + PANEL_W - 1 - sy == pitch * y + x)
                    word = word_of(surface, sx, sy);
            }
        }
        return word;
    }

    static void expect_at(Outcome outcome, ImageSurface *surface, int32_t x, int32_t y)
    {
        switch (outcome) {
        case RIGHT:
            EXPECT_EQ(turned_pixel(x, y), word_of(surface, x, y));
            break;
        case UNTURNED:
            EXPECT_EQ(primary_output.pixel(x, y) & 0xFFFFFF, word_of(surface, x, y));
            break;
        case TWICE:
            EXPECT_EQ(turned_pixel(x, y), work_word(surface, x, y));
            break;
        }
    }

    static void expect_everywhere(Outcome outcome, ImageSurface *surface)
    {
        for (int32_t y = PLACE.y; y < PLACE.y + PLACE.h; y++) {
            for (int32_t x = PLACE.x; x < PLACE.x + PLACE.w; x++) {
                SCOPED_TRACE(testing::Message() << x << "," << y);
                expect_at(outcome, surface, x, y);
                if (testing::Test::HasFailure())
                    return;
            }
        }
    }
};

TEST_F(TurnedPictures, At90WhatIsAloneInItsPass)
{
    for (const TurnCase &turn : AT_90) {
        SCOPED_TRACE(testing::Message() << "format " << turn.format << " on " << turn.panel_depth << " bits");
        expect_everywhere(turn.alone, show_turned(turn, 90, false));
    }
}

TEST_F(TurnedPictures, At90WhatIsDrawnWithOthers)
{
    for (const TurnCase &turn : AT_90) {
        SCOPED_TRACE(testing::Message() << "format " << turn.format << " on " << turn.panel_depth << " bits");
        expect_everywhere(turn.with_others, show_turned(turn, 90, true));
    }
}

TEST_F(TurnedPictures, At270NothingIsTurned)
{
    for (const TurnCase &turn : AT_90) {
        for (const bool with_others : {false, true}) {
            SCOPED_TRACE(testing::Message() << "format " << turn.format << " on " << turn.panel_depth << " bits");
            expect_everywhere(UNTURNED, show_turned(turn, 270, with_others));
        }
    }
}

TEST_F(TurnedPictures, ABackendThatWasOpenedUnturnedShowsTheSame)
{
    for (const TurnCase &turn : AT_90) {
        show_turned(turn, 0, false);
        SCOPED_TRACE(testing::Message() << "format " << turn.format << " on " << turn.panel_depth << " bits");
        fs_hide_surface(server, server->surfaces[0]);
        settle_quietly();
        ImageSurface *surface = add_shown("fb.b", PLACE, turn.format, 0, 90);
        paint_numbers(surface);
        add_shown("fb.other", {20, 0, 3, 3}, XRGB32, 0, 90);
        settle_quietly();
        expect_everywhere(turn.with_others, surface);
    }
}

TEST_F(TurnedPictures, TheTurned16BitSurfaceIsCutToItsPlaceBetweenTheTurns)
{
    ImageSurface *surface = show_turned({16, RGB16, TWICE, RIGHT}, 90, false);
    int outside = 0;
    for (int32_t y = PLACE.y; y < PLACE.y + PLACE.h; y++) {
        for (int32_t x = PLACE.x; x < PLACE.x + PLACE.w; x++) {
            if (in_place(y, PANEL_W - 1 - x))
                continue;
            EXPECT_EQ(turned_pixel(x, y), 0u);
            outside++;
        }
    }
    EXPECT_GT(outside, 0);
    EXPECT_EQ(surface->backend->work_img->stride, 4 * PANEL_H);
}

// ---- turning ----

TEST_F(Turned, TheLogicalSizeFollowsTheAngle)
{
    open_server(480, 272);
    for (const auto &[rotation, w, h] : {std::tuple{90, 272, 480}, {0, 480, 272}, {270, 272, 480}, {180, 480, 272}}) {
        fs_rotate_display(server, rotation);
        EXPECT_EQ(server->rotation, rotation);
        EXPECT_EQ(server->w, w);
        EXPECT_EQ(server->h, h);
        EXPECT_EQ(server->native_w, 480);
        EXPECT_EQ(server->native_h, 272);
    }
}

TEST_F(Turned, AnotherAngleIsNamedAndAborts)
{
    open_server();
    for (const int32_t angle : {45, -90, 360, 1}) {
        EXPECT_ABORT_AFTER("rot is not valid = " + std::to_string(angle) + "\n", fs_rotate_display(server, angle),
                           "composite/", "fs_rotate_display", "0");
    }
}

TEST_F(Turned, On16BitsARenderAt180Aborts)
{
    primary_output.depth = 16;
    open_server(PANEL_W, PANEL_H);
    add_shown("fb.a", {0, 0, 10, 10}, RGB16, 0, 180);
    EXPECT_ABORT_AFTER("No render function: src depth: 16 dst depth: 16\n", settle(), "composite/", "image_render",
                       "0");
}

TEST_F(Turned, WithNothingShownOneRenderOfTheWholeScreenIsScheduled)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *hidden = add("fb.a", {0, 0, 10, 10}, RGB16);
    fs_rotate_display(server, 90);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_EQ(server->rotation_lock, 0);
    EXPECT_TRUE(render_is_pending());
    EXPECT_THAT(damage_of(hidden), ElementsAre(Rect{0, 0, PANEL_H, PANEL_W}));
    EXPECT_EQ(hidden->backend->work_img->stride, 4 * PANEL_H);
}

TEST_F(Turned, WithASurfaceShownRenderingIsHeld)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *surface = add_shown("fb.a", {0, 0, 10, 10}, RGB16);
    fs_rotate_display(server, 90);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_EQ(server->rotation_lock, 1);
    EXPECT_FALSE(render_is_pending());
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{0, 0, PANEL_H, PANEL_W}));
}

TEST_F(Turned, TurningToTheAngleInForceDamagesTheWholeScreen)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *hidden = add("fb.a", {0, 0, 10, 10}, RGB16);
    fs_rotate_display(server, 0);
    EXPECT_THAT(damage_of(hidden), ElementsAre(Rect{0, 0, PANEL_W, PANEL_H}));
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Turned, TheHoldEndsWhenNoShownSurfaceExpectsAnotherTurn)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *first = add_shown("fb.a", {0, 0, 10, 10}, RGB16);
    ImageSurface *second = add_shown("fb.b", {0, 0, 10, 10}, RGB16);
    ImageSurface *hidden = add("fb.c", {0, 0, 10, 10}, RGB16);
    ImageSurface *turned = add_shown("fb.d", {0, 0, 10, 10}, RGB16, 0, 90);
    fs_remove_surface(server, first);
    EXPECT_EQ(server->rotation_lock, 1);
    EXPECT_EQ(server->lock_count, 1);
    fs_remove_surface(server, second);
    EXPECT_EQ(server->rotation_lock, 0);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_TRUE(render_is_pending());
    EXPECT_EQ(server->n_surface, 2);
    settle_quietly();
    fs_remove_surface(server, hidden);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_EQ(turned->drawing_area, (Rect{0, 0, 10, 10}));
}

TEST_F(Turned, AClientsOwnLockOutlivesTheHold)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *upright = add_shown("fb.a", {0, 0, 10, 10}, RGB16);
    ImageSurface *turned = add_shown("fb.b", {0, 0, 10, 10}, RGB16, 0, 90);
    fs_set_lock_area(server, turned, 0, 0, 1, 1);
    EXPECT_EQ(server->lock_count, 2);
    fs_remove_surface(server, upright);
    EXPECT_EQ(server->lock_count, 1);
    EXPECT_FALSE(render_is_pending());
}

// ---- what turning must not leave behind ----

TEST_F(Turned, AHiddenSurfaceBeyondTheNewEdgeCanBeRestackedTwice)
{
    primary_output.width = 800;
    primary_output.height = 480;
    open_server(800, 480);
    ImageSurface *hidden = add("fb.a", {600, 0, 100, 100}, RGB16);
    add("fb.b", {0, 0, 10, 10}, RGB16, 0, 90);
    EXPECT_EQ(hidden->drawing_area, (Rect{0, 0, 0, 0}));
    fs_set_level_surface(server, hidden, 1);
    fs_set_level_surface(server, hidden, 2);
    settle_quietly();
}

TEST_F(Turned, DrawingAreasAreComputedAgainWithTheirClips)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *surface = add("fb.a", {0, 0, 40, 40}, RGB16);
    fs_set_clip(server, surface, 5, 0, 100, 100);
    EXPECT_EQ(surface->drawing_area, (Rect{5, 0, 40, 24}));
    fs_rotate_display(server, 90);
    EXPECT_EQ(surface->drawing_area, (Rect{5, 0, 24, 40}));
    fs_rotate_display(server, 0);
    EXPECT_EQ(surface->drawing_area, (Rect{5, 0, 40, 24}));
}

TEST_F(Turned, DamageOutsideTheNewScreenIsForgotten)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *surface = add_shown("fb.a", {30, 0, 10, 10}, RGB16);
    settle_quietly();
    fs_hide_surface(server, surface);
    ASSERT_THAT(damage_of(surface), ElementsAre(Rect{30, 0, 40, 10}));
    ImageSurface *turned = add_shown("fb.b", {0, 0, 10, 10}, RGB16, 0, 90);
    EXPECT_THAT(damage_of(turned), ElementsAre(Rect{0, 0, PANEL_H, PANEL_W}));
    settle_quietly();
}

TEST_F(Turned, AHangUpOnTheSecondLayerJustBeforeTheTurnClearsWithinTheNewScreen)
{
    open_server(PANEL_W, PANEL_H);
    add("fb2.below", {0, 0, 10, 10}, ARGB32);
    ImageSurface *surface = add_shown("fb2.a", {20, 0, 20, 20}, ARGB32);
    settle_quietly();
    Backend *backend = surface->backend;
    fs_remove_surface(server, surface);
    ASSERT_THAT(rects_of(backend->clear_region), ElementsAre(Rect{20, 0, 40, 20}));
    fs_rotate_display(server, 90);
    EXPECT_THAT(rects_of(backend->clear_region), ElementsAre(Rect{20, 0, 24, 20}));
    settle();
    EXPECT_THAT(rects_of(backend->clear_region), IsEmpty());
}

TEST_F(Turned, TurnedThereAndBackWithASurfaceOfEachShownRenderingResumes)
{
    open_server(PANEL_W, PANEL_H);
    ImageSurface *upright = add_shown("fb.a", {0, 0, 10, 10}, RGB16);
    ImageSurface *turned = add_shown("fb.b", {0, 0, 10, 10}, RGB16, 0, 90);
    EXPECT_EQ(server->lock_count, 1);
    add_shown("fb.c", {0, 0, 10, 10}, RGB16, 0, 0);
    EXPECT_EQ(server->rotation, 0);
    EXPECT_EQ(server->lock_count, 2);
    EXPECT_EQ(server->rotation_lock, 2);
    fs_remove_surface(server, turned);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_EQ(server->rotation_lock, 0);
    EXPECT_TRUE(render_is_pending());
    settle_quietly();
    fs_add_dirty(server, upright, 0, 0, 5, 5);
    EXPECT_TRUE(render_is_pending());
}

} // namespace
