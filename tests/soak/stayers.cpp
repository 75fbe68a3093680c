// SPDX-License-Identifier: MIT
#include "stayers.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace {

constexpr int SPARE = 4;

// ---- the bystander ----

constexpr int SIDE = 24; // pixels
constexpr int X = 8, Y = 8;
constexpr int PAUSE_US = 20000;

struct Bystander {
    Shared *shared;
    const PanelView &panel;
    std::unique_ptr<TestClient> wire;
    // A connection and a surface that never end; never shown, so that it holds no turn.
    std::unique_ptr<TestClient> veteran = nullptr;
    Random random = Random(1);
    uint32_t frame = 0;
};

void veteran_appears(Bystander &b)
{
    b.veteran = std::make_unique<TestClient>("fb.veteran");
    b.veteran->create({.width = 100, .height = 80, .alpha = 1, .level = INT32_MAX - 1, .rotation = b.shared->rotation});
    b.veteran->native_depth();
}

// Everything that the server keeps a note of.
void veteran_works(Bystander &b)
{
    Random &random = b.random;
    const int32_t x = between(random, -20, 120), y = between(random, -20, 100), width = between(random, 0, 60);
    b.veteran->send("set_scale", {0, 0, between(random, 1, 90), 80, x, y, between(random, 1, 200), 50});
    for (int i = 0; i < 5; i++)
        b.veteran->send("dirty", {between(random, 0, 99), between(random, 0, 79), 3, 2});
    b.veteran->send("opaque_area", {x, y, width, width});
    b.veteran->send("set_clip", {x, y, width, width});
    b.veteran->send("set_sync", {between(random, 0, 1)});
    b.veteran->send("set_layer", {INT32_MAX - 1});
    b.veteran->lock(x, y, width, width);
    b.veteran->send("unlock");
}

void appear(Bystander &b, int32_t rotation)
{
    b.wire.reset(); // before the next one: it would hold the turn
    b.wire = std::make_unique<TestClient>("fb.bystander");
    b.wire->create({.x = X, .y = Y, .width = SIDE, .height = SIDE, .level = INT32_MAX, .rotation = rotation});
    b.wire->native_depth();
    b.wire->send("show");
    b.shared->bystanders = rotation;
}

uint32_t colour(uint32_t frame)
{
    return (frame * 2654435761u >> 8 & 0xffffff) | 0xff000000;
}

bool is_on_panel(const Bystander &b)
{
    for (int y = Y; y < Y + SIDE; y++) {
        for (int x = X; x < X + SIDE; x++) {
            if ((b.panel.raw(x, y) & 0xffffff) != (colour(b.frame) & 0xffffff))
                return false;
        }
    }
    return true;
}

// Every other frame under the lock.
void draw_frame(Bystander &b)
{
    b.frame++;
    const bool locked = b.frame % 2 == 0;
    if (locked)
        b.wire->lock(0, 0, SIDE, SIDE);
    b.wire->draw(pixels_filled(PixelFormat::XRGB, SIDE, SIDE, colour(b.frame)));
    if (locked)
        b.wire->send("unlock");
    else
        b.wire->send("dirty", {0, 0, SIDE, SIDE});
}

} // namespace

void bystander_run(Shared *shared, const PanelView &panel)
{
    Bystander b{shared, panel, nullptr};
    veteran_appears(b);
    appear(b, shared->rotation);
    while (!shared->bystander_ends) {
        if (shared->bystanders != shared->rotation)
            appear(b, shared->rotation);
        veteran_works(b);
        if (!testing::Test::HasFailure())
            draw_frame(b);
        if (testing::Test::HasFailure())
            return;
        // While somebody holds the lock it waits, and nobody holds it for long.
        if (!wait_until([&] { return is_on_panel(b) || shared->rotation != shared->bystanders; }))
            return shared_fault(shared, "the bystander's frame " + std::to_string(b.frame) + " is not on the panel");
        shared->frames += is_on_panel(b);
        usleep(PAUSE_US);
    }
}

// ---- the keeper ----

std::string target_name(int number)
{
    return "fb.target" + std::to_string(number);
}

void Keeper::make(int32_t rotation)
{
    surfaces_.clear();
    for (int i = 0; i < TARGETS + SPARE; i++) {
        const bool target = i < TARGETS;
        surfaces_.push_back(std::make_unique<TestClient>(target ? target_name(i) : "x.spare"));
        surfaces_.back()->create({.x = 40 * i,
                                  .y = PANEL_HEIGHT / 2,
                                  .width = 30,
                                  .height = 20,
                                  .level = INT32_MIN + i,
                                  .rotation = rotation});
        if (surfaces_.back()->native_depth() < 0)
            return; // a failure; the others would wait as long
        if (target)
            surfaces_.back()->send("show");
    }
}

void Keeper::let_go()
{
    for (const auto &surface : surfaces_)
        surface->hang_up();
}

void Keeper::settle_turn(int32_t rotation)
{
    TestClient client("x.turn");
    client.create({.width = 1, .height = 1, .level = -1, .rotation = rotation});
    if (client.native_depth() < 0)
        return;
    client.hang_up();
    settle();
}
