// SPDX-License-Identifier: MIT
// Draws the next action by looking at what the model holds.
#include "plan.h"

using model::Model;
using model::Surface;

namespace {

constexpr int MOST_CLIENTS = 7;
constexpr int64_t MOST_SCALED_BYTES = 1 << 18;

int any_client(Planner &p)
{
    int skip = p.random.below(static_cast<int>(p.m.clients.size()));
    return std::next(p.m.clients.begin(), skip)->first;
}

Action hang_up(int client)
{
    Action a;
    a.kind = Action::HANG_UP;
    a.client = client;
    return a;
}

Action simple_request(int client, const char *word)
{
    Action a;
    a.kind = Action::REQUEST;
    a.client = client;
    a.word = word;
    return a;
}

// Moves that let rendering go on: what holds it back is let go more often than chance would have it.
bool propose_release(Planner &p, Action &a)
{
    for (const auto &[id, client] : p.m.clients) {
        Surface *s = client.surface ? model_surface(p.m, client.surface) : nullptr;
        if (s && s->lock_counter > 0 && p.random.chance(12)) {
            a = simple_request(id, s->block && s->lock_counter == 1 ? "lock_area" : "unlock");
            if (a.word == "lock_area")
                a.arguments = plan_rectangle(p);
            return true;
        }
        if (s && p.m.rotation_lock && s->rotation != p.m.rotation && p.random.chance(15)) {
            a = p.random.chance(60) ? hang_up(id) : simple_request(id, "hide");
            return true;
        }
    }
    return false;
}

// What is damaged and not drawn yet meets a new scale.
bool propose_scale(Planner &p, Action &a)
{
    for (const auto &[id, client] : p.m.clients) {
        const Surface *s = client.surface ? model_surface(p.m, client.surface) : nullptr;
        if (s && !s->dirty_region.empty() && p.random.chance(3)) {
            a = plan_scale(p, id);
            return true;
        }
    }
    return false;
}

Action draw(Planner &p)
{
    const auto &object = p.objects[static_cast<size_t>(p.random.below(static_cast<int>(p.objects.size())))];
    Action a;
    a.kind = p.random.chance(1) && p.random.chance(50) ? Action::TRUNCATE : Action::DRAW;
    a.object = object.first;
    a.size = static_cast<uint32_t>(p.random.below(static_cast<int>(object.second) + 1));
    a.seed = static_cast<uint32_t>(p.random.next());
    a.style = p.random.below(4);
    return a;
}

Action toggle(int device)
{
    Action a;
    a.kind = Action::TOGGLE_DEVICE;
    a.device = device;
    return a;
}

Action propose(Planner &p)
{
    Action a;
    if (p.m.clients.size() < 2 || (p.m.clients.size() < MOST_CLIENTS && p.random.chance(4)))
        return plan_connect(p);
    for (int device : {model::PRIMARY, model::SECOND}) {
        if (p.m.outputs[device].broken ? p.random.chance(40) : p.random.below(250) == 0)
            return toggle(device);
    }
    if (propose_release(p, a) || propose_scale(p, a))
        return a;
    if (p.random.chance(22))
        return a;
    if (!p.objects.empty() && p.random.chance(9))
        return draw(p);
    int client = any_client(p);
    if (p.random.chance(2))
        return hang_up(client);
    if (!p.m.clients.at(client).surface ? p.random.chance(50) : p.random.below(120) == 0)
        return plan_create(p, client);
    return plan_request(p, client);
}

bool within_reason(const Model &m)
{
    for (const Surface &s : m.surfaces) {
        if (s.scale && s.image.extent > MOST_SCALED_BYTES)
            return false;
    }
    return true;
}

// What the action and the render after it come to.
enum Outcome { GOES_ON, ABORTS, ABORTS_LATER, TOO_LARGE };

Outcome foresee(const Planner &p, const Action &action, Model &after)
{
    try {
        history_tell(after, action, "#" + std::to_string(action.object), &p.no_memory);
    } catch (const model::Aborted &) {
        return ABORTS;
    }
    if (!within_reason(after))
        return TOO_LARGE;
    try {
        Model later = after;
        model_render_if_pending(later);
    } catch (const model::Aborted &) {
        return ABORTS_LATER;
    }
    return GOES_ON;
}

void accept(Planner &p, const Action &action, Model &after)
{
    p.m = std::move(after);
    p.m.out.clear();
    p.m.err.clear();
    p.m.calls.clear();
    if (action.makes)
        p.objects.emplace_back(action.object, action.size);
    p.history.push_back(action);
}

} // namespace

History history_plan(const Config &config, uint64_t seed, int length, bool may_abort)
{
    Planner p = {config, Random{seed}, history_model(config), {}, 1, 1, {}, {}};
    p.m.with_pixels = false;
    for (model::Output &o : p.m.outputs)
        o.frame.bytes.clear();
    for (int tries = 0; static_cast<int>(p.history.size()) < length && tries < 4 * length; tries++) {
        Action action = propose(p);
        Model after = p.m;
        Outcome outcome = foresee(p, action, after);
        if (outcome == GOES_ON) {
            accept(p, action, after);
        } else if (outcome != TOO_LARGE && may_abort && p.history.size() > 20 &&
                   p.random.chance(action.word == "unlock" ? 5 : 50)) {
            p.history.push_back(action);
            if (outcome == ABORTS_LATER)
                p.history.push_back({});
            break;
        }
    }
    p.history.push_back({});
    return p.history;
}
