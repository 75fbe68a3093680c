// SPDX-License-Identifier: MIT
// Turned panels: which surfaces stand as the client asked for, and the ways around where they do not.
#include "what_you_see.h"

#include <csignal>

namespace {

constexpr ComposerRect TURNED_PLACE{8, 14, 30, 38}; // on the turned screen

// Panels of 16 and 18 bits turn what was drawn with others; all others show it as it stands.
bool turns(int depth, int rotation)
{
    return rotation == 90 && depth != 32;
}

// Puts an area of the screen's picture onto the panel: turned by 90 degrees, or as it stands.
void put(Picture *panel, const Picture &screen, const ComposerRect &area, bool turned)
{
    for (int y = area.y; y < area.y + area.height; y++) {
        for (int x = area.x; x < area.x + area.width; x++) {
            const int px = turned ? panel->width - 1 - y : x;
            const int py = turned ? x : y;
            if (px < panel->width && py < panel->height)
                panel->at(px, py) = screen.at(x, y);
        }
    }
}

// What the panel shows of the picture below.
Picture panel_below(const Stage &stage)
{
    Picture panel{PANEL_WIDTH, PANEL_HEIGHT, std::vector<uint32_t>(PANEL_WIDTH * PANEL_HEIGHT, 0)};
    put(&panel, stage.composed([](PictureComposer &) {}), {0, 0, stage.width(), stage.height()},
        turns(stage.depth(), stage.rotation()));
    return panel;
}

// The area is turned where everything is composed, over what stands there, and then turned onto the panel. Composed
// rows are 4 bytes x the screen's width long, so that rows of 2-byte pixels have room beside the screen.
Picture turned_twice(const Stage &stage, const Picture &screen, const ComposerRect &area)
{
    const Picture below = stage.composed([](PictureComposer &) {});
    const int pitch = stage.width() * (stage.depth() == 16 ? 2 : 1);
    std::vector<uint32_t> work(static_cast<size_t>(pitch * (stage.height() + 1)), 0);
    const auto at = [&](int x, int y) -> uint32_t & { return work[static_cast<size_t>(y * pitch + x)]; };
    for (int y = 0; y < stage.height(); y++) {
        for (int x = 0; x < stage.width(); x++)
            at(x, y) = below.at(x, y);
    }
    for (int x = area.x; x < area.x + area.width; x++) {
        for (int y = area.y + area.height - 1; y >= area.y; y--)
            at(PANEL_WIDTH - 1 - y, x) = screen.at(x, y);
    }
    Picture composed = below;
    for (int y = area.y; y < area.y + area.height; y++) {
        for (int x = area.x; x < area.x + area.width; x++)
            composed.at(x, y) = at(x, y);
    }
    Picture panel = panel_below(stage);
    put(&panel, composed, area, true);
    return panel;
}

Picture with(Picture panel, const Picture &screen, const ComposerRect &area, bool turned)
{
    put(&panel, screen, area, turned);
    return panel;
}

// Each place and turn that the picture could have, in each treatment of its colours.
void expect_sights(Stage *stage, const Pixels &pixels, Company company)
{
    for (const Colours &way : colours_of(pixels, stage->depth(), company)) {
        const Picture screen = stage->composed([&](PictureComposer &composer) {
            composer.draw(pixels, TURNED_PLACE.x, TURNED_PLACE.y, way.ignore_alpha);
        });
        const Picture below = panel_below(*stage);
        const std::string words = COLOURS + way.words;
        stage->may_show("as asked for" + words, with(below, screen, TURNED_PLACE, true));
        stage->may_show("not turned" + words, with(below, screen, TURNED_PLACE, false));
        stage->may_show("turned twice" + words, turned_twice(*stage, screen, TURNED_PLACE));
    }
}

// The place and turn. The colours have to be those of the upright table.
std::string see_turned(const SurfaceKind &kind, const Column &column, int rotation)
{
    Stage stage(column.panel, rotation);
    EXPECT_TRUE(stage.picture() == panel_below(stage)) << "the picture below is another one";
    const Pixels pixels = pixels_random(kind.format, TURNED_PLACE.width, TURNED_PLACE.height, 2);
    if (column.company == Company::ALONE)
        stage.hide_below();
    stage.surface().create(pixels, TURNED_PLACE.x, TURNED_PLACE.y, 0, rotation);
    stage.show(column.company);
    expect_sights(&stage, pixels, column.company);
    const std::string seen = stage.look();
    EXPECT_EQ(stage.stop(), 0);
    return without_colours(seen, kind.name, column.name);
}

std::string see_at_270(const SurfaceKind &kind, const Column &column)
{
    std::string seen;
    for (const Column &each : columns_with_company()) {
        if (std::string(each.panel) != column.panel)
            continue;
        const std::string one = see_turned(kind, each, 270);
        if (one != seen)
            seen += (seen.empty() ? "" : " or ") + one;
    }
    return seen;
}

} // namespace

