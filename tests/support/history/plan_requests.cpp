// SPDX-License-Identifier: MIT
// Words and arguments: mostly such as change the picture, some that are odd.
#include "plan.h"

#include <algorithm>

using model::Argument;
using model::Surface;

namespace {

Argument number(int32_t value)
{
    return {'i', value, {}};
}

Argument text(const std::string &value)
{
    return {'s', 0, value};
}

int32_t extreme(Random &r)
{
    static const int32_t values[] = {INT32_MIN, INT32_MIN + 1, INT32_MAX, INT32_MAX - 20, 0,     -1,     1,     32767,
                                     32768,     -32768,        -32769,    65535,          65536, 100000, 40000, -40000};
    int i = r.below(18);
    return i < 16 ? values[i] : static_cast<int32_t>(r.next());
}

int32_t across(Planner &p)
{
    return std::max(p.m.w, 8);
}

int32_t down(Planner &p)
{
    return std::max(p.m.h, 8);
}

int32_t place(Planner &p, int32_t size)
{
    if (p.random.chance(1))
        return extreme(p.random);
    if (p.random.chance(1)) // at the rim of what regions hold
        return p.random.chance(50) ? INT16_MAX - p.random.below(30) : INT16_MIN - p.random.below(30);
    return p.random.chance(70) ? p.random.between(0, size - 1) : p.random.between(-20, size + 10);
}

int32_t length(Planner &p, int32_t size)
{
    if (p.random.chance(1))
        return extreme(p.random);
    return p.random.chance(20) ? p.random.between(-2, size + 10) : p.random.between(1, size);
}

} // namespace

std::vector<Argument> plan_rectangle(Planner &p)
{
    if (p.random.chance(8))
        return {number(0), number(0), number(across(p)), number(down(p))};
    return {number(place(p, across(p))), number(place(p, down(p))), number(length(p, across(p))),
            number(length(p, down(p)))};
}

namespace {

void add(std::vector<Argument> &to, const std::vector<Argument> &more)
{
    to.insert(to.end(), more.begin(), more.end());
}

std::string connection_name(Planner &p)
{
    static const char *const primary[] = {"fb", "fb.a", "fb.b", "menu", "xemul", "fb20", ".fb.x", "fb3.y"};
    static const char *const second[] = {"fb2", "fb2.a", "fb2.b", "..fb2.z"};
    static const char *const odd[] = {"x", "x.a", "", "...", "x..b", "xx"};
    if (p.random.chance(6))
        return odd[p.random.below(6)];
    if (p.config.layers && p.random.chance(45))
        return second[p.random.below(4)];
    return primary[p.random.below(8)];
}

} // namespace

Action plan_connect(Planner &p)
{
    Action a;
    a.kind = Action::CONNECT;
    a.client = p.next_client++;
    a.word = connection_name(p);
    return a;
}

namespace {

int32_t new_rotation(Planner &p)
{
    static const int32_t angles[] = {0, 90, 270};
    if (p.random.chance(1) && p.random.chance(20))
        return p.random.chance(50) ? 180 : 45;
    if (p.config.turns && p.random.chance(10))
        return angles[p.random.below(3)];
    return p.m.rotation;
}

} // namespace

