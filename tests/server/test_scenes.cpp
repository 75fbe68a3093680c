// SPDX-License-Identifier: MIT
// Random scenes: several clients create, show, hide, move, restack, clip, redraw and veil, and after every few
// requests the panel must show what pixman composes from scratch. An opaque background covers the screen, so that no
// earlier picture may remain anywhere. A failing scene is told by its seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>

#include "../support/composer.h"
#include "../support/running_server.h"
#include "../support/test_client.h"

namespace {

constexpr int WIDTH = 128;
constexpr int HEIGHT = 96;
constexpr int STEPS = 60;

struct Actor {
    Pixels pixels;
    std::unique_ptr<TestClient> client;
    int x;
    int y;
    int level;
    bool shown;
    std::optional<ComposerRect> clip;
    std::optional<uint32_t> plane;
};

// What a scene is made of.
struct Cast {
    const char *panel;
    std::vector<PixelFormat> formats; // of the surfaces over the background, from the lowest
    PixelFormat background;
    bool planes; // surfaces with alpha may become veils and filled planes
};

class Scene {
public:
    Scene(const Cast &cast, uint32_t seed) : cast_(cast), random_(seed)
    {
        add(pixels_photograph(cast.background, WIDTH, HEIGHT, seed), 0, 0, -1000);
        for (PixelFormat format : cast.formats)
            add(picture(format), number(-20, WIDTH), number(-20, HEIGHT), next_level());
        for (Actor &actor : actors_)
            show(actor);
    }

    // A few requests of one client after the other, without waiting in between.
    void step()
    {
        std::vector<Actor *> busy;
        for (int i = number(1, 4); i > 0; i--) {
            Actor &actor = actors_[static_cast<size_t>(number(1, static_cast<int>(actors_.size()) - 1))];
            act(actor);
            busy.push_back(&actor);
        }
        if (number(0, 3) == 0)
            redraw(actors_[0]);
        for (Actor *actor : busy)
            actor->client->native_depth();
        actors_[0].client->settle();
    }

