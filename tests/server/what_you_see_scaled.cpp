// SPDX-License-Identifier: MIT
// Surfaces that are shown stretched or shrunk.
#include "what_you_see.h"

#include <algorithm>
#include <csignal>

namespace {

// The nearest pixel of the source, or with `late` the one before where a pixel of the source begins.
Pixels nearest(const Pixels &pixels, int width, int height, bool late)
{
    Pixels scaled = pixels_new(pixels.format, width, height);
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++) {
            const int reached = x * pixels.width - (late && x > 0 ? 1 : 0);
            scaled.set(x, y, pixels.at(reached / width, y * pixels.height / height));
        }
    }
    return scaled;
}

// Nothing but the place has changed, and fewer than half of its pixels are what they should be.
bool is_noise(const Picture &seen, const Picture &before, const std::vector<Picture> &expected)
{
    int right = 0;
    int changed = 0;
    for (int y = 0; y < seen.height; y++) {
        for (int x = 0; x < seen.width; x++) {
            const auto is_like = [&](const Picture &picture) { return picture.at(x, y) == seen.at(x, y); };
            if (std::all_of(expected.begin(), expected.end(),
                            [&](const Picture &picture) { return picture.at(x, y) == before.at(x, y); })) {
                if (!is_like(before))
                    return false;
                continue;
            }
            changed++;
            right += std::any_of(expected.begin(), expected.end(), is_like) ? 1 : 0;
        }
    }
    return right * 2 < changed;
}

// A surface of `width` x `height` pixels, shown in `place`.
std::string see_scaled(const SurfaceKind &kind, const Column &column, int width, int height, const ComposerRect &place)
{
    Stage stage(column.panel);
    const Pixels pixels = pixels_random(kind.format, width, height, 2);
    const Picture before = stage.picture();
    stage.surface().create(pixels, 0, 0, 0);
    stage.surface().send("set_scale", {0, 0, width, height, place.x, place.y, place.width, place.height});
    stage.show(Company::WITH_OTHERS);
    std::vector<Picture> expected;
    for (const Colours &way : colours_of(pixels, stage.depth(), Company::WITH_OTHERS)) {
        for (const bool late : {false, true}) {
            expected.push_back(stage.composed([&](PictureComposer &composer) {
                composer.draw(nearest(pixels, place.width, place.height, late), place.x, place.y, way.ignore_alpha);
            }));
            stage.may_show((late ? "nearest pixel, one late" : "nearest pixel") + (COLOURS + way.words),
                           expected.back());
        }
    }
    std::string seen = stage.look();
    if (seen == UNKNOWN_SIGHT && is_noise(stage.picture(), before, expected))
        seen = "noise";
    EXPECT_EQ(stage.stop(), 0);
    return without_colours(seen, kind.name, std::string(column.name) + ", with others");
}

std::string see_stretched_and_shrunk(const SurfaceKind &kind, const Column &column)
{
    const std::string stretched = see_scaled(kind, column, PLACE.width / 2, PLACE.height / 2, PLACE);
    const std::string shrunk = see_scaled(kind, column, PLACE.width * 2, PLACE.height * 2, PLACE);
    return stretched == shrunk ? stretched : stretched + " or " + shrunk;
}

} // namespace

Table scaled_table()
{
    Table table{"scaled", "surface", {}, columns_of_panels()};
    for (const SurfaceKind &kind : SURFACE_KINDS)
        table.rows.push_back(
            {kind.name, [kind](const Column &column) { return see_stretched_and_shrunk(kind, column); }});
    return table;
}

// A part that is reported alone starts counting its pixels anew.
TEST(WhatYouSeeScaled, APictureOf32BitsThatIsReportedWholeHasNoSeams)
{
    Stage stage("xrgb8888");
    const Pixels first = pixels_random(PixelFormat::XRGB, PLACE.width / 2, PLACE.height / 2, 2);
    const Pixels second = pixels_random(PixelFormat::XRGB, PLACE.width / 2, PLACE.height / 2, 3);
    stage.surface().create(first, 0, 0, 0);
    stage.surface().send("set_scale", {0, 0, first.width, first.height, PLACE.x, PLACE.y, PLACE.width, PLACE.height});
    stage.surface().send("show");
    stage.surface().settle();
    stage.surface().draw(second);
    stage.may_show("the new picture", [&](PictureComposer &composer) {
        composer.draw(nearest(second, PLACE.width, PLACE.height, true), PLACE.x, PLACE.y);
    });
    for (const int x : {0, first.width / 2})
        stage.surface().send("dirty", {x, 0, first.width / 2, first.height});
    stage.surface().settle();
    stage.surface().send("dirty", {first.width / 2, 0, first.width / 2, first.height});
    EXPECT_NE(stage.look(), "the new picture");
    stage.surface().send("dirty", {0, 0, first.width, first.height});
    EXPECT_EQ(stage.look(), "the new picture");
    EXPECT_EQ(stage.stop(), 0);
}
