// SPDX-License-Identifier: MIT
// What the panel shows against pictures composed by pixman, bit for bit, surface by surface. Every server here is the
// real program, and the surfaces belong to several connections.
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

TEST(Picture32, PhotographAlone)
{
    RunningServer server;
    TestClient client("fb.photograph");
    const Pixels pixels = photograph();
    client.create(pixels, 0, 0, 0);
    client.send("show");
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(pixels, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Picture32, NarrowAndTranslucentSurfacesOverAPhotograph)
{
    RunningServer server;
    TestClient background("fb.photograph"), window("fb.window"), wide("fb.wide"), glass("fb.glass"), more("fb.more");
    const Pixels picture = photograph();
    const Pixels window_pixels = pixels_random(PixelFormat::RGB565, 71, 53, 2);
    const Pixels wide_pixels = pixels_random(PixelFormat::RGB666, 40, 33, 3);
    const Pixels glass_pixels = pixels_random(PixelFormat::ARGB, 97, 64, 4);
    const Pixels more_pixels = pixels_random(PixelFormat::ARGB, 60, 90, 5);
    background.create(picture, 0, 0, 0);
    window.create(window_pixels, 20, 15, 1);
    wide.create(wide_pixels, 75, 50, 2);
    glass.create(glass_pixels, 40, 30, 3);
    more.create(more_pixels, 10, 25, 4);
    show_together({&background, &window, &wide, &glass, &more});
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(picture, 0, 0);
    composer.draw(window_pixels, 20, 15);
    composer.draw(wide_pixels, 75, 50);
    composer.draw(glass_pixels, 40, 30);
    composer.draw(more_pixels, 10, 25);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// Each shown surface joins in a render of its own; a translucent one must not be laid over itself again when a
// neighbour is redrawn.
TEST(Picture32, OneAfterTheOtherMakesTheSamePicture)
{
    RunningServer server;
    TestClient background("fb.photograph"), window("fb.window"), glass("fb.glass");
    const Pixels picture = photograph();
    const Pixels window_pixels = pixels_random(PixelFormat::RGB565, 71, 53, 2);
    const Pixels glass_pixels = pixels_random(PixelFormat::ARGB, 97, 64, 4);
    PictureComposer composer(WIDTH, HEIGHT);
    background.create(picture, 0, 0, 0);
    background.send("show");
    composer.draw(picture, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    glass.create(glass_pixels, 40, 30, 2);
    glass.send("show");
    composer.draw(glass_pixels, 40, 30);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    window.create(window_pixels, 20, 15, 1);
    window.send("show");
    PictureComposer all(WIDTH, HEIGHT);
    all.draw(picture, 0, 0);
    all.draw(window_pixels, 20, 15);
    all.draw(glass_pixels, 40, 30);
    EXPECT_EQ(panel_shows(server.panel(), all.picture(32)), "");
    for (TestClient *client : {&glass, &window, &background})
        client->send("dirty", {0, 0, WIDTH, HEIGHT});
    for (TestClient *client : {&glass, &window, &background})
        client->settle();
    EXPECT_EQ(panel_shows(server.panel(), all.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Picture32, VeilAndFilledPlaneOverWhatTheSamePassDraws)
{
    RunningServer server;
    TestClient background("fb.photograph"), veil("fb.veil"), plane("fb.plane"), glass("fb.glass");
    const Pixels picture = photograph();
    const Pixels glass_pixels = pixels_random(PixelFormat::ARGB, 30, 100, 4);
    background.create(picture, 0, 0, 0);
    veil.create(pixels_new(PixelFormat::ARGB, 100, 80), 10, 12, 1);
    veil.send("color_plane", {0x60FFFFFF});
    plane.create(pixels_new(PixelFormat::ARGB, 50, 40), 80, 60, 2);
    plane.send("color_plane", {static_cast<int32_t>(0xFF3366CC)});
    glass.create(glass_pixels, 70, 10, 3);
    show_together({&background, &veil, &plane, &glass});
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(picture, 0, 0);
    composer.veil({10, 12, 100, 80}, 0x60);
    composer.fill({80, 60, 50, 40}, 0x3366CC);
    composer.draw(glass_pixels, 70, 10);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// The veil lies over a fresh copy of what is below at each redraw: it never gets darker.
TEST(Picture32, AVeilDoesNotDimTwice)
{
    RunningServer server;
    TestClient background("fb.photograph"), veil("fb.veil");
    const Pixels picture = photograph();
    background.create(picture, 0, 0, 0);
    background.send("show");
    veil.create(pixels_new(PixelFormat::ARGB, WIDTH, HEIGHT), 0, 0, 1);
    veil.send("color_plane", {0x40FFFFFF});
    veil.send("show");
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(picture, 0, 0);
    composer.veil({0, 0, WIDTH, HEIGHT}, 0x40);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    for (int i = 0; i < 5; i++) {
        background.send("dirty", {10 * i, 5, 40, 60});
        background.settle();
    }
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// What stands in the byte above the colours: that of the last surface which wrote the pixel.
TEST(Picture32, TopByteOfEachKindOfSurface)
{
    RunningServer server;
    TestClient background("fb.photograph"), window("fb.window"), plane("fb.plane"), veil("fb.veil");
    const Pixels picture = photograph();
    background.create(picture, 0, 0, 0);
    window.create(pixels_random(PixelFormat::RGB565, 20, 20, 2), 0, 0, 1);
    plane.create(pixels_new(PixelFormat::ARGB, 20, 20), 40, 0, 2);
    plane.send("color_plane", {static_cast<int32_t>(0xFF010203)});
    veil.create(pixels_new(PixelFormat::ARGB, 20, 20), 80, 0, 3);
    veil.send("color_plane", {static_cast<int32_t>(0x80FFFFFF)});
    show_together({&background, &window, &plane, &veil});
    EXPECT_EQ(server.panel().raw(10, 10) >> 24, 0u) << "a 16-bit surface clears it";
    EXPECT_EQ(server.panel().raw(50, 10), 0xFF010203u) << "a filled plane is stored as it was sent";
    EXPECT_EQ(server.panel().raw(90, 10) >> 24, 0u) << "a veil clears it";
    for (int x = 0; x < WIDTH; x++)
        ASSERT_EQ(server.panel().raw(x, 100), picture.at(x, 100)) << "a 32-bit surface without alpha brings its own";
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Picture32, ClipsCutSurfacesAndMoveWithNothing)
{
    RunningServer server;
    TestClient background("fb.photograph"), glass("fb.glass"), window("fb.window");
    const Pixels picture = photograph();
    const Pixels glass_pixels = pixels_random(PixelFormat::ARGB, 90, 70, 4);
    const Pixels window_pixels = pixels_random(PixelFormat::RGB565, 50, 50, 2);
    background.create(picture, 0, 0, 0);
    window.create(window_pixels, 60, 40, 1);
    glass.create(glass_pixels, 30, 20, 2);
    glass.send("set_clip", {50, 30, 40, 200});
    window.send("set_clip", {70, 50, 20, 15});
    show_together({&background, &window, &glass});
    const auto expected = [&](int glass_x, int glass_y) {
        PictureComposer composer(WIDTH, HEIGHT);
        composer.draw(picture, 0, 0);
        composer.set_clip({70, 50, 20, 15});
        composer.draw(window_pixels, 60, 40);
        composer.set_clip({50, 30, 40, 200});
        composer.draw(glass_pixels, glass_x, glass_y);
        return composer.picture(32);
    };
    EXPECT_EQ(panel_shows(server.panel(), expected(30, 20)), "");
    glass.send("move", {-15, 45}); // the clip stays where it is on the screen
    EXPECT_EQ(panel_shows(server.panel(), expected(-15, 45)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Picture32, LevelsMovesAndHides)
{
    RunningServer server;
    TestClient background("fb.photograph"), a("fb.a"), b("fb.b");
    const Pixels picture = photograph();
    const Pixels pixels_a = pixels_random(PixelFormat::RGB565, 60, 60, 2);
    const Pixels pixels_b = pixels_random(PixelFormat::XRGB, 60, 60, 3);
    background.create(picture, 0, 0, 0);
    a.create(pixels_a, 20, 20, 5);
    b.create(pixels_b, 50, 40, 5);
    const auto shows = [&](int ax, int ay, bool a_on_top, bool b_shown) {
        PictureComposer composer(WIDTH, HEIGHT);
        composer.draw(picture, 0, 0);
        if (!a_on_top)
            composer.draw(pixels_a, ax, ay);
        if (b_shown)
            composer.draw(pixels_b, 50, 40);
        if (a_on_top)
            composer.draw(pixels_a, ax, ay);
        return panel_shows(server.panel(), composer.picture(32));
    };
    b.native_depth();
    show_together({&background, &a, &b});
    EXPECT_EQ(shows(20, 20, false, true), "") << "the later of one level is on top";
    a.send("set_layer", {5});
    EXPECT_EQ(shows(20, 20, true, true), "") << "restacked to its own level it goes above the others";
    a.send("set_layer", {4});
    EXPECT_EQ(shows(20, 20, false, true), "");
    a.send("move", {130, -30}); // partly off the screen
    EXPECT_EQ(shows(130, -30, false, true), "");
    b.send("hide");
    EXPECT_EQ(shows(130, -30, false, false), "");
    a.send("move", {500, 500}); // wholly
    EXPECT_EQ(shows(500, 500, false, false), "");
    b.send("show");
    EXPECT_EQ(shows(500, 500, false, true), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Picture32, OpaqueAreaOfATranslucentSurface)
{
    RunningServer server;
    TestClient background("fb.photograph"), panel("fb.panel");
    const Pixels picture = photograph();
    Pixels pixels = pixels_random(PixelFormat::ARGB, 80, 60, 6);
    for (int y = 10; y < 40; y++) {
        for (int x = 5; x < 75; x++)
            pixels.set(x, y, pixels.at(x, y) | 0xFF000000);
    }
    background.create(picture, 0, 0, 0);
    panel.create(pixels, 30, 12, 1);
    panel.send("opaque_area", {5, 10, 70, 30});
    show_together({&background, &panel});
    for (const auto &[x, y] : {std::pair{30, 12}, {12, 30}, {60, 60}}) {
        panel.send("move", {x, y});
        PictureComposer composer(WIDTH, HEIGHT);
        composer.draw(picture, 0, 0);
        composer.draw(pixels, x, y);
        EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "") << x << ", " << y;
        panel.send("dirty", {5, 10, 70, 30}); // drawn wholly inside the opaque area
        panel.settle();
        EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "") << x << ", " << y;
    }
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Picture32, DirtyRectanglesBringOnlyThemselves)
{
    RunningServer server;
    TestClient background("fb.photograph");
    const Pixels before = photograph(1);
    const Pixels after = photograph(2);
    background.create(before, 0, 0, 0);
    background.send("show");
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(before, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    background.draw(after);
    background.send("dirty", {30, 20, 17, 5});
    background.send("dirty", {100, 90, 1, 1});
    background.send("dirty", {150, 110, 100000, INT32_MAX}); // saturates instead of wrapping
    for (const ComposerRect &area : {ComposerRect{30, 20, 17, 5}, {100, 90, 1, 1}, {150, 110, 100, 100}}) {
        composer.set_clip(area);
        composer.draw(after, 0, 0);
        composer.clear_clip();
    }
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    background.settle();
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
