// SPDX-License-Identifier: MIT
// The second layer over the first one, as pfbpanel puts them together.
#include "what_you_see.h"

#include <csignal>
#include <cstring>
#include <png.h>
#include <unistd.h>

namespace {

const Pixels FIRST = pixels_photograph(PixelFormat::XRGB, PANEL_WIDTH, PANEL_HEIGHT, 1);

Picture read_picture(const std::string &file)
{
    png_image image;
    memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, file.c_str()) == 0) {
        ADD_FAILURE() << file << ": " << image.message;
        return {};
    }
    image.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
    EXPECT_NE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr), 0) << image.message;
    Picture picture{static_cast<int>(image.width), static_cast<int>(image.height), {}};
    for (size_t i = 0; i + 2 < rgb.size(); i += 3)
        picture.pixels.push_back(uint32_t{rgb[i]} << 16 | uint32_t{rgb[i + 1]} << 8 | rgb[i + 2]);
    return picture;
}

// What a screen of fewer bits makes of a channel of 8.
uint32_t narrowed(uint32_t value, int bits)
{
    value >>= 8 - bits;
    return bits == 5 ? value * 33 >> 2 : value * 65 >> 4; // its bits, written down twice
}

class LayerStage {
public:
    explicit LayerStage(const char *format)
        : format_(format),
          server_({.size = "64x48", .format = "xrgb8888", .panel = {"--layer2", std::string("64x48:") + format}}),
          first_("fb.first"), keeper_("fb2.keeper"), neighbour_("fb2.neighbour"), surface_("fb2.surface")
    {
        first_.create(FIRST, 0, 0, 0);
        first_.send("show");
        first_.settle();
        keeper_.create(pixels_new(PixelFormat::XRGB, 1, 1), 1000, 0, 0); // the layer stays on whoever goes
        keeper_.settle();
    }
    TestClient &surface() { return surface_; }
    TestClient &neighbour() { return neighbour_; }
    TestClient &keeper() { return keeper_; }
    int stop() { return server_.stop(SIGTERM); }

    // The layer holds these words with alpha, row after row.
    void may_show(const std::string &words, const Pixels &layer)
    {
        PictureComposer composer(PANEL_WIDTH, PANEL_HEIGHT);
        composer.draw(FIRST, 0, 0);
        composer.draw(layer, 0, 0);
        Picture picture = composer.picture(32);
        if (strcmp(format_, "argb8888") != 0) {
            for (int y = 0; y < PANEL_HEIGHT; y++)
                for (int x = 0; x < PANEL_WIDTH; x++)
                    picture.at(x, y) = opaque(layer.at(x, y));
        }
        sights_.add(words, picture);
    }
    std::string look()
    {
        keeper_.settle();
        const std::string file = server_.folder() + "/both.png";
        const ProgramResult shot = program_run(
            {.words = {from_build("PFB_TEST_PANEL"), "shot", "--both", "--panel", server_.panel_folder(), file}});
        EXPECT_EQ(shell_status(shot.status), 0) << shot.err;
        const Picture seen = read_picture(file);
        unlink(file.c_str());
        return sights_.name(seen);
    }

private:
    uint32_t opaque(uint32_t word) const
    {
        const int green = 6;
        const int other = strcmp(format_, "rgb565") == 0 ? 5 : 6;
        return narrowed(word >> 16 & 0xFF, other) << 16 | narrowed(word >> 8 & 0xFF, green) << 8 |
               narrowed(word & 0xFF, other);
    }

    const char *format_;
    RunningServer server_;
    TestClient first_, keeper_, neighbour_, surface_;
    Sights sights_;
};

Pixels empty_layer()
{
    return pixels_new(PixelFormat::ARGB, PANEL_WIDTH, PANEL_HEIGHT);
}

// The layer with a picture's words in the place; of columns from `end` on it has nothing.
Pixels layer_with(const Pixels &pixels, int end = PANEL_WIDTH)
{
    Pixels layer = empty_layer();
    for (int y = 0; y < pixels.height; y++)
        for (int x = 0; x < pixels.width && PLACE.x + x < end; x++)
            layer.set(PLACE.x + x, PLACE.y + y, pixels.at(x, y));
    return layer;
}

Pixels with_top_bytes(Pixels pixels, uint32_t top)
{
    for (int y = 0; y < pixels.height; y++)
        for (int x = 0; x < pixels.width; x++)
            pixels.set(x, y, (pixels.at(x, y) & 0xFFFFFF) | top);
    return pixels;
}

