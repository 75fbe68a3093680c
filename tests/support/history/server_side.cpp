// SPDX-License-Identifier: MIT
#include "server_side.h"

#include <cstring>
#include <memory>

#include "../../../src/fbserver/command.h"
#include "outputs.h"
#include "play.h"

namespace {

mc_packet *packet_of(const Action &a, const std::string &object)
{
    mc_packet *packet = mc_packet_new_command(a.word.c_str());
    for (const model::Argument &argument : a.arguments) {
        const std::string &text = a.object && &argument == &a.arguments.back() ? object : argument.text;
        if (argument.type == 'i')
            mc_packet_build_args(packet, "i", argument.number);
        else
            mc_packet_build_args(packet, "s", text.c_str());
    }
    return packet;
}

model::Reply reply_of(mc_packet *packet)
{
    if (!packet)
        return {};
    std::vector<int32_t> values;
    int32_t value = 0;
    const char *signature = mc_packet_signature(packet);
    if (strcmp(signature, "i") == 0 && mc_packet_parse_args(packet, "i", &value) == 1)
        values.push_back(value);
    else if (*signature != '\0')
        values.assign(strlen(signature), -99);
    mc_packet_free(packet);
    return values;
}

std::string records_text(const model::Model &m)
{
    std::string text;
    model::print(text, "screen %d x %d turned %d, pending %d, locks %d of which for turning %d, selected %d", m.w, m.h,
                 m.rotation, m.pending, m.lock_count, m.rotation_lock, m.selected);
    for (int which : m.in_use)
        model::print(text, "; %s: %d users, %d synchronised", which == model::SECOND ? "fb2" : "fb",
                     m.outputs[which].use_count, m.outputs[which].sync_count);
    return text;
}

std::string server_records_text()
{
    std::string text;
    model::print(text, "screen %d x %d turned %d, pending %d, locks %d of which for turning %d, selected %d", fs->w,
                 fs->h, fs->rotation, fs->idle_source != 0, fs->lock_count, fs->rotation_lock, selected_surface_index);
    for (int i = 0; i < fs->n_backend; i++)
        model::print(text, "; %s: %d users, %d synchronised", fs->backends[i]->name, fs->backends[i]->use_count,
                     fs->backends[i]->sync_count);
    return text;
}

} // namespace

model::Reply history_ask(mc_connection *connection, const Action &a, const std::string &object)
{
    // Freed also where a fuzz target leaves a failed assertion by an exception.
    std::unique_ptr<mc_packet, decltype(&mc_packet_free)> packet{packet_of(a, object), mc_packet_free};
    return reply_of(handle_command(connection, packet.get()));
}

std::string history_compare_records(const model::Model &m)
{
    std::string expected = records_text(m), found = server_records_text();
    return expected == found ? "" : different("records", expected, found);
}

std::string history_compare_memory(const model::Model &m, int which)
{
    const std::vector<uint8_t> &expected = m.outputs[which].frame.bytes;
    const uint8_t *found = memory_outputs[which].memory;
    if (expected.empty() || memcmp(expected.data(), found, expected.size()) == 0)
        return {};
    std::string text;
    size_t at = 0;
    while (expected[at] == found[at])
        at++;
    uint32_t stride = m.outputs[which].device.stride;
    model::print(text, "memory of %s differs first at byte %zu (row %zu, byte %zu of it): expected %02x, found %02x\n",
                 which == model::SECOND ? "fb2" : "fb", at, at / stride, at % stride, expected[at], found[at]);
    return text;
}
