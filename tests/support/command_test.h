// SPDX-License-Identifier: MIT
// Requests handed straight to the command handler, over outputs in memory.
#pragma once

#include <initializer_list>
#include <optional>
#include <string>
#include <variant>

#include "../../src/fbserver/command.h"
#include "../../src/fbserver/connection.h"
#include "compositor_test.h"
#include "mc.h"
#include "shared_object.h"
#include "stderr_capture.h"

using Argument = std::variant<int32_t, const char *>;

class CommandTest : public CompositorTest {
protected:
    CommandTest()
    {
        open_server();
        ::fs = server;
        selected_surface_index = 0;
    }
    ~CommandTest() override
    {
        for (mc_connection *connection : connections)
            mc_close(connection);
        ::fs = nullptr;
    }

    mc_connection *connect(const char *name)
    {
        connections.push_back(mc_connection_new(-1, name));
        return connections.back();
    }

    // What libmc does when the client goes.
    void hang_up(mc_connection *connection)
    {
        std::erase(connections, connection);
        EXPECT_EQ(handle_hangup(connection), 0);
    }

    // The signature of the reply; nothing when there is none. The first integer of the reply goes to `answer`.
    std::optional<std::string> ask(mc_connection *connection, const char *word,
                                   std::initializer_list<Argument> arguments = {}, int32_t *answer = nullptr)
    {
        mc_packet *request = mc_packet_new_command(word);
        for (const Argument &argument : arguments) {
            if (const int32_t *number = std::get_if<int32_t>(&argument))
                mc_packet_build_args(request, "i", *number);
            else
                mc_packet_build_args(request, "s", std::get<const char *>(argument));
        }
        mc_packet *reply = handle_command(connection, request);
        mc_packet_free(request);
        if (reply == nullptr)
            return std::nullopt;
        const std::string signature = mc_packet_signature(reply);
        if (answer != nullptr)
            mc_packet_parse_args(reply, "i", answer);
        mc_packet_free(reply);
        return signature;
    }

    struct Create {
        int32_t alpha = 0, depth = 32;
        Place place = {10, 20, 100, 50};
        int32_t stride = 400, level = 0, rotation = 0;
    };

    std::optional<std::string> create(mc_connection *connection, const Create &c, const char *object)
    {
        return ask(
            connection, "create",
            {c.alpha, c.depth, c.place.x, c.place.y, c.place.w, c.place.h, c.stride, c.level, c.rotation, object});
    }

    // Over an object of its own.
    ImageSurface *create(mc_connection *connection, const Create &c)
    {
        SharedObject object(static_cast<size_t>(c.stride) * static_cast<size_t>(c.place.h));
        create(connection, c, object.name.c_str());
        return surface_of(connection);
    }

    static ImageSurface *surface_of(mc_connection *connection)
    {
        return static_cast<ImageSurface *>(mc_user_data(connection));
    }

    // All that a request may change, as text.
    std::string state() const
    {
        std::string text = printed([this] { fs_dump_status(server); });
        const auto add = [&text](const std::string &name, int64_t value) {
            text += name + "=" + std::to_string(value) + "\n";
        };
        const auto add_rects = [&](const std::string &name, const Rects &rects) {
            for (const Rect &r : rects) {
                for (const int32_t value : {r.x1, r.y1, r.x2, r.y2})
                    add(name, value);
            }
        };
        add("selected", selected_surface_index);
        add("pending", server->idle_source != 0);
        add("rotation", server->rotation);
        for (int32_t i = 0; i < server->n_surface; i++) {
            const ImageSurface *s = server->surfaces[i];
            add("flags", s->flags);
            add("locks", s->lock_counter);
            add("plane", s->color_plane);
            add("scaled", s->scale_state != nullptr);
            add_rects("clip", s->clip == nullptr ? Rects() : Rects{*s->clip});
            add_rects("opaque", rects_of(s->opaque_area));
            add_rects("dirty", rects_of(s->dirty_region));
            add_rects("damage", s->backend == nullptr || s->backend->damage_region == nullptr
                                    ? Rects()
                                    : rects_of(s->backend->damage_region));
        }
        return text;
    }

    std::vector<mc_connection *> connections;
};
