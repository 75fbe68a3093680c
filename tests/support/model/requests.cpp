// SPDX-License-Identifier: MIT
#include "model.h"

#include <cstdarg>

namespace model {

void print(std::string &text, const char *format, ...)
{
    char line[512];
    va_list list;
    va_start(list, format);
    vsnprintf(line, sizeof line, format, list);
    va_end(list);
    text += line;
}

Surface *model_surface(Model &m, int id)
{
    for (Surface &s : m.surfaces) {
        if (s.id == id)
            return &s;
    }
    return nullptr;
}

void model_connect(Model &m, int client, const std::string &name)
{
    m.clients[client] = {name, 0};
}

void model_hangup(Model &m, int client)
{
    int surface = m.clients.at(client).surface;
    if (surface)
        remove_surface(m, surface);
    m.clients.erase(client);
}

void model_render_if_pending(Model &m)
{
    if (m.pending)
        render(m);
}

std::string model_status(const Model &m)
{
    std::string text;
    print(text, "# of surface: %d\ncount of lock: %d\n", static_cast<int>(m.surfaces.size()), m.lock_count);
    int i = 0;
    for (const Surface &s : m.surfaces) {
        const char *backend = s.output == PRIMARY ? "fb" : s.output == SECOND ? "fb2" : "(null)";
        print(text, "\t[%02d]: backend = %s name=%s level=%d shown=%d dirty=%d direct=%d\n", i++, backend,
              s.name.c_str(), s.level, s.shown, s.dirty, s.direct);
        const Rect &a = s.area, &d = s.drawing_area;
        print(text, "\t\t[%d,%d] - [%d,%d]\n", a.x1, a.y1, a.x2, a.y2);
        print(text, "\t\tdrawing area: [%d,%d] - [%d,%d]\n", d.x1, d.y1, d.x2, d.y2);
        if (s.clip)
            print(text, "\t\tclip area: [%d,%d] - [%d,%d]\n", d.x1, d.y1, d.x2, d.y2);
        else
            print(text, "\t\tclip area: not set\n");
        print(text, "\t\tdepth = %d stride = %d alpha = %d\n", s.image.depth, s.image.stride, s.image.alpha);
    }
    return text;
}

namespace {

// The values when the packet carries at least the letters of `signature` in this order; else nothing is done.
bool parse(const std::vector<Argument> &arguments, const std::string &signature, int32_t *values)
{
    if (arguments.size() < signature.size())
        return false;
    for (size_t i = 0; i < signature.size(); i++) {
        if (arguments[i].type != signature[i])
            return false;
        values[i] = arguments[i].number;
    }
    return true;
}

void select_surface(Model &m, const std::string &name)
{
    m.selected = -1;
    for (size_t i = 0; i < m.surfaces.size(); i++) {
        if (m.surfaces[i].name == name) {
            m.selected = static_cast<int32_t>(i);
            return;
        }
    }
}

// The requests that speak to no surface. False: not one of them.
bool serve_general(Model &m, const std::string &word, const std::vector<Argument> &arguments)
{
    int32_t v[8];
    if (word == "status")
        m.out += model_status(m);
    else if (word == "set_surface" && parse(arguments, "s", v))
        select_surface(m, arguments[0].text);
    else if (word != "set_surface" && word != "set_color_format")
        return false;
    return true;
}

Reply color_depth(const Model &m, const Surface &s)
{
    if (s.output == NO_OUTPUT || !m.outputs[s.output].has_images)
        return std::vector<int32_t>{0};
    return std::vector<int32_t>{m.outputs[s.output].frame.depth};
}

Reply serve_surface(Model &m, Surface &s, const std::string &word, const std::vector<Argument> &arguments)
{
    int32_t v[8];
    auto takes = [&](const char *signature) { return parse(arguments, signature, v); };
    if (word == "lock_area" && takes("iiii")) {
        set_lock_area(m, s, v[0], v[1], v[2], v[3]);
        return std::vector<int32_t>{};
    }
    if (word == "get_native_color_depth")
        return color_depth(m, s);
    if (word == "unlock")
        set_unlock(m, s);
    else if (word == "dirty" && takes("iiii"))
        add_dirty(m, s, v[0], v[1], v[2], v[3]);
    else if (word == "show")
        show(m, s);
    else if (word == "hide")
        hide(m, s);
    else if (word == "move" && takes("ii"))
        move(m, s, v[0], v[1]);
    else if (word == "resize" && takes("ii"))
        resize(m, s, v[0], v[1]);
    else if (word == "set_layer" && takes("i"))
        set_level(m, s, v[0]);
    else if (word == "opaque_area" && takes("iiii"))
        s.opaque = region_of(v[0], v[1], wrap(int64_t{v[0]} + v[2]), wrap(int64_t{v[1]} + v[3]));
    else if (word == "color_plane" && takes("i"))
        s.color_plane = v[0];
    else if (word == "set_clip" && takes("iiii"))
        set_clip(m, s, v[0], v[1], v[2], v[3]);
    else if (word == "set_scale" && takes("iiiiiiii"))
        set_scale(m, s, v);
    else if (word == "set_sync" && takes("i"))
        set_sync(m, s, v[0] != 0);
    else if (word == "block_until_unlock")
        block_until_unlock(m, s);
    return {};
}

} // namespace

Reply model_request(Model &m, int client, const std::string &word, const std::vector<Argument> &arguments)
{
    Client &c = m.clients.at(client);
    Surface *target = c.surface ? model_surface(m, c.surface) : nullptr;
    if (!target && word != "create") {
        if (m.selected >= static_cast<int32_t>(m.surfaces.size())) {
            m.out += "handle_command: not yet create surface\n";
            return {};
        }
        if (m.selected >= 0)
            target = &m.surfaces[static_cast<size_t>(m.selected)];
    }
    if (word == "create") {
        create(m, c, arguments);
        return {};
    }
    if (serve_general(m, word, arguments))
        return {};
    static const char *const surface_words[] = {"lock_area",
                                                "unlock",
                                                "dirty",
                                                "show",
                                                "hide",
                                                "move",
                                                "resize",
                                                "set_layer",
                                                "set_clip",
                                                "opaque_area",
                                                "color_plane",
                                                "set_scale",
                                                "set_sync",
                                                "get_native_color_depth",
                                                "block_until_unlock"};
    bool known = false;
    for (const char *w : surface_words)
        known = known || word == w;
    if (!known)
        return {};
    if (!target) {
        m.out += "handle_command: not yet create surface\n";
        return {};
    }
    return serve_surface(m, *target, word, arguments);
}

} // namespace model