const Pixels TRANSLUCENT = pixels_random(PixelFormat::ARGB, PLACE.width, PLACE.height, 2);
const Pixels NEWER = pixels_random(PixelFormat::ARGB, PLACE.width, PLACE.height, 3);
constexpr uint32_t FULL = 0xFF000000;

void show_translucent(LayerStage *stage)
{
    stage->surface().create(TRANSLUCENT, PLACE.x, PLACE.y, 0);
    stage->surface().send("show");
    stage->surface().settle();
    stage->may_show("its picture", layer_with(TRANSLUCENT));
    stage->may_show("nothing of it", empty_layer());
}

std::string see_shown(LayerStage *stage)
{
    show_translucent(stage);
    return stage->look();
}

std::string see_hidden(LayerStage *stage)
{
    show_translucent(stage);
    stage->surface().draw(NEWER);
    stage->surface().send("hide");
    stage->surface().settle();
    stage->may_show("still drawn", layer_with(NEWER));
    return stage->look();
}

std::string see_emptied(LayerStage *stage)
{
    show_translucent(stage);
    stage->surface().draw(pixels_new(PixelFormat::ARGB, PLACE.width, PLACE.height));
    stage->surface().send("dirty", {0, 0, PLACE.width, PLACE.height});
    stage->surface().send("hide");
    stage->surface().settle();
    return stage->look();
}

std::string see_ended(LayerStage *stage)
{
    show_translucent(stage);
    stage->surface().hang_up();
    stage->keeper().settle();
    stage->may_show("its left part stays", layer_with(TRANSLUCENT, 2 * PLACE.x));
    return stage->look();
}

// A surface in the place of a hidden one, which lies higher.
void show_below_a_hidden_one(LayerStage *stage)
{
    const Pixels shown = pixels_random(PixelFormat::ARGB, PLACE.width, PLACE.height, 5);
    const Pixels hidden = with_top_bytes(pixels_random(PixelFormat::XRGB, PLACE.width, PLACE.height, 6), FULL);
    stage->surface().create(hidden, PLACE.x, PLACE.y, 1);
    stage->surface().settle();
    stage->neighbour().create(shown, PLACE.x, PLACE.y, 0);
    stage->neighbour().send("show");
    stage->neighbour().settle();
    stage->may_show("nothing of it", layer_with(shown));
    stage->may_show("drawn", layer_with(hidden));
}

std::string see_never_shown(LayerStage *stage)
{
    show_below_a_hidden_one(stage);
    return stage->look();
}

std::string see_never_shown_later(LayerStage *stage)
{
    show_below_a_hidden_one(stage);
    stage->neighbour().send("dirty", {0, 0, PLACE.width, PLACE.height});
    stage->neighbour().settle();
    return stage->look();
}

// ---- surfaces without alpha ----

const Pixels BARE = with_top_bytes(pixels_random(PixelFormat::XRGB, PLACE.width, PLACE.height, 4), 0);

void expect_bare(LayerStage *stage)
{
    stage->may_show("its picture", layer_with(with_top_bytes(BARE, FULL)));
    stage->may_show("added to the first layer", layer_with(BARE));
}

std::string see_full_top_bytes(LayerStage *stage)
{
    stage->surface().create(with_top_bytes(BARE, FULL), PLACE.x, PLACE.y, 0);
    stage->surface().send("show");
    stage->surface().settle();
    stage->surface().send("dirty", {0, 0, PLACE.width, PLACE.height});
    stage->surface().settle();
    expect_bare(stage);
    return stage->look();
}

std::string see_bare_alone(LayerStage *stage)
{
    stage->surface().create(BARE, PLACE.x, PLACE.y, 0);
    stage->surface().send("show");
    stage->surface().settle();
    expect_bare(stage);
    return stage->look();
}

// Draws the surface in one pass with the neighbour. That one shows nothing: it is transparent, and on a layer without
// alpha black as what is around it.
void draw_with_neighbour(LayerStage *stage, bool shows)
{
    stage->keeper().lock(0, 0, 0, 0);
    if (shows)
        stage->surface().send("show");
    stage->surface().send("dirty", {0, 0, PLACE.width, PLACE.height});
    stage->surface().native_depth();
    stage->neighbour().send("dirty", {0, 0, 3, 3});
    stage->neighbour().native_depth();
    stage->keeper().send("unlock");
    stage->keeper().settle();
}

