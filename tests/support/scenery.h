// SPDX-License-Identifier: MIT
#pragma once

#include <gtest/gtest.h>

#include "composer.h"
#include "running_server.h"
#include "test_client.h"

inline constexpr int SCENERY_WIDTH = 160;
inline constexpr int SCENERY_HEIGHT = 120;

// A server that shows a background and a translucent window of two clients, and what must stay.
struct Scenery {
    explicit Scenery(const ServerOptions &options = {})
        : server(options), background("fb.background"), glass("fb.glass"), composer(SCENERY_WIDTH, SCENERY_HEIGHT)
    {
        const Pixels picture = pixels_photograph(PixelFormat::XRGB, SCENERY_WIDTH, SCENERY_HEIGHT, 1);
        const Pixels glass_pixels = pixels_random(PixelFormat::ARGB, 60, 50, 2);
        background.create(picture, 0, 0, 0);
        background.send("show");
        background.native_depth();
        glass.create(glass_pixels, 30, 20, 10);
        glass.send("show");
        glass.native_depth();
        composer.draw(picture, 0, 0);
        composer.draw(glass_pixels, 30, 20);
        EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    }

    // Everybody is heard, everything due is drawn, and the picture is as it was.
    void expect_unchanged()
    {
        EXPECT_TRUE(background.is_connected());
        glass.settle();
        EXPECT_EQ(picture_difference(server.panel().picture(), composer.picture(32)), "");
    }

    RunningServer server;
    TestClient background, glass;
    PictureComposer composer;
};
