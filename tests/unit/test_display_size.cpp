// SPDX-License-Identifier: MIT
// Screens whose size comes from the command line, from the device, or from neither.
#include <gmock/gmock.h>

#include "../support/compositor_test.h"
#include "../support/reference_picture.h"
#include "../support/stderr_capture.h"

namespace {

constexpr Rect NOWHERE{0, 0, 0, 0};

class DisplaySize : public CompositorTest {
protected:
    void settle_quietly()
    {
        const StdoutCapture quiet;
        const StderrCapture silent;
        settle();
    }
};

TEST_F(DisplaySize, WithoutASizeTheDevicesOwnIsTakenOver)
{
    open_server(-1, -1);
    ImageSurface *surface = add("fb.a", {300, 200, 100, 100}, RGB16);
    EXPECT_EQ(primary_output.requested_w, -1);
    EXPECT_EQ(primary_output.requested_h, -1);
    EXPECT_EQ(server->w, 320);
    EXPECT_EQ(server->h, 240);
    EXPECT_EQ(server->native_w, 320);
    EXPECT_EQ(server->native_h, 240);
    EXPECT_EQ(surface->drawing_area, (Rect{300, 200, 320, 240}));
    EXPECT_EQ(surface->backend->work_img->width, 320);
    EXPECT_EQ(surface->backend->work_img->height, 240);
}

TEST_F(DisplaySize, TheFirstSurfaceIsSeen)
{
    open_server(-1, -1);
    ImageSurface *surface = add_shown("fb.a", {10, 10, 20, 20}, XRGB32);
    paint(surface, 0x00ABCDEF);
    settle();
    EXPECT_EQ(primary_output.pixel(15, 15), 0xABCDEFu);
    EXPECT_EQ(picture_difference(server, surface->backend, primary_output), "");
}

TEST_F(DisplaySize, EarlierSurfacesAreLaidOutAgain)
{
    open_server(-1, -1);
    ImageSurface *early = add("x", {10, 20, 30, 40}, RGB16);
    ImageSurface *clipped = add("x", {10, 20, 30, 40}, RGB16);
    fs_set_clip(server, clipped, 0, 0, 20, 100);
    EXPECT_EQ(early->drawing_area, NOWHERE);
    add("fb.a", {0, 0, 10, 10}, RGB16);
    EXPECT_EQ(early->drawing_area, (Rect{10, 20, 40, 60}));
    EXPECT_EQ(clipped->drawing_area, (Rect{10, 20, 20, 60}));
}

TEST_F(DisplaySize, TurnedBeforeTheDeviceIsKnownTheLogicalSizeIsSwapped)
{
    open_server(-1, -1);
    ImageSurface *surface = add("fb.a", {0, 0, 300, 300}, RGB16, 0, 90);
    EXPECT_EQ(server->native_w, 320);
    EXPECT_EQ(server->native_h, 240);
    EXPECT_EQ(server->w, 240);
    EXPECT_EQ(server->h, 320);
    EXPECT_EQ(surface->drawing_area, (Rect{0, 0, 240, 300}));
    EXPECT_EQ(surface->backend->work_img->width, 240);
    EXPECT_EQ(surface->backend->work_img->height, 320);
    EXPECT_EQ(surface->backend->work_img->stride, 240 * 4);
}

TEST_F(DisplaySize, TheSecondLayerCanBeTheOneThatGivesTheSize)
{
    second_output.width = 200;
    second_output.height = 100;
    open_server(-1, -1);
    add("fb2.a", {0, 0, 10, 10}, ARGB32);
    EXPECT_EQ(server->w, 200);
    EXPECT_EQ(server->h, 100);
    add("fb.a", {0, 0, 10, 10}, RGB16);
    EXPECT_EQ(primary_output.requested_w, 200);
    EXPECT_EQ(primary_output.requested_h, 100);
    EXPECT_EQ(server->w, 200);
}

TEST_F(DisplaySize, ADeviceThatCannotBeOpenedGivesNoSize)
{
    open_server(-1, -1);
    primary_output.refuses = true;
    const StderrCapture quiet;
    add("fb.a", {0, 0, 10, 10}, RGB16);
    EXPECT_EQ(server->w, -1);
    EXPECT_EQ(server->native_h, -1);
    primary_output.refuses = false;
    EXPECT_EQ(add("fb.b", {0, 0, 10, 10}, RGB16)->drawing_area, (Rect{0, 0, 10, 10}));
    EXPECT_EQ(server->surfaces[0]->drawing_area, (Rect{0, 0, 10, 10}));
}

TEST_F(DisplaySize, ANewDeviceAfterAReleaseIsAskedForTheSizeThatWasTakenOver)
{
    open_server(-1, -1);
    fs_remove_surface(server, add("fb.a", {0, 0, 10, 10}, RGB16));
    add("fb.b", {0, 0, 10, 10}, RGB16);
    EXPECT_EQ(primary_output.requested_w, 320);
    EXPECT_EQ(primary_output.requested_h, 240);
}

TEST_F(DisplaySize, WhileNoSizeIsKnownNothingIsOnTheScreenAndNothingAborts)
{
    open_server(-1, -1);
    ImageSurface *surface = add_shown("x", {10, 20, 30, 40}, RGB16);
    EXPECT_EQ(surface->drawing_area, NOWHERE);
    fs_set_level_surface(server, surface, 1);
    fs_set_level_surface(server, surface, 2);
    fs_set_clip(server, surface, 5, 5, 100, 100);
    fs_move_surface(server, surface, 0, 0);
    settle_quietly();
    fs_rotate_display(server, 90);
    fs_rotate_display(server, 0);
    settle_quietly();
}

TEST_F(DisplaySize, WithOneDimensionOnlyTheRequestStays)
{
    for (const auto &[w, h] : {std::pair{320, -1}, {-1, 240}}) {
        open_server(w, h);
        ImageSurface *surface = add_shown("fb.a", {10, 20, 30, 40}, RGB16);
        EXPECT_EQ(primary_output.requested_w, w);
        EXPECT_EQ(primary_output.requested_h, h);
        EXPECT_EQ(server->w, w);
        EXPECT_EQ(server->h, h);
        EXPECT_EQ(server->native_w, w);
        EXPECT_EQ(server->native_h, h);
        EXPECT_EQ(surface->drawing_area, NOWHERE);
        fs_set_level_surface(server, surface, 1);
        fs_set_level_surface(server, surface, 2);
        fs_add_dirty(server, surface, 0, 0, 5, 5);
        settle_quietly();
        fs_hide_surface(server, surface);
        fs_remove_surface(server, surface);
        settle_quietly();
        close_server();
    }
}

// The same requests on a display whose size is given and on one that has it from the device end in the same state.
TEST_F(DisplaySize, ASizeFromTheDeviceIsLikeOneFromTheCommandLine)
{
    std::vector<std::string> states, pictures;
    for (const int32_t rotation : {0, 90}) {
        for (const bool given : {true, false}) {
            memory_outputs_reset();
            open_server(given ? 320 : -1, given ? 240 : -1);
            ImageSurface *early = add_shown("x", {200, 100, 200, 50}, RGB16, 3, rotation);
            ImageSurface *a = add_shown("fb.a", {0, 0, 100, 300}, XRGB32, 1, rotation);
            ImageSurface *b = add_shown("fb2.b", {-10, -10, 100, 100}, ARGB32, 2, rotation);
            paint(a, 0x123456);
            paint(b, 0x80402010);
            fs_set_clip(server, early, 0, 0, 250, 250);
            fs_move_surface(server, a, 150, 10);
            settle_quietly();
            fs_set_level_surface(server, early, 0);
            fs_hide_surface(server, a);
            settle_quietly();
            states.push_back(printed([this] { fs_dump_status(server); }));
            const auto bytes = primary_output.pixels->all();
            pictures.emplace_back(bytes.begin(), bytes.end());
            close_server();
        }
    }
    EXPECT_EQ(states[0], states[1]);
    EXPECT_EQ(states[2], states[3]);
    EXPECT_TRUE(pictures[0] == pictures[1]);
    EXPECT_TRUE(pictures[2] == pictures[3]);
    EXPECT_NE(states[0], states[2]);
}

} // namespace
