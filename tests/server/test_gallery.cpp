// SPDX-License-Identifier: MIT
// The scenes of docs/gallery.md: one for each thing that the display can do. See tests/support/gallery/stage.h for how
// they are looked at.
#include <gtest/gtest.h>

#include <algorithm>

#include "../support/composer.h"
#include "../support/gallery/art.h"
#include "../support/gallery/page.h"
#include "../support/gallery/stage.h"

namespace {

constexpr uint32_t BLUE = 0xFF2F6DB5, RED = 0xFFC8553D, GREEN = 0xFF2F7D6B;

void background(GalleryStage &stage, GalleryClient &client)
{
    client.create(PFB_FORMAT_XRGB32, 0, 0, stage.width(), stage.height(), 0);
    client.draw("draw_evening", art_evening(stage.width(), stage.height()));
    client.show();
}

// ---- stacking and shape ----

void levels(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), one(stage, "one"), two(stage, "two"), three(stage, "three");
    background(stage, evening);
    one.create(PFB_FORMAT_XRGB32, 30, 16, 130, 96, 1);
    two.create(PFB_FORMAT_XRGB32, 95, 52, 130, 96, 2);
    three.create(PFB_FORMAT_XRGB32, 160, 88, 130, 96, 3);
    one.draw("draw_card_1", art_card(130, 96, BLUE, "1"));
    two.draw("draw_card_2", art_card(130, 96, RED, "2"));
    three.draw("draw_card_3", art_card(130, 96, GREEN, "3"));
    one.show();
    two.show();
    three.show();
    stage.picture();
    two.set_layer(3);
    stage.picture();
}

void clip(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), gauge(stage, "gauge");
    evening.create(PFB_FORMAT_XRGB32, 0, 0, 320, 200, 0);
    Canvas marked = art_evening(320, 200);
    draw_frame(marked, 97, 47, 126, 86, 3, 0xFFFFFFFF);
    evening.draw("draw_evening_and_white_frame", marked);
    evening.show();
    gauge.create(PFB_FORMAT_XRGB32, 80, 20, 160, 140, 1);
    gauge.draw("draw_gauge", art_gauge(160, 140, 11));
    gauge.set_clip(100, 50, 120, 80);
    gauge.show();
    stage.picture();
    gauge.move(140, 60);
    stage.picture();
}

void scale(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), own(stage, "own"), twice(stage, "twice"), half(stage, "half"),
        part(stage, "part");
    background(stage, evening);
    for (GalleryClient *client : {&own, &twice, &half, &part}) {
        client->create(PFB_FORMAT_XRGB32, 20, 68, 64, 64, 1);
        client->draw("draw_cup", art_icon(64));
    }
    twice.set_scale(0, 0, 64, 64, 98, 36, 128, 128);
    half.set_scale(0, 0, 64, 64, 256, 36, 32, 32);
    part.set_scale(30, 20, 24, 27, 242, 92, 64, 72);
    for (GalleryClient *client : {&own, &twice, &half, &part})
        client->show();
    stage.picture();
}

// ---- what lies below ----

void alpha(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), glass(stage, "glass");
    background(stage, evening);
    glass.create(PFB_FORMAT_ARGB32, 50, 45, 220, 110, 1);
    glass.draw("draw_glass", art_glass(220, 110));
    glass.show();
    stage.picture();
}

void opaque(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), window(stage, "window");
    background(stage, evening);
    window.create(PFB_FORMAT_ARGB32, 50, 36, 220, 128, 1);
    window.draw("draw_clock_in_a_glass_frame", art_frame(220, 128));
    window.set_opaque_area(14, 14, 192, 100);
    window.show();
    stage.picture();
}

void opaque_lie(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), glass(stage, "glass");
    background(stage, evening);
    glass.create(PFB_FORMAT_ARGB32, 50, 45, 220, 110, 1);
    glass.draw("draw_glass", art_glass(220, 110));
    glass.show();
    stage.pass();
    glass.set_opaque_area(0, 0, 110, 110);
    evening.draw("draw_night", art_night(320, 200));
    evening.dirty(0, 0, 320, 200);
    stage.picture();
}

