// SPDX-License-Identifier: MIT
#include "decode.h"

#include <algorithm>

#include "decode_request.h"
#include "decode_trouble.h"

namespace {

Action connect_or_hang_up(Decoder &d, int slot)
{
    Action a;
    if (d.slots[slot].client != 0) {
        a.kind = Action::HANG_UP;
        a.client = d.slots[slot].client;
        d.slots[slot] = {};
        return a;
    }
    a.kind = Action::CONNECT;
    a.client = d.next_client++;
    a.word = decode_name(d);
    d.slots[slot] = {a.client, 8, 8};
    return a;
}

Action change_object(Decoder &d, bool truncates)
{
    Action a;
    a.kind = truncates ? Action::TRUNCATE : Action::DRAW;
    if (d.objects.empty())
        return a;
    const Decoder::Object &object = d.objects[static_cast<size_t>(d.in.below(static_cast<int>(d.objects.size())))];
    a.object = object.number;
    a.size = truncates ? d.in.word() % (object.size + 1) : 0;
    a.seed = d.in.byte();
    a.style = static_cast<int>(a.seed % 4);
    return a;
}

Action toggle(int device)
{
    Action a;
    a.kind = Action::TOGGLE_DEVICE;
    a.device = device;
    return a;
}

// Scattered damage: the server collects so much of it in another way.
Action next_of_burst(Decoder &d)
{
    auto &burst = d.burst;
    burst.left--;
    if (burst.is_troubled)
        d.trouble.kind = Trouble::NO_MEMORY;
    Action a;
    a.kind = Action::REQUEST;
    a.client = burst.client;
    a.word = "dirty";
    for (int i = 0; i < 4; i++) {
        const int value = i < 2 ? burst.random.below(i == 0 ? burst.w : burst.h) : burst.random.between(1, 2);
        a.arguments.push_back({'i', value, {}});
    }
    return a;
}

Action start_burst(Decoder &d, int slot)
{
    const auto &client = d.slots[slot];
    d.burst = {
        client.client, 64 + d.in.byte() / 2, std::clamp(client.w, 1, 200), std::clamp(client.h, 1, 200), false, {}};
    d.burst.random.state = d.in.byte();
    d.burst.is_troubled = d.hostile && d.burst.random.state >= 224;
    return next_of_burst(d);
}

// ---- devices ----

model::Device device(FuzzInput &in)
{
    static const uint32_t depths[] = {16, 16, 18, 18, 32, 32, 32, 32, 24, 8};
    const uint32_t depth = depths[in.below(10)];
    const int32_t w = in.between(1, 48);
    const int32_t h = in.between(1, 40);
    const uint8_t odd = in.byte();
    const uint32_t padding = odd & 1 ? in.byte() % 32u : 0;
    model::Device d = history_device(depth, w, h, padding, 0);
    if (odd & 2)
        d.memory = std::max(1u, d.memory - std::min(d.memory, in.half() % 700u));
    else if (odd & 4)
        d.memory += in.half() % 700u;
    return d;
}

// The size that the server was started with: the device's own, unknown, turned, or any.
void server_size(FuzzInput &in, Config &config)
{
    const model::Device &d = config.primary;
    switch (in.below(8)) {
    case 0:
        config.requested_w = config.requested_h = -1;
        break;
    case 1:
        config.requested_w = d.height;
        config.requested_h = d.width;
        break;
    case 2:
        config.requested_w = in.between(-1, 60);
        config.requested_h = in.between(-1, 60);
        break;
    default:
        config.requested_w = d.width;
        config.requested_h = d.height;
    }
}

} // namespace

Decoder decode_start(FuzzInput in, bool hostile)
{
    Decoder d{};
    d.in = in;
    d.hostile = hostile;
    const uint8_t kinds = hostile ? d.in.last() : uint8_t{0};
    d.next_client = d.next_object = 1;
    d.config.name = "fuzzed";
    d.config.primary = device(d.in);
    d.config.second = device(d.in);
    server_size(d.in, d.config);
    if (hostile)
        decode_surroundings(d, kinds);
    return d;
}

Action decode_action(Decoder &d)
{
    enum {
        RENDER = N_DECODED_WORDS,
        TROUBLE = 32, // instead of a render, before the action
        CREATE = 36,
        CONNECT = 41,
        DRAW = 46,
        TRUNCATE = 58,
        BURST = 60,
        TOGGLE = 62
    };
    d.trouble = {};
    d.described = -1;
    if (d.burst.left > 0)
        return next_of_burst(d);
    uint8_t byte = d.in.byte();
    for (; d.hostile && byte / Decoder::SLOTS >= TROUBLE && byte / Decoder::SLOTS < CREATE; byte = d.in.byte())
        decode_trouble(d);
    const int slot = byte % Decoder::SLOTS;
    const int kind = byte / Decoder::SLOTS;
    if (kind >= RENDER && kind < CREATE)
        return {};
    if (kind >= TOGGLE)
        return toggle(kind % 2);
    if (kind >= BURST && d.slots[slot].client != 0)
        return start_burst(d, slot);
    if (kind >= DRAW)
        return change_object(d, kind >= TRUNCATE);
    if (kind >= CONNECT || d.slots[slot].client == 0)
        return connect_or_hang_up(d, slot);
    Action a = kind >= CREATE ? decode_create(d, slot) : decode_word(d, kind, slot);
    a.kind = Action::REQUEST;
    a.client = d.slots[slot].client;
    if (a.object == 0)
        decode_spoilt(d, a.arguments);
    return a;
}
