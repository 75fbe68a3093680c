// SPDX-License-Identifier: MIT
#include "history.h"

#include <algorithm>

namespace {

uint32_t pixel_size(uint32_t depth)
{
    return depth == 8 ? 1 : depth == 16 ? 2 : depth == 24 ? 3 : 4;
}

} // namespace

model::Device history_device(uint32_t depth, int32_t w, int32_t h, uint32_t padding, int more)
{
    model::Device d;
    d.width = w;
    d.height = h;
    d.depth = depth;
    d.stride = static_cast<uint32_t>(w) * pixel_size(depth) + padding;
    d.memory = static_cast<uint32_t>(static_cast<int>(d.stride) * h + more);
    if (depth == 18) {
        d.red = 0x3F000;
        d.green = 0xFC0;
        d.blue = 0x3F;
    } else if (depth >= 24) {
        d.red = 0xFF0000;
        d.green = 0xFF00;
        d.blue = 0xFF;
        d.alpha = depth == 32 ? 0xFF000000 : 0;
    }
    return d;
}

const std::vector<Config> &history_configs()
{
    constexpr auto device = history_device;
    static const std::vector<Config> configs = {
        {"16", 64, 48, device(16, 64, 48, 0, 0), device(32, 64, 48, 0, 0), false, true},
        {"16-padded-argb", -1, -1, device(16, 64, 48, 14, 400), device(32, 64, 48, 24, 100), true, true},
        {"16-portrait-16", 48, 64, device(16, 48, 64, 0, 0), device(16, 48, 64, 6, 0), true, true},
        {"16-larger-18", 72, 60, device(16, 48, 64, 2, -37), device(18, 60, 40, 0, 0), true, true},
        {"18", -1, -1, device(18, 64, 48, 0, 0), device(32, 64, 48, 0, 0), false, true},
        {"18-padded-18", 60, 40, device(18, 64, 48, 20, 64), device(18, 64, 48, 0, 0), true, true},
        {"18-portrait-argb", 48, 64, device(18, 48, 64, 4, 0), device(32, 48, 64, 0, 0), true, true},
        {"32", 64, 48, device(32, 64, 48, 0, 0), device(32, 64, 48, 0, 0), false, true},
        {"32-padded-argb", -1, -1, device(32, 64, 48, 28, 77), device(32, 64, 48, 8, 0), true, true},
        {"32-portrait-16", -1, -1, device(32, 40, 56, 0, 0), device(16, 44, 50, 0, 0), true, true},
        {"32-larger-argb", 70, 64, device(32, 64, 48, 6, -600), device(32, 40, 30, 0, -6), true, true},
        {"32-upright-argb", 64, 48, device(32, 64, 48, 0, 0), device(32, 64, 48, 0, 0), true, false},
        {"24-packed-8", 64, 48, device(24, 64, 48, 0, 0), device(8, 64, 48, 0, -3), true, true},
        {"no-height", 64, -1, device(16, 64, 48, 0, 0), device(32, 64, 48, 0, 0), true, true},
        {"empty", 0, 40, device(32, 64, 48, 0, 0), device(16, 64, 48, 0, 0), true, true},
    };
    return configs;
}

model::Model history_model(const Config &config)
{
    model::Model m = model::model_new(config.requested_w, config.requested_h, config.primary, config.second);
    // What a device shows before the server opens it.
    history_draw(m.outputs[model::PRIMARY].frame.bytes.data(), m.outputs[model::PRIMARY].frame.bytes.size(), 0, 1);
    history_draw(m.outputs[model::SECOND].frame.bytes.data(), m.outputs[model::SECOND].frame.bytes.size(), 0, 2);
    return m;
}

uint64_t Random::next()
{
    uint64_t z = state += 0x9E3779B97F4A7C15u;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9u;
    z = (z ^ z >> 27) * 0x94D049BB133111EBu;
    return z ^ z >> 31;
}

void history_draw(uint8_t *data, size_t size, int style, uint32_t seed)
{
    Random random = {seed};
    uint32_t word = static_cast<uint32_t>(random.next());
    for (size_t i = 0; i < size; i++) {
        if (i % 4 == 0 && style != 1)
            word = static_cast<uint32_t>(random.next());
        if (i % 4 == 0 && style == 2)
            word |= 0xFF000000u;
        uint32_t byte = word >> i % 4 * 8 & 255;
        uint32_t alpha = word >> 24;
        // Style 3: premultiplied, with alphas of all kinds.
        data[i] = static_cast<uint8_t>(style == 3 && i % 4 != 3 ? byte * alpha / 255 : byte);
    }
}

model::Reply history_tell(model::Model &m, const Action &action, const std::string &object_name,
                          const model::ClientMemory *memory)
{
    bool there = m.clients.count(action.client) != 0;
    switch (action.kind) {
    case Action::CONNECT:
        model_connect(m, action.client, action.word);
        break;
    case Action::REQUEST: {
        if (!there)
            break;
        std::vector<model::Argument> arguments = action.arguments;
        if (action.object && !arguments.empty() && arguments.back().type == 's')
            arguments.back().text = object_name;
        if (action.makes)
            m.shared_memory[object_name] = memory;
        return model_request(m, action.client, action.word, arguments);
    }
    case Action::HANG_UP:
        if (there)
            model_hangup(m, action.client);
        break;
    case Action::RENDER:
        model_render_if_pending(m);
        break;
    case Action::TOGGLE_DEVICE:
        m.outputs[action.device].broken = !m.outputs[action.device].broken;
        break;
    case Action::DRAW:
    case Action::TRUNCATE:
        break;
    }
    return {};
}

std::string history_text(const History &history)
{
    std::string text;
    for (const Action &a : history) {
        std::string who = "client " + std::to_string(a.client) + ": ";
        if (a.makes)
            text += "  object #" + std::to_string(a.object) + " of " + std::to_string(a.size) + " bytes, style " +
                    std::to_string(a.style) + " seed " + std::to_string(a.seed) + "\n";
        switch (a.kind) {
        case Action::CONNECT:
            text += "  " + who + "connect \"" + a.word + "\"\n";
            break;
        case Action::REQUEST:
            text += "  " + who + a.word;
            for (const model::Argument &argument : a.arguments)
                text += argument.type == 'i' ? " " + std::to_string(argument.number)
                        : a.object           ? " #" + std::to_string(a.object)
                                             : " \"" + argument.text + "\"";
            text += "\n";
            break;
        case Action::HANG_UP:
            text += "  " + who + "hang up\n";
            break;
        case Action::DRAW:
            text += "  draw object #" + std::to_string(a.object) + " style " + std::to_string(a.style) + " seed " +
                    std::to_string(a.seed) + "\n";
            break;
        case Action::TRUNCATE:
            text += "  truncate object #" + std::to_string(a.object) + " to " + std::to_string(a.size) + "\n";
            break;
        case Action::RENDER:
            text += "  main loop\n";
            break;
        case Action::TOGGLE_DEVICE:
            text += std::string("  device ") + (a.device == model::SECOND ? "fb2" : "fb") + " breaks or is mended\n";
            break;
        }
    }
    return text;
}
