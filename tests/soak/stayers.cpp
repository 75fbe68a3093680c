// SPDX-License-Identifier: MIT
#include "stayers.h"

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
    uint32_t frame = 0;
};

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
    appear(b, shared->rotation);
    while (!shared->bystander_ends) {
        if (shared->bystanders != shared->rotation)
            appear(b, shared->rotation);
        draw_frame(b);
        // While somebody holds the lock it waits, and nobody holds it for long.
        if (!wait_long([&] { return is_on_panel(b) || shared->rotation != shared->bystanders; }))
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
        surfaces_.back()->native_depth();
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
    client.native_depth();
    client.hang_up();
    settle();
}