void add_neighbour(LayerStage *stage)
{
    stage->neighbour().create(pixels_new(PixelFormat::ARGB, 3, 3), 0, 0, 0);
    stage->neighbour().send("show");
    stage->neighbour().settle();
}

std::string see_bare_with_others(LayerStage *stage)
{
    add_neighbour(stage);
    stage->surface().create(BARE, PLACE.x, PLACE.y, 0);
    draw_with_neighbour(stage, true);
    expect_bare(stage);
    return stage->look();
}

std::string see_bare_with_others_later(LayerStage *stage)
{
    see_bare_alone(stage);
    add_neighbour(stage);
    draw_with_neighbour(stage, false);
    return stage->look();
}

Row layer_row(const char *name, std::string (*see)(LayerStage *))
{
    return {name, [see](const Column &column) {
                LayerStage stage(column.panel);
                const std::string seen = see(&stage);
                EXPECT_EQ(stage.stop(), 0);
                return seen;
            }};
}

} // namespace

Table second_layer_table()
{
    return {"second layer",
            "what happens",
            {layer_row("shown", see_shown), layer_row("hidden", see_hidden),
             layer_row("filled with 0, reported, hidden", see_emptied), layer_row("client ends", see_ended),
             layer_row("never shown, another drawn for the first time at its place", see_never_shown),
             layer_row("never shown, another drawn once more at its place", see_never_shown_later),
             layer_row("32 bits without alpha, top bytes 255", see_full_top_bytes),
             layer_row("32 bits without alpha, top bytes 0, alone", see_bare_alone),
             layer_row("the same, with others", see_bare_with_others),
             layer_row("the same, with others after it was alone", see_bare_with_others_later)},
            {{"32-bit layer with alpha", "argb8888", Company::ALONE},
             {"18-bit layer", "rgb666", Company::ALONE},
             {"16-bit layer", "rgb565", Company::ALONE}}};
}

// ---- the ways around ----

TEST(WhatYouSeeLayer, WhatIsFilledWith0AndThenEndsIsGone)
{
    for (const Column &column : second_layer_table().columns) {
        for (const PixelFormat format : {PixelFormat::RGB565, PixelFormat::XRGB, PixelFormat::ARGB}) {
            SCOPED_TRACE(std::string(column.name) + ", format " + std::to_string(static_cast<int>(format)));
            LayerStage stage(column.panel);
            stage.surface().create(pixels_random(format, PLACE.width, PLACE.height, 2), PLACE.x, PLACE.y, 0);
            stage.surface().send("show");
            stage.surface().settle();
            stage.may_show("nothing of it", empty_layer());
            EXPECT_EQ(stage.look(), UNKNOWN_SIGHT);
            stage.surface().draw(pixels_new(format, PLACE.width, PLACE.height));
            stage.surface().send("dirty", {0, 0, PLACE.width, PLACE.height});
            stage.surface().settle();
            stage.surface().hang_up();
            EXPECT_EQ(stage.look(), "nothing of it");
            EXPECT_EQ(stage.stop(), 0);
        }
    }
}

TEST(WhatYouSeeLayer, BeyondTheScreensEdgeAHiddenSurfaceIsNotDrawnUntilItIsMovedAndShown)
{
    for (const Column &column : second_layer_table().columns) {
        SCOPED_TRACE(column.name);
        LayerStage stage(column.panel);
        stage.surface().create(NEWER, PANEL_WIDTH, PANEL_HEIGHT, 1);
        stage.surface().settle();
        stage.neighbour().create(with_top_bytes(BARE, FULL), PLACE.x, PLACE.y, 0);
        stage.neighbour().send("show");
        stage.neighbour().settle();
        stage.neighbour().send("dirty", {0, 0, PLACE.width, PLACE.height});
        stage.neighbour().settle();
        stage.may_show("the other one", layer_with(with_top_bytes(BARE, FULL)));
        EXPECT_EQ(stage.look(), "the other one");
        stage.surface().draw(with_top_bytes(NEWER, FULL));
        stage.surface().send("move", {PLACE.x, PLACE.y});
        stage.surface().send("show");
        stage.surface().settle();
        stage.may_show("it", layer_with(with_top_bytes(NEWER, FULL)));
        EXPECT_EQ(stage.look(), "it");
        EXPECT_EQ(stage.stop(), 0);
    }
}