void veil(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), light(stage, "light"), heavy(stage, "heavy"), black(stage, "black");
    background(stage, evening);
    light.create(PFB_FORMAT_ARGB32, 80, 0, 80, 200, 1);
    heavy.create(PFB_FORMAT_ARGB32, 160, 0, 80, 200, 1);
    black.create(PFB_FORMAT_ARGB32, 240, 0, 80, 200, 1);
    light.set_color_plane(PFB_PLANE_VEIL(160), "PFB_PLANE_VEIL(160)");
    heavy.set_color_plane(PFB_PLANE_VEIL(64), "PFB_PLANE_VEIL(64)");
    black.set_color_plane(PFB_PLANE_VEIL(0), "PFB_PLANE_VEIL(0)");
    light.show();
    heavy.show();
    black.show();
    stage.picture();
}

void dialog(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), veil(stage, "veil"), question(stage, "question");
    background(stage, evening);
    veil.create(PFB_FORMAT_ARGB32, 0, 0, 320, 200, 1);
    veil.set_color_plane(PFB_PLANE_VEIL(80), "PFB_PLANE_VEIL(80)");
    veil.show();
    question.create(PFB_FORMAT_ARGB32, 40, 70, 240, 60, 2);
    question.draw("draw_buttons", art_menu(240, 60));
    question.show();
    stage.picture();
}

void color_plane(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), side(stage, "side"), gauge(stage, "gauge");
    background(stage, evening);
    side.create(PFB_FORMAT_ARGB32, 0, 0, 130, 200, 1);
    side.set_color_plane(PFB_PLANE_COLOR(0xC8553D), "PFB_PLANE_COLOR(0xC8553D)");
    side.show();
    gauge.create(PFB_FORMAT_XRGB32, 12, 50, 106, 100, 2);
    gauge.draw("draw_gauge", art_gauge(106, 100, 5));
    gauge.show();
    stage.picture();
}

void wander(GalleryStage &stage, GalleryClient &card)
{
    card.create(PFB_FORMAT_XRGB32, 24, 16, 130, 96, 1);
    card.draw("draw_card_1", art_card(130, 96, BLUE, "1"));
    card.show();
    stage.pass();
    card.move(92, 50);
    stage.pass();
    card.move(160, 84);
}

void leftovers(GalleryStage &stage)
{
    GalleryClient card(stage, "card");
    wander(stage, card);
    stage.pass();
    card.hide();
    stage.picture();
}

void no_leftovers(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), card(stage, "card");
    background(stage, evening);
    wander(stage, card);
    stage.picture();
    card.hide();
    stage.picture();
}

void second_layer(GalleryStage &stage)
{
    GalleryClient evening(stage, "evening"), gauge(stage, "gauge"), glass(stage, "fb2.glass"),
        buttons(stage, "fb2.buttons");
    background(stage, evening);
    gauge.create(PFB_FORMAT_XRGB32, 16, 14, 140, 124, 1);
    gauge.draw("draw_gauge", art_gauge(140, 124, 8));
    gauge.show();
    glass.create(PFB_FORMAT_ARGB32, 110, 50, 200, 100, 0);
    glass.draw("draw_glass", art_glass(200, 100));
    glass.show();
    buttons.create(PFB_FORMAT_ARGB32, 40, 132, 240, 60, 1);
    buttons.draw("draw_buttons", art_menu(240, 60));
    buttons.show();
    stage.picture();
    glass.move(20, 16);
    stage.picture();
}

// ---- turned displays ----

// What a viewer must see of a background and a window at (x, y).
Picture upright(const GalleryStage &stage, const Canvas &below, const Canvas &window, int x, int y)
{
    PictureComposer composer(stage.width(), stage.height());
    composer.draw(canvas_pixels(below, PixelFormat::XRGB), 0, 0);
    composer.draw(canvas_pixels(window, PixelFormat::XRGB), x, y);
    return composer.picture(stage.depth());
}

// A background and a window that change together come out the right way up.
void turned(GalleryStage &stage)
{
    const int w = stage.width(), h = stage.height();
    const int window_w = std::min(w * 5 / 8, h * 4 / 5), window_h = window_w * 3 / 4;
    const int x = (w - window_w) / 2, y = h > w ? h * 52 / 100 : (h - window_h) * 2 / 3;
    const Canvas sky = art_evening(w, h), room = art_thermostat(window_w, window_h);
    GalleryClient evening(stage, "evening"), window(stage, "window");
    evening.create(PFB_FORMAT_XRGB32, 0, 0, w, h, 0);
    window.create(PFB_FORMAT_XRGB32, x, y, window_w, window_h, 1);
    evening.show();
    window.show();
    stage.pass();
    evening.draw("draw_evening", sky);
    window.draw("draw_thermostat", room);
    evening.dirty(0, 0, w, h);
    window.dirty(0, 0, window_w, window_h);
    const Picture expected = upright(stage, sky, room, x, y);
    stage.picture(&expected);
}

