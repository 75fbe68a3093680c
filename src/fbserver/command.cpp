// SPDX-License-Identifier: MIT
#include "command.h"

#include <cstring>
#include <string_view>

#include "../base/output.h"
#include "create.h"

FbServer *fs;
int32_t selected_surface_index;

namespace {

constexpr int MAX_INTS = 9;

// A request on its way to its operation.
struct Call {
    mc_connection *connection;
    ImageSurface *target; // null only for words that do without
    int32_t i[MAX_INTS];  // the integers, in order; 0 where the packet had none
    const char *s;        // the string, never null
};

void select_surface(const char *name)
{
    selected_surface_index = -1;
    for (int32_t i = 0; i < fs->n_surface && selected_surface_index < 0; i++) {
        const char *candidate = fs->surfaces[i]->name;
        if (candidate != nullptr && strcmp(candidate, name) == 0)
            selected_surface_index = i;
    }
}

mc_packet *reply_color_depth(const ImageSurface *surface)
{
    const bool has_frame = surface->backend != nullptr && surface->backend->frame_img != nullptr;
    mc_packet *reply = mc_packet_new(0);
    if (reply == nullptr)
        return nullptr;
    mc_packet_build_args(reply, "i", has_frame ? surface->backend->frame_img->depth : 0);
    return reply;
}

enum class Needs {
    TARGET,    // a surface
    SELECTION, // only that there are surfaces, or that a selection failed: a client can then select again
    NOTHING,
};

struct Command {
    const char *word;
    std::string_view signature;
    Needs needs;
    bool exact; // does nothing unless all arguments are there
    mc_packet *(*run)(const Call &call);
};

// For the words that are not answered.
template <auto operation> mc_packet *no_reply(const Call &call)
{
    operation(call);
    return nullptr;
}

// Every request but "dirty", which has a way of its own: its word, its arguments, what it needs, its operation and its
// reply.
constexpr Command COMMANDS[] = {
    {"lock_area", "iiii", Needs::TARGET, true,
     [](const Call &c) {
         fs_set_lock_area(fs, c.target, c.i[0], c.i[1], c.i[2], c.i[3]);
         return mc_packet_new(0);
     }},
    {"unlock", "", Needs::TARGET, true, no_reply<[](const Call &c) { fs_set_unlock(fs, c.target); }>},
    {"show", "", Needs::TARGET, true, no_reply<[](const Call &c) { fs_show_surface(fs, c.target); }>},
    {"hide", "", Needs::TARGET, true, no_reply<[](const Call &c) { fs_hide_surface(fs, c.target); }>},
    {"move", "ii", Needs::TARGET, true, no_reply<[](const Call &c) { fs_move_surface(fs, c.target, c.i[0], c.i[1]); }>},
    {"resize", "ii", Needs::TARGET, true,
     no_reply<[](const Call &c) { fs_resize_surface(fs, c.target, c.i[0], c.i[1]); }>},
    {"set_layer", "i", Needs::TARGET, true,
     no_reply<[](const Call &c) { fs_set_level_surface(fs, c.target, c.i[0]); }>},
    {"opaque_area", "iiii", Needs::TARGET, true,
     no_reply<[](const Call &c) { fs_set_opaque_surface(fs, c.target, c.i[0], c.i[1], c.i[2], c.i[3]); }>},
    {"color_plane", "i", Needs::TARGET, true,
     no_reply<[](const Call &c) { fs_set_color_plane(fs, c.target, c.i[0]); }>},
    {"create", "iiiiiiiiis", Needs::NOTHING, false, no_reply<[](const Call &c) {
         create(c.connection,
                CreateRequest{c.i[0], c.i[1], c.i[2], c.i[3], c.i[4], c.i[5], c.i[6], c.i[7], c.i[8], c.s});
     }>},
    {"status", "", Needs::SELECTION, true, no_reply<[](const Call &) { fs_dump_status(fs); }>},
    {"set_clip", "iiii", Needs::TARGET, true,
     no_reply<[](const Call &c) { fs_set_clip(fs, c.target, c.i[0], c.i[1], c.i[2], c.i[3]); }>},
    {"set_surface", "s", Needs::SELECTION, true, no_reply<[](const Call &c) { select_surface(c.s); }>},
    {"set_scale", "iiiiiiii", Needs::TARGET, true, no_reply<[](const Call &c) {
         fs_set_scale(fs, c.target, c.i[0], c.i[1], c.i[2], c.i[3], c.i[4], c.i[5], c.i[6], c.i[7]);
     }>},
    {"set_sync", "i", Needs::TARGET, true, no_reply<[](const Call &c) { fs_set_sync(fs, c.target, c.i[0]); }>},
    {"get_native_color_depth", "", Needs::TARGET, true, [](const Call &c) { return reply_color_depth(c.target); }},
    {"block_until_unlock", "", Needs::TARGET, true,
     no_reply<[](const Call &c) { fs_block_until_unlock(fs, c.target); }>},
    {"set_color_format", "i", Needs::SELECTION, true, no_reply<[](const Call &c) { fs_set_color_format(fs, c.i[0]); }>},
};

const Command *find_command(const char *word)
{
    for (const Command &command : COMMANDS) {
        if (strcmp(word, command.word) == 0)
            return &command;
    }
    return nullptr;
}

// The arguments by the signature; returns how many there were. A string stands alone or after nine integers.
int decode(const mc_packet *request, const char *signature, Call *call)
{
    int32_t *i = call->i;
    if (signature[0] == 's')
        return mc_packet_parse_args(request, signature, &call->s);
    return mc_packet_parse_args(request, signature, &i[0], &i[1], &i[2], &i[3], &i[4], &i[5], &i[6], &i[7], &i[8],
                                &call->s);
}

// The connection's own surface, else the selected one. False when there is none to address at all.
bool find_target(const mc_connection *connection, ImageSurface **target)
{
    *target = static_cast<ImageSurface *>(mc_user_data(connection));
    if (*target != nullptr)
        return true;
    if (selected_surface_index >= fs->n_surface)
        return false;
    if (selected_surface_index >= 0)
        *target = fs->surfaces[selected_surface_index];
    return true;
}

mc_packet *refuse()
{
    out_printf("%s: not yet create surface\n", "handle_command");
    return nullptr;
}

mc_packet *run_command(mc_connection *connection, const mc_packet *request)
{
    const char *word = mc_packet_command(request);
    const Command *command = find_command(word);
    Call call{connection, nullptr, {}, ""};
    const bool any = find_target(connection, &call.target);
    const Needs needs = command != nullptr ? command->needs : Needs::SELECTION;
    if (needs != Needs::NOTHING && !any)
        return refuse();
    if (needs == Needs::TARGET && call.target == nullptr)
        return refuse();
    if (command == nullptr)
        return nullptr;
    const int wanted = static_cast<int>(command->signature.size());
    if (decode(request, command->signature.data(), &call) != wanted && command->exact)
        return nullptr;
    return command->run(call);
}

// Nearly all requests are this one. Where the signature begins says how long the word is.
bool is_dirty(const mc_packet *request)
{
    constexpr char WORD[] = "dirty";
    const char *word = mc_packet_command(request);
    return mc_packet_signature(request) - word == sizeof WORD && memcmp(word, WORD, sizeof WORD) == 0;
}

void run_dirty(const mc_connection *connection, const mc_packet *request)
{
    ImageSurface *target;
    int32_t x, y, width, height;
    if (!find_target(connection, &target) || target == nullptr)
        refuse();
    else if (mc_packet_parse_args(request, "iiii", &x, &y, &width, &height) == 4)
        fs_add_dirty(fs, target, x, y, width, height);
}

} // namespace

[[gnu::hot]] mc_packet *handle_command(mc_connection *connection, mc_packet *request)
{
    mc_packet *reply = nullptr;
    if (is_dirty(request))
        run_dirty(connection, request);
    else
        reply = run_command(connection, request);
    out_flush();
    return reply;
}
