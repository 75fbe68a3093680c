// SPDX-License-Identifier: MIT
// `pfbctl shot` against pictures that pixman composes: every depth of panel, rows with padding, turned displays.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/stat.h>

#include "../support/test_client.h"
#include "ctl_support.h"

namespace {

constexpr int WIDTH = 160;
constexpr int HEIGHT = 120;

struct PanelKind {
    const char *format;
    int depth;
    int bytes; // per pixel
};

constexpr PanelKind PANELS[] = {{"rgb565", 16, 2}, {"rgb666", 18, 4}, {"xrgb8888", 32, 4}};

const Pixels PHOTOGRAPH = pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 1);
const Pixels WINDOW = pixels_random(PixelFormat::XRGB, 71, 53, 2);

void create(TestClient &client, const Pixels &pixels, int x, int y, int level, int rotation)
{
    client.create({.x = x,
                   .y = y,
                   .width = pixels.width,
                   .height = pixels.height,
                   .depth = 32,
                   .level = level,
                   .rotation = rotation});
    client.draw(pixels);
}

// A photograph with a window over it, as the viewer sees them.
Picture scene(int depth)
{
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(PHOTOGRAPH, 0, 0);
    composer.draw(WINDOW, 20, 33);
    return composer.picture(depth);
}

void show_scene(TestClient &background, TestClient &window, int rotation)
{
    create(background, PHOTOGRAPH, 0, 0, 0, rotation);
    create(window, WINDOW, 20, 33, 1, rotation);
    show_together({&background, &window});
    window.settle();
}

} // namespace

TEST(Shot, EveryDepthWithAndWithoutPaddedRows)
{
    for (const PanelKind &kind : PANELS) {
        for (const int padding : {0, 64}) {
            SCOPED_TRACE(std::string(kind.format) + " padded by " + std::to_string(padding));
            RunningServer server(
                {.format = kind.format, .panel = {"--stride", std::to_string(WIDTH * kind.bytes + padding)}});
            TestClient background("fb.background"), window("fb.window");
            show_scene(background, window, 0);
            EXPECT_EQ(picture_difference(shot(server, {}), widened(scene(kind.depth), kind.depth)), "");
            EXPECT_EQ(server.stop(SIGTERM), 0);
        }
    }
}

TEST(Shot, ATurnedDisplayComesOutUpright)
{
    for (const PanelKind &kind : {PANELS[0], PANELS[1]}) {
        for (const int padding : {0, 64}) {
            SCOPED_TRACE(std::string(kind.format) + " padded by " + std::to_string(padding));
            RunningServer server({.size = "120x160",
                                  .format = kind.format,
                                  .panel = {"--stride", std::to_string(HEIGHT * kind.bytes + padding)}});
            TestClient background("fb.background"), window("fb.window");
            show_scene(background, window, 90);
            EXPECT_EQ(picture_difference(shot(server, {"--rotation", "90"}), widened(scene(kind.depth), kind.depth)),
                      "");
            EXPECT_EQ(server.stop(SIGTERM), 0);
        }
    }
}

// 90 and 270 degrees are half a turn apart.
TEST(Shot, TwoHundredAndSeventyDegrees)
{
    RunningServer server;
    TestClient background("fb.background"), window("fb.window");
    show_scene(background, window, 0);
    const Picture plain = shot(server, {}), right = shot(server, {"--rotation", "90"}),
                  left = shot(server, {"--rotation", "270"});
    ASSERT_EQ(left.width, HEIGHT);
    ASSERT_EQ(left.height, WIDTH);
    EXPECT_EQ(left.at(0, 0), plain.at(0, HEIGHT - 1));
    EXPECT_EQ(right.at(0, 0), plain.at(WIDTH - 1, 0));
    Picture half_turned = right;
    std::reverse(half_turned.pixels.begin(), half_turned.pixels.end());
    EXPECT_EQ(picture_difference(left, half_turned), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Shot, WhatGoesWrongIsSaid)
{
    RunningServer server;
    const auto run = [&](const Words &words, int status, const std::string &message) {
        const ProgramResult result = ctl(server, words);
        EXPECT_EQ(result.status, status) << testing::PrintToString(words);
        EXPECT_EQ(result.err, "pfbctl shot: " + message + "\n");
    };
    run({"shot"}, 2, "shot takes one file name (see --help)");
    run({"shot", "a", "b"}, 2, "shot takes one file name (see --help)");
    run({"shot", "a", "--rotation", "45"}, 2, "--rotation takes 0, 90 or 270");
    run({"shot", "a", "--name", "none"}, 1, "no panel none is running");
    const std::string nowhere = server.folder() + "/none/a.png";
    run({"shot", nowhere}, 1, nowhere + ": No such file or directory");
    EXPECT_FALSE(file_exists("a"));
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