    Picture expected(int depth) const
    {
        std::vector<const Actor *> order;
        for (const Actor &actor : actors_)
            order.push_back(&actor);
        std::sort(order.begin(), order.end(), [](const Actor *a, const Actor *b) { return a->level < b->level; });
        PictureComposer composer(WIDTH, HEIGHT);
        for (const Actor *actor : order) {
            if (actor->shown)
                draw(composer, *actor, depth);
        }
        return composer.picture(depth);
    }

private:
    int number(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
    uint32_t noise() { return static_cast<uint32_t>(random_()); }
    int next_level() { return levels_++; } // no two surfaces share one: clients reach the server in any order

    Pixels picture(PixelFormat format)
    {
        const int padding = number(0, 3) * (format == PixelFormat::RGB565 ? 2 : 4);
        return pixels_random(format, number(1, 80), number(1, 70), noise(), padding);
    }

    void add(Pixels pixels, int x, int y, int level)
    {
        auto client = std::make_unique<TestClient>("fb.actor" + std::to_string(actors_.size()));
        client->create(pixels, x, y, level);
        actors_.push_back(Actor{std::move(pixels), std::move(client), x, y, level, false, {}, {}});
    }

    void act(Actor &actor)
    {
        switch (number(0, 9)) {
        case 0:
            hide(actor);
            break;
        case 1:
        case 2:
            show(actor);
            break;
        case 3:
        case 4:
            redraw(actor);
            break;
        case 5:
            actor.level = next_level();
            actor.client->send("set_layer", {actor.level});
            break;
        case 6:
            actor.clip = ComposerRect{number(-10, WIDTH), number(-10, HEIGHT), number(1, WIDTH), number(1, HEIGHT)};
            actor.client->send("set_clip", {actor.clip->x, actor.clip->y, actor.clip->width, actor.clip->height});
            break;
        case 7:
            if (cast_.planes && actor.pixels.format == PixelFormat::ARGB)
                change_plane(actor);
            break;
        default:
            actor.x = number(-30, WIDTH);
            actor.y = number(-30, HEIGHT);
            actor.client->send("move", {actor.x, actor.y});
        }
    }

    void show(Actor &actor)
    {
        actor.shown = true;
        actor.client->send("show");
    }

    void hide(Actor &actor)
    {
        actor.shown = false;
        actor.client->send("hide");
    }

    void redraw(Actor &actor)
    {
        const Pixels fresh = pixels_random(actor.pixels.format, actor.pixels.width, actor.pixels.height, noise(),
                                           actor.pixels.stride - row_bytes(actor.pixels));
        const int x1 = number(0, actor.pixels.width - 1);
        const int y1 = number(0, actor.pixels.height - 1);
        const int w = number(1, actor.pixels.width - x1);
        const int h = number(1, actor.pixels.height - y1);
        for (int y = y1; y < y1 + h; y++) {
            for (int x = x1; x < x1 + w; x++)
                actor.pixels.set(x, y, fresh.at(x, y));
        }
        actor.client->draw(actor.pixels);
        actor.client->send("dirty", {x1, y1, w, h});
    }

    // A plane takes effect when the surface is drawn next.
    void change_plane(Actor &actor)
    {
        const uint32_t planes[] = {0x80FFFFFF, 0x20FFFFFF, 0x00FFFFFF, 0xFF12B45E, 0xFF000000, 0xFFFFFFFF};
        const uint32_t plane = planes[number(0, 5)];
        actor.plane = plane;
        if (plane == 0xFFFFFFFF)
            actor.plane.reset();
        hide(actor);
        actor.client->send("color_plane", {static_cast<int32_t>(plane)});
        show(actor);
    }

    static int row_bytes(const Pixels &pixels) { return pixels.width * (pixels.format == PixelFormat::RGB565 ? 2 : 4); }

    static void draw(PictureComposer &composer, const Actor &actor, int depth)
    {
        if (actor.clip)
            composer.set_clip(*actor.clip);
        const ComposerRect area{actor.x, actor.y, actor.pixels.width, actor.pixels.height};
        if (!actor.plane)
            composer.draw(actor.pixels, actor.x, actor.y, depth != 32);
        else if ((*actor.plane & 0xFFFFFF) != 0xFFFFFF)
            composer.fill(area, *actor.plane & 0xFFFFFF);
        else if (depth == 32)
            composer.veil(area, *actor.plane >> 24);
        composer.clear_clip();
    }

    const Cast &cast_;
    std::mt19937 random_;
    std::vector<Actor> actors_;
    int levels_ = 0;
};

void play(const Cast &cast, uint32_t seed)
{
    SCOPED_TRACE(std::string(cast.panel) + ", PFB_TEST_SEED=" + std::to_string(seed));
    RunningServer server({.size = "128x96", .format = cast.panel});
    {
        Scene scene(cast, seed);
        for (int i = 0; i < STEPS && !::testing::Test::HasFailure(); i++) {
            scene.step();
            ASSERT_EQ(panel_shows(server.panel(), scene.expected(server.panel().depth())), "") << "step " << i;
        }
    }
    EXPECT_EQ(server.stop(SIGTERM), 0) << server.err();
}

// Fixed seeds, and one more that the environment may give.
void play_all(const Cast &cast)
{
    const char *given = getenv("PFB_TEST_SEED");
    if (given != nullptr) {
        play(cast, static_cast<uint32_t>(strtoul(given, nullptr, 10)));
        return;
    }
    for (uint32_t seed = 1; seed <= 4 && !::testing::Test::HasFailure(); seed++)
        play(cast, seed);
}

using enum PixelFormat;

} // namespace

TEST(Scenes, EverythingOn32Bits)
{
    play_all({"xrgb8888", {RGB565, ARGB, XRGB, RGB666, ARGB, RGB565, ARGB}, XRGB, true});
}

TEST(Scenes, DirectSurfacesOn32Bits)
{
    play_all({"xrgb8888", {RGB565, RGB565, RGB666, XRGB, RGB565}, RGB565, false});
}

TEST(Scenes, NarrowSurfacesOn16Bits)
{
    play_all({"rgb565", {RGB565, RGB565, RGB565, RGB565}, RGB565, false});
}

TEST(Scenes, EverythingOn16Bits)
{
    play_all({"rgb565", {RGB565, XRGB, RGB666, RGB565, XRGB, ARGB}, XRGB, true});
}

TEST(Scenes, EverythingOn18Bits)
{
    play_all({"rgb666", {RGB565, XRGB, RGB666, RGB565, XRGB, ARGB}, XRGB, false});
}

TEST(Scenes, DirectSurfacesOn18Bits)
{
    play_all({"rgb666", {RGB666, RGB565, RGB666, RGB565}, RGB666, false});
}