Table turned_by_90_table()
{
    Table table{"turned by 90", "surface", {}, columns_with_company()};
    for (const SurfaceKind &kind : SURFACE_KINDS)
        table.rows.push_back({kind.name, [kind](const Column &column) { return see_turned(kind, column, 90); }});
    return table;
}

Table turned_by_270_table()
{
    Table table{"turned by 270", "surface", {}, columns_of_panels()};
    for (const SurfaceKind &kind : SURFACE_KINDS)
        table.rows.push_back({kind.name, [kind](const Column &column) { return see_at_270(kind, column); }});
    return table;
}

namespace {

// ---- the ways around ----

const Pixels GROUND = pixels_photograph(PixelFormat::XRGB, PANEL_HEIGHT, PANEL_WIDTH, 7);

// Two surfaces of the whole screen, of which the upper one hides nothing: the way around on panels of 16 and 18 bits.
class TwoGrounds {
public:
    explicit TwoGrounds(const char *format)
        : server_({.size = "64x48", .format = format}), ground_("fb.ground"), background_("fb.background"),
          surface_("fb.surface")
    {
        ground_.create(pixels_filled(PixelFormat::XRGB, PANEL_HEIGHT, PANEL_WIDTH, 0), 0, 0, -2, 90);
        ground_.send("show");
        ground_.settle();
        background_.create(GROUND, 0, 0, -1, 90);
        background_.send("opaque_area", {0, 0, 0, 0});
        background_.send("show");
        background_.settle();
    }
    TestClient &surface() { return surface_; }
    TestClient &background() { return background_; }
    int stop() { return server_.stop(SIGTERM); }

    void expect_turned(const std::function<void(PictureComposer &)> &draw)
    {
        surface_.settle();
        PictureComposer composer(PANEL_HEIGHT, PANEL_WIDTH);
        composer.draw(GROUND, 0, 0);
        draw(composer);
        Picture panel{PANEL_WIDTH, PANEL_HEIGHT, std::vector<uint32_t>(PANEL_WIDTH * PANEL_HEIGHT, 0)};
        put(&panel, composer.picture(server_.panel().depth()), {0, 0, PANEL_HEIGHT, PANEL_WIDTH}, true);
        EXPECT_EQ(picture_difference(server_.panel().picture(), panel), "");
    }

private:
    RunningServer server_;
    TestClient ground_, background_, surface_;
};

void draw_hide_and_move(TwoGrounds *grounds, PixelFormat format)
{
    const Pixels first = pixels_random(format, 20, 25, 4);
    const Pixels second = pixels_random(format, 20, 25, 5);
    TestClient &surface = grounds->surface();
    surface.create(first, 8, 14, 0, 90);
    surface.send("opaque_area", {0, 0, 0, 0});
    grounds->expect_turned([](PictureComposer &) {});
    surface.send("show");
    grounds->expect_turned([&](PictureComposer &composer) { composer.draw(first, 8, 14, true); });
    surface.draw(second);
    surface.send("dirty", {0, 0, 20, 25});
    grounds->expect_turned([&](PictureComposer &composer) { composer.draw(second, 8, 14, true); });
    surface.send("move", {20, 30});
    grounds->expect_turned([&](PictureComposer &composer) { composer.draw(second, 20, 30, true); });
    grounds->background().send("dirty", {0, 0, 1, 1});
    grounds->background().settle();
    surface.send("hide");
    grounds->expect_turned([](PictureComposer &) {});
}

struct WayAround {
    const char *panel;
    PixelFormat format;
};

constexpr WayAround SERVED[] = {
    {"rgb565", PixelFormat::RGB565}, {"rgb565", PixelFormat::XRGB}, {"rgb565", PixelFormat::ARGB},
    {"rgb666", PixelFormat::RGB666}, {"rgb666", PixelFormat::XRGB}, {"rgb666", PixelFormat::ARGB},
};

} // namespace