Action plan_create(Planner &p, int client)
{
    Random &r = p.random;
    static const int32_t depths[] = {32, 32, 32, 16, 16, 18};
    static const int32_t odd_depths[] = {24, 0, 8, -1};
    int32_t depth = r.chance(3) ? odd_depths[r.below(4)] : depths[r.below(6)];
    int32_t w = r.chance(25) ? across(p) : length(p, across(p)), h = r.chance(25) ? down(p) : length(p, down(p));
    if (w < 1 && !r.chance(10))
        w = 1 + r.below(20);
    if (h < 1 && !r.chance(10))
        h = 1 + r.below(20);
    int64_t row = int64_t{w} * (depth == 16 ? 2 : 4);
    int32_t stride = model::wrap(row + (r.chance(25) ? r.between(0, 12) : 0));
    if (r.chance(2))
        stride = r.chance(50) ? extreme(r) : r.between(1, 100);
    int64_t bytes = model::wrap(int64_t{stride} * h);
    if (bytes < 1 || bytes > 1 << 20)
        bytes = r.between(1, 20000);
    if (r.chance(30))
        bytes += r.between(1, 600);
    else if (r.chance(3))
        bytes = r.between(0, static_cast<int>(bytes));
    Action a;
    a.kind = Action::REQUEST;
    a.client = client;
    a.word = "create";
    a.object = p.next_object++;
    a.makes = !r.chance(1) || !r.chance(30);
    a.size = static_cast<uint32_t>(bytes);
    a.seed = static_cast<uint32_t>(r.next());
    a.style = r.below(4);
    a.arguments = {number(r.chance(60) ? (r.chance(20) ? extreme(r) : 1) : 0),
                   number(depth),
                   number(r.chance(25) ? 0 : place(p, across(p))),
                   number(r.chance(25) ? 0 : place(p, down(p))),
                   number(w),
                   number(h),
                   number(stride),
                   number(r.chance(2) ? extreme(r) : r.below(4)),
                   number(new_rotation(p)),
                   text("#")};
    return a;
}

