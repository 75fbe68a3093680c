// SPDX-License-Identifier: MIT
// A client of libpfb: every function that has to do with a surface, in any order.
#include "soak.h"

#include <cstring>

#include "pfb.h"

namespace {

struct Library {
    Plan &plan;
    Shared *shared;
    pfb_client *client;
    enum pfb_format format;
};

// A refusal is what the arguments deserve, and nothing is sent; anything else must not happen.
void expect(Library &l, int result)
{
    l.shared->requests++;
    if (result == PFB_OK || result == PFB_ERROR_ARGUMENT || result == PFB_ERROR_STATE)
        return;
    shared_fault(l.shared, "client " + std::to_string(l.plan.number) + ": " + pfb_error_text());
}

int32_t across(Library &l)
{
    return between(l.plan.random, -30, PANEL_WIDTH + 10);
}

int32_t down(Library &l)
{
    return between(l.plan.random, -30, PANEL_HEIGHT + 10);
}

void draw(Library &l)
{
    const auto size = static_cast<size_t>(pfb_stride(l.client)) * static_cast<size_t>(l.plan.height);
    memset(pfb_pixels(l.client), between(l.plan.random, 0, 255), size);
}

void draw_and_tell(Library &l)
{
    draw(l);
    const int n = chance(l.plan.random, 10) ? 100 : 3;
    for (int i = 0; i < n; i++)
        expect(l,
               pfb_dirty(l.client, across(l), down(l), between(l.plan.random, 0, 60), between(l.plan.random, 0, 60)));
}

void draw_locked(Library &l)
{
    // Whoever may die in between would end the server.
    const bool blocks = l.plan.dies_at < 0 && l.plan.killed_after_ms < 0 && chance(l.plan.random, 30);
    if (blocks)
        expect(l, pfb_block_until_unlock(l.client));
    expect(l, pfb_lock(l.client, 0, 0, l.plan.width, l.plan.height));
    draw(l);
    expect(l, pfb_unlock(l.client));
}

void change_place(Library &l)
{
    Random &random = l.plan.random;
    switch (between(random, 0, 4)) {
    case 0:
        return expect(l, pfb_move(l.client, across(l), down(l)));
    case 1:
        return expect(l, pfb_resize(l.client, between(random, 1, l.plan.width), between(random, 1, l.plan.height)));
    case 2:
        return expect(l, pfb_set_layer(l.client, between(random, -10, 10)));
    case 3:
        return expect(l, pfb_set_clip(l.client, across(l), down(l), between(random, 0, 300), between(random, 0, 200)));
    default:
        return expect(l,
                      pfb_set_scale(l.client, 0, 0, between(random, 1, l.plan.width), between(random, 1, l.plan.height),
                                    across(l), down(l), between(random, 1, 400), between(random, 1, 300)));
    }
}

void change_look(Library &l)
{
    Random &random = l.plan.random;
    switch (between(random, 0, 5)) {
    case 0:
        return expect(l, pfb_hide(l.client));
    case 1:
        return expect(l, pfb_set_opaque_area(l.client, across(l), down(l), between(random, 0, 90), 50));
    case 2:
        return expect(l, pfb_set_color_plane(l.client, PFB_PLANE_COLOR(between(random, 0, 0xffffff))));
    case 3:
        return expect(l, pfb_set_color_plane(l.client, PFB_PLANE_VEIL(between(random, 0, 254))));
    case 4:
        return expect(l, pfb_set_color_plane(l.client, PFB_PLANE_NONE));
    default:
        return expect(l, pfb_set_sync(l.client, between(random, 0, 1)));
    }
}

void ask(Library &l)
{
    int depth = 0;
    expect(l, pfb_get_color_depth(l.client, &depth));
    if (chance(l.plan.random, 5))
        expect(l, pfb_status(l.client));
    expect(l, pfb_set_color_format(l.client, between(l.plan.random, -1, 9)));
}

void step(Library &l)
{
    static constexpr void (*STEPS[])(Library &) = {draw_and_tell, draw_and_tell, draw_locked,
                                                   change_place,  change_look,   ask};
    STEPS[between(l.plan.random, 0, 5)](l);
    if (chance(l.plan.random, 30))
        expect(l, pfb_show(l.client));
}

enum pfb_format format_of(const Plan &plan)
{
    if (plan.depth == 32)
        return plan.alpha ? PFB_FORMAT_ARGB32 : PFB_FORMAT_XRGB32;
    return plan.depth == 16 ? PFB_FORMAT_RGB16 : PFB_FORMAT_RGB18;
}

} // namespace

void client_library(Plan &plan, Shared *shared)
{
    Library l{plan, shared, pfb_connect(plan.name.c_str()), format_of(plan)};
    if (l.client == nullptr && pfb_error() == PFB_ERROR_ARGUMENT)
        return; // its name belongs to no output
    if (l.client == nullptr)
        return shared_fault(shared, pfb_error_text());
    pfb_set_reconnect(l.client, 0); // that the server has ended is not to be got over here
    pfb_set_timeout(l.client, WAIT_SECONDS * 1000);
    expect(l, pfb_create(l.client, l.format, plan.x, plan.y, plan.width, plan.height, plan.level, plan.rotation));
    if (pfb_pixels(l.client) != nullptr) {
        draw(l);
        expect(l, pfb_show(l.client));
        for (int32_t i = 0; i < plan.steps; i++) {
            client_pause(plan, i);
            step(l);
        }
    }
    if (chance(plan.random, 50))
        pfb_disconnect(l.client); // or goes without a word
}