// A window that changes alone is turned twice at 16 bits; with a pixel of company it is not.
void turned_alone(GalleryStage &stage)
{
    const Canvas card = art_card(160, 120, GREEN, "3");
    GalleryClient evening(stage, "evening"), window(stage, "window");
    background(stage, evening);
    window.create(PFB_FORMAT_XRGB32, 20, 150, 160, 120, 1);
    window.draw("draw_thermostat", art_thermostat(160, 120));
    window.show();
    stage.pass();
    window.draw("draw_card_3", card);
    window.dirty(0, 0, 160, 120);
    stage.picture();
    evening.dirty(0, 0, 1, 1);
    window.dirty(0, 0, 160, 120);
    const Picture expected = upright(stage, art_evening(200, 320), card, 20, 150);
    stage.picture(&expected);
}

const GalleryScene scenes[] = {
    {.name = "levels", .pictures = {"levels", "levels-restacked"}, .play = levels},
    {.name = "clip", .pictures = {"clip", "clip-moved"}, .play = clip},
    {.name = "scale", .pictures = {"scale"}, .play = scale},
    {.name = "alpha", .pictures = {"alpha"}, .play = alpha},
    {.name = "alpha_16", .pictures = {"alpha-16-bits"}, .format = "rgb565", .play = alpha},
    {.name = "opaque", .pictures = {"opaque"}, .play = opaque},
    {.name = "opaque_lie", .pictures = {"opaque-lie"}, .play = opaque_lie},
    {.name = "veil", .pictures = {"veil"}, .play = veil},
    {.name = "dialog", .pictures = {"veil-dialog"}, .play = dialog},
    {.name = "color_plane", .pictures = {"color-plane"}, .play = color_plane},
    {.name = "leftovers", .pictures = {"leftovers"}, .play = leftovers},
    {.name = "no_leftovers", .pictures = {"leftovers-none", "leftovers-hidden"}, .play = no_leftovers},
    {.name = "second_layer", .pictures = {"second-layer", "second-layer-moved"}, .layer2 = true, .play = second_layer},
    {.name = "turned_16",
     .pictures = {"turned-16-bits"},
     .format = "rgb565",
     .width = 800,
     .height = 480,
     .rotation = 90,
     .play = turned},
    {.name = "turned_18",
     .pictures = {"turned-18-bits"},
     .format = "rgb666",
     .width = 800,
     .height = 480,
     .rotation = 90,
     .given_size = true,
     .play = turned},
    {.name = "turned_portrait",
     .pictures = {"turned-portrait-panel"},
     .format = "rgb565",
     .width = 200,
     .height = 320,
     .rotation = 90,
     .play = turned},
    {.name = "turned_alone",
     .pictures = {"turned-alone", "turned-in-company"},
     .format = "rgb565",
     .rotation = 90,
     .play = turned_alone},
};

class Gallery : public ::testing::TestWithParam<GalleryScene> {};

} // namespace

// In messages of GoogleTest.
static void PrintTo(const GalleryScene &scene, std::ostream *out)
{
    *out << scene.name;
}

TEST_P(Gallery, PanelModelAndFileAreTheSame)
{
    gallery_play(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Scenes, Gallery, testing::ValuesIn(scenes),
                         [](const auto &scene) { return std::string(scene.param.name); });

TEST(GalleryPage, ShowsEveryPictureAndNoOther)
{
    std::vector<std::string> played;
    for (const GalleryScene &scene : scenes)
        played.insert(played.end(), scene.pictures.begin(), scene.pictures.end());
    EXPECT_EQ(gallery_page_pictures(), played) << "in the order of the scenes";
    std::sort(played.begin(), played.end());
    if (!gallery_writes()) { // else they are not there yet
        EXPECT_EQ(gallery_files(), played);
    }
}