namespace {

Surface *surface_of(Planner &p, int client)
{
    int id = p.m.clients.at(client).surface;
    return id ? model_surface(p.m, id) : nullptr;
}

std::vector<Argument> scale_arguments(Planner &p, int client)
{
    Random &r = p.random;
    Surface *s = surface_of(p, client);
    int32_t w = 20, h = 20;
    const model::Image *image = !s ? nullptr : s->scale && r.chance(80) ? &s->scale->original : &s->image;
    if (image && image->width < 200 && image->height < 200) {
        w = image->width;
        h = image->height;
    }
    std::vector<Argument> arguments;
    if (r.chance(20)) {
        add(arguments, plan_rectangle(p));
        add(arguments, plan_rectangle(p));
        return arguments;
    }
    int32_t sw = r.chance(30) ? w : r.between(1, w), sh = r.chance(30) ? h : r.between(1, h);
    int32_t sx = r.between(0, w - sw), sy = r.between(0, h - sh + (r.chance(10) ? 5 : 0));
    if (r.chance(3))
        sx -= r.below(10);
    int32_t dw = r.chance(30) ? sw * 2 : length(p, across(p)), dh = r.chance(30) ? sh * 2 : length(p, down(p));
    if (r.chance(20)) {
        dw = sw;
        dh = sh;
    }
    if (r.chance(3)) // a row of so many pixels wraps 32 bits in bytes
        dw = 0x40000000 + r.below(20);
    return {number(sx), number(sy), number(sw), number(sh), number(place(p, across(p))), number(place(p, down(p))),
            number(dw), number(dh)};
}

int32_t plane(Random &r)
{
    uint32_t colour = static_cast<uint32_t>(r.next());
    switch (r.below(6)) {
    case 0:
        return static_cast<int32_t>(colour);
    case 1:
        return static_cast<int32_t>(colour | 0xFF000000u);
    case 2:
        return static_cast<int32_t>(colour | 0xFFFFFFu);
    default:
        return -1;
    }
}

std::string surface_name(Planner &p)
{
    if (p.m.surfaces.empty() || p.random.chance(15))
        return p.random.chance(50) ? "nobody" : "fb";
    return p.m.surfaces[static_cast<size_t>(p.random.below(static_cast<int>(p.m.surfaces.size())))].name;
}

struct Word {
    const char *word;
    int weight;
    std::vector<Argument> (*arguments)(Planner &p, int client);
};

std::vector<Argument> none(Planner &, int)
{
    return {};
}

std::vector<Argument> one_rectangle(Planner &p, int)
{
    return plan_rectangle(p);
}

// Damage in the surface's own coordinates, often all of it.
std::vector<Argument> dirty_rectangle(Planner &p, int client)
{
    const Surface *s = surface_of(p, client);
    if (s && p.random.chance(30))
        return {number(0), number(0), number(s->image.width), number(s->image.height)};
    if (s && p.random.chance(50) && s->image.width < 200 && s->image.height < 200)
        return {number(p.random.below(s->image.width)), number(p.random.below(s->image.height)),
                number(p.random.between(1, s->image.width)), number(p.random.between(1, s->image.height))};
    return plan_rectangle(p);
}

std::vector<Argument> clip_rectangle(Planner &p, int client)
{
    const Surface *s = surface_of(p, client);
    if (s && s->clip && p.random.chance(20))
        return {number(s->clip->x1), number(s->clip->y1), number(model::wrap(int64_t{s->clip->x2} - s->clip->x1)),
                number(model::wrap(int64_t{s->clip->y2} - s->clip->y1))};
    if (s && s->clip && p.random.chance(20)) { // all but one value as they are
        std::vector<Argument> near = {number(s->clip->x1), number(s->clip->y1),
                                      number(model::wrap(int64_t{s->clip->x2} - s->clip->x1)),
                                      number(model::wrap(int64_t{s->clip->y2} - s->clip->y1))};
        near[static_cast<size_t>(p.random.below(4))] = number(p.random.between(1, 30));
        return near;
    }
    if (p.random.chance(30))
        return {number(-5), number(-5), number(200), number(200)};
    return plan_rectangle(p);
}

std::vector<Argument> new_place(Planner &p, int client)
{
    const Surface *s = surface_of(p, client);
    if (s && p.random.chance(10))
        return {number(s->area.x1), number(s->area.y1)};
    return {number(place(p, across(p))), number(place(p, down(p)))};
}

std::vector<Argument> new_size(Planner &p, int client)
{
    const Surface *s = surface_of(p, client);
    int32_t w = s ? std::min(s->image.width, 300) : 20, h = s ? std::min(s->image.height, 300) : 20;
    if (p.random.chance(5))
        return {number(length(p, w)), number(length(p, h))};
    if (p.random.chance(30))
        return {number(w), number(h)};
    return {number(p.random.between(1, w)), number(p.random.between(1, h))};
}

std::vector<Argument> level(Planner &p, int)
{
    return {number(p.random.chance(2) ? extreme(p.random) : p.random.below(4))};
}

std::vector<Argument> plane_value(Planner &p, int)
{
    return {number(plane(p.random))};
}

std::vector<Argument> name_of_surface(Planner &p, int)
{
    return {text(surface_name(p))};
}

std::vector<Argument> on_or_off(Planner &p, int)
{
    return {number(p.random.chance(5) ? extreme(p.random) : p.random.below(2))};
}

const Word words[] = {
    {"dirty", 24, dirty_rectangle},
    {"show", 20, none},
    {"move", 14, new_place},
    {"hide", 8, none},
    {"set_clip", 8, clip_rectangle},
    {"set_layer", 8, level},
    {"set_scale", 8, scale_arguments},
    {"opaque_area", 8, one_rectangle},
    {"resize", 7, new_size},
    {"lock_area", 5, dirty_rectangle},
    {"unlock", 5, none},
    {"color_plane", 7, plane_value},
    {"status", 3, none},
    {"set_surface", 3, name_of_surface},
    {"set_sync", 3, on_or_off},
    {"get_native_color_depth", 3, none},
    {"block_until_unlock", 1, none},
    {"set_color_format", 1, level},
    {"unknown_word", 1, none},
};

void spoil(Planner &p, std::vector<Argument> &arguments)
{
    int kind = p.random.below(100);
    if (kind < 1 && !arguments.empty())
        arguments.pop_back();
    else if (kind < 2 && !arguments.empty())
        arguments[static_cast<size_t>(p.random.below(static_cast<int>(arguments.size())))] = text("7");
    else if (kind < 3)
        arguments.push_back(number(7));
}

} // namespace

Action plan_scale(Planner &p, int client)
{
    Action a;
    a.kind = Action::REQUEST;
    a.client = client;
    a.word = "set_scale";
    a.arguments = scale_arguments(p, client);
    return a;
}

Action plan_request(Planner &p, int client)
{
    int total = 0;
    for (const Word &word : words)
        total += word.weight;
    int draw = p.random.below(total);
    const Word *word = words;
    for (; draw >= word->weight; word++)
        draw -= word->weight;
    Action a;
    a.kind = Action::REQUEST;
    a.client = client;
    a.word = word->word;
    a.arguments = word->arguments(p, client);
    spoil(p, a.arguments);
    return a;
}