TEST(WhatYouSeeTurned, OverTwoGroundsEverythingStandsAsAskedFor)
{
    for (const WayAround &way : SERVED) {
        SCOPED_TRACE(std::string(way.panel) + ", format " + std::to_string(static_cast<int>(way.format)));
        TwoGrounds grounds(way.panel);
        draw_hide_and_move(&grounds, way.format);
        EXPECT_EQ(grounds.stop(), 0);
    }
}

// One background is not enough: what is opaque over it is alone in its pass.
TEST(WhatYouSeeTurned, AnOpaqueSurfaceOverABackgroundIsAloneAgain)
{
    Stage stage("rgb565", 90);
    const Pixels pixels = pixels_random(PixelFormat::XRGB, TURNED_PLACE.width, TURNED_PLACE.height, 2);
    stage.surface().create(pixels, TURNED_PLACE.x, TURNED_PLACE.y, 1, 90);
    stage.surface().send("show");
    expect_sights(&stage, pixels, Company::ALONE);
    EXPECT_EQ(stage.look().rfind("turned twice", 0), 0u);
    EXPECT_EQ(stage.stop(), 0);
}

namespace {

// The panel's place of the pixel at (x, y) of the screen that the viewer sees.
using PanelPoint = std::pair<int, int> (*)(int x, int y);

std::pair<int, int> point_at_90(int x, int y)
{
    return {PANEL_WIDTH - 1 - y, x};
}

std::pair<int, int> point_at_270(int x, int y)
{
    return {y, PANEL_HEIGHT - 1 - x};
}

void expect_turned_by_the_program(const char *format, PanelPoint point)
{
    const Pixels picture = pixels_random(PixelFormat::RGB565, PANEL_HEIGHT, PANEL_WIDTH, 6);
    Pixels turned = pixels_new(PixelFormat::RGB565, PANEL_WIDTH, PANEL_HEIGHT);
    PictureComposer composer(PANEL_HEIGHT, PANEL_WIDTH);
    composer.draw(picture, 0, 0);
    RunningServer server({.size = "64x48", .format = format});
    const Picture screen = composer.picture(server.panel().depth());
    Picture panel{PANEL_WIDTH, PANEL_HEIGHT, std::vector<uint32_t>(PANEL_WIDTH * PANEL_HEIGHT, 0)};
    for (int y = 0; y < PANEL_WIDTH; y++) {
        for (int x = 0; x < PANEL_HEIGHT; x++) {
            const auto [px, py] = point(x, y);
            turned.set(px, py, picture.at(x, y));
            panel.at(px, py) = screen.at(x, y);
        }
    }
    TestClient client("fb.a");
    client.create(turned, 0, 0, 0);
    client.send("show");
    client.settle();
    EXPECT_EQ(picture_difference(server.panel().picture(), panel), "") << format;
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

} // namespace

TEST(WhatYouSeeTurned, WhatTheProgramTurnsItselfStandsOnEveryPanelAsDrawn)
{
    for (const Column &column : columns_of_panels()) {
        expect_turned_by_the_program(column.panel, point_at_90);
        expect_turned_by_the_program(column.panel, point_at_270);
    }
}
