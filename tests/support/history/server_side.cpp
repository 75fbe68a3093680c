// SPDX-License-Identifier: MIT
#include "server_side.h"

#include <cstring>

#include "../../../src/fbserver/command.h"
#include "ask.h"
#include "outputs.h"
#include "play.h"

namespace {

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
    mc_packet *packet = history_packet(a, object);
    const model::Reply reply = history_reply(handle_command(connection, packet));
    mc_packet_free(packet);
    return reply;
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
