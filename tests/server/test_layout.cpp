// SPDX-License-Identifier: MIT
// Strides and sizes of surfaces and panels, and what stays where nobody draws.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "../support/composer.h"
#include "../support/running_server.h"
#include "../support/test_client.h"

namespace {

constexpr int WIDTH = 160;
constexpr int HEIGHT = 120;

Pixels photograph(uint32_t seed = 1)
{
    return pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, seed);
}

} // namespace

TEST(PictureLayout, PaddedStridesOfSurfacesAndPanel)
{
    for (const char *format : {"xrgb8888", "rgb565", "rgb666"}) {
        RunningServer server({.format = format, .panel = {"--stride", "704"}});
        const int depth = server.panel().depth();
        ASSERT_EQ(server.panel().stride(), 704u);
        const size_t row = WIDTH * (depth == 16 ? 2u : 4u);
        for (int y = 0; y < HEIGHT; y++)
            memset(const_cast<uint8_t *>(server.panel().memory()) + static_cast<size_t>(y) * 704 + row, 0xA5,
                   704 - row);
        TestClient background("fb.photograph"), window("fb.window");
        const Pixels picture = pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 1, 12);
        const Pixels window_pixels = pixels_random(PixelFormat::RGB565, 51, 40, 2, 6);
        background.create(picture, 0, 0, 0);
        window.create(window_pixels, 30, 20, 1);
        show_together({&background, &window});
        PictureComposer composer(WIDTH, HEIGHT);
        composer.draw(picture, 0, 0);
        composer.draw(window_pixels, 30, 20);
        EXPECT_EQ(panel_shows(server.panel(), composer.picture(depth)), "") << format;
        size_t spoilt = 0;
        for (int y = 0; y < HEIGHT; y++) {
            for (size_t i = row; i < 704; i++)
                spoilt += server.panel().memory()[static_cast<size_t>(y) * 704 + i] != 0xA5;
        }
        EXPECT_EQ(spoilt, 0u) << format << ": bytes between the rows were written";
        EXPECT_EQ(server.stop(SIGTERM), 0);
    }
}

TEST(PictureLayout, SizeOfTheCommandLineBoundsThePicture)
{
    RunningServer server({.server = {"100", "70"}});
    TestClient client("fb.photograph");
    const Pixels pixels = photograph();
    client.create(pixels, 0, 0, 0);
    client.send("show");
    PictureComposer composer(WIDTH, HEIGHT);
    composer.set_clip({0, 0, 100, 70});
    composer.draw(pixels, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_NE(server.out().find("width = 100 height = 70 depth = 32 stride = 640\n"), std::string::npos);
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(PictureLayout, WithoutASizeTheDevicesOwnIsUsed)
{
    RunningServer server;
    TestClient client("fb.photograph"), later("fb.later");
    const Pixels pixels = pixels_photograph(PixelFormat::XRGB, 400, 300, 1); // larger than the panel
    client.create(pixels, -20, -10, 0);
    client.send("show");
    client.native_depth();
    later.create(pixels, 100, 90, 1);
    later.send("show");
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(pixels, -20, -10);
    composer.draw(pixels, 100, 90);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_NE(server.out().find("screen info is\nwidth = 160 height = 120 depth = 32 stride = 640\n"
                                "colormask = red:00ff0000, green:0000ff00, blue:000000ff, alpha:00000000, "
                                "has_alph = 0\npixel unit: 4 bytes, byte order: LSB\n"),
              std::string::npos)
        << server.out();
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// ---- a panel that shows an earlier picture where nothing overwrites it ----

TEST(PictureLeftovers, WhatNobodyCoversStays)
{
    RunningServer server;
    TestClient client("fb.photograph"), other("fb.other");
    const Pixels pixels = pixels_photograph(PixelFormat::XRGB, 60, 60, 1);
    client.create(pixels, 10, 10, 0);
    client.send("show");
    client.settle();
    client.send("hide");
    client.settle();
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(pixels, 10, 10);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "") << "hidden, but nothing lies below";
    const Pixels cover = pixels_photograph(PixelFormat::XRGB, 30, 30, 2);
    other.create(cover, 0, 0, 0);
    other.send("show");
    composer.draw(cover, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "") << "overwritten where another is shown";
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// Surfaces of 16 bits went straight to the panel. Their places wait as damage once they are hidden, and what the
// server keeps of them for composing must not come to light with the next picture.
TEST(PictureLeftovers, WhatADirectSurfaceLeftStaysToo)
{
    RunningServer server;
    TestClient left("fb.left"), right("fb.right");
    const Pixels left_pixels = pixels_random(PixelFormat::RGB565, 50, 50, 1);
    const Pixels right_pixels = pixels_random(PixelFormat::RGB565, 50, 50, 2);
    left.create(left_pixels, 0, 0, 0);
    right.create(right_pixels, 60, 0, 0);
    show_together({&left, &right});
    left.send("hide");
    left.settle();
    right.send("dirty", {0, 0, 50, 50});
    right.settle();
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(left_pixels, 0, 0);
    composer.draw(right_pixels, 60, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(PictureLeftovers, TheLastSurfaceOfAnOutputLeavesItBlack)
{
    RunningServer server;
    TestClient watcher("x.watcher");
    const Pixels pixels = photograph();
    {
        TestClient client("fb.photograph");
        client.create(pixels, 0, 0, 0);
        client.send("show");
        client.settle();
        EXPECT_FALSE(server.panel().is_black());
    }
    EXPECT_TRUE(wait_until([&] { return server.panel().is_black(); }));
    EXPECT_TRUE(server.panel().console_in_graphics_mode());
    TestClient next("fb.next");
    next.create(pixels, 0, 0, 0);
    next.send("show");
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(pixels, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "") << "the output is opened again";
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
