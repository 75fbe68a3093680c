// SPDX-License-Identifier: MIT
#include "decode_request.h"

#include <algorithm>

#include "decode_trouble.h"

using model::Argument;

namespace {

constexpr int64_t MOST_SCALED_BYTES = 1 << 18;
constexpr int64_t MOST_HOSTILE_SCALED_BYTES = 1 << 21;
constexpr uint32_t MOST_OBJECT_BYTES = 1 << 18;
constexpr size_t MOST_OBJECTS = 24;
constexpr int32_t MOST_MAPPED_BYTES = 1 << 28;

// ---- values ----

int32_t extreme(FuzzInput &in)
{
    static const int32_t values[] = {INT32_MIN, INT32_MIN + 1, INT32_MAX, INT32_MAX - 20, 0,     -1,     1,     32767,
                                     32768,     -32768,        -32769,    65535,          65536, 100000, 40000, -40000};
    return values[in.below(16)];
}

// A place or a length along something that is `size` long.
int32_t number(FuzzInput &in, int32_t size)
{
    const uint8_t kind = in.byte();
    const int32_t whole = std::clamp(size, 1, 200);
    if (kind < 128)
        return kind % whole + 1;
    if (kind < 176)
        return kind - 128 - 20;
    if (kind < 208)
        return whole + kind - 192;
    if (kind < 224)
        return extreme(in);
    if (kind < 232)
        return static_cast<int16_t>(in.half());
    if (kind < 240)
        return static_cast<int32_t>(in.word());
    return kind < 248 ? 0 : whole;
}

Argument as_number(int32_t value)
{
    return {'i', value, {}};
}

Argument as_text(const std::string &value)
{
    return {'s', 0, value};
}

int32_t screen_w(const Decoder &d)
{
    return d.config.requested_w > 0 ? d.config.requested_w : d.config.primary.width;
}

int32_t screen_h(const Decoder &d)
{
    return d.config.requested_h > 0 ? d.config.requested_h : d.config.primary.height;
}

std::vector<Argument> screen_rectangle(Decoder &d)
{
    std::vector<Argument> values;
    for (int i = 0; i < 4; i++)
        values.push_back(as_number(number(d.in, i % 2 ? screen_h(d) : screen_w(d))));
    return values;
}

std::vector<Argument> surface_rectangle(Decoder &d, int slot)
{
    if (d.in.chance(64))
        return {as_number(0), as_number(0), as_number(d.slots[slot].w), as_number(d.slots[slot].h)};
    std::vector<Argument> values;
    for (int i = 0; i < 4; i++)
        values.push_back(as_number(number(d.in, i % 2 ? d.slots[slot].h : d.slots[slot].w)));
    return values;
}

// ---- requests ----

const char *const NAMES[] = {"fb",  "fb2",    "fb.a", "fb2.a", "menu", "x",    "x.a",    "",
                             "...", "..fb2.", "x..b", "fb20",  ".x",   "fb2.", "a\nb%s", "xx"};

std::string long_name()
{
    return std::string(MC_NAME_MAX, 'n');
}

int32_t rotation(FuzzInput &in)
{
    static const int32_t angles[] = {0, 90, 270, 0, 90, 270, 180, 45};
    const uint8_t kind = in.byte();
    return kind < 192 ? 0 : kind < 254 ? angles[kind % 8] : static_cast<int32_t>(in.word());
}

int32_t stride(FuzzInput &in, int64_t row)
{
    const uint8_t kind = in.byte();
    if (kind < 160)
        return model::wrap(row);
    if (kind < 208)
        return model::wrap(row + kind % 16);
    return number(in, 200);
}

// A machine of 32 bits may not have the addresses for more, which the model does not know.
int32_t mappable(const Decoder &d, int32_t pitch, int32_t h)
{
    if (d.hostile || model::wrap(int64_t{pitch} * h) <= MOST_MAPPED_BYTES)
        return pitch;
    return h <= MOST_MAPPED_BYTES ? 1 : 0;
}

uint32_t object_size(FuzzInput &in, int64_t bytes)
{
    bytes = std::clamp<int64_t>(bytes, 0, MOST_OBJECT_BYTES);
    const uint8_t kind = in.byte();
    if (kind < 192)
        return static_cast<uint32_t>(bytes);
    if (kind < 224)
        return static_cast<uint32_t>(bytes + in.half() % 600);
    return static_cast<uint32_t>(in.word() % static_cast<uint32_t>(bytes + 1));
}

// The bytes that the scaled image takes; a server of this size is busy for a while, but not wrong.
bool is_too_large(const std::vector<Argument> &scale, int64_t most_bytes)
{
    const int64_t pixels = int64_t{scale[6].number} * scale[7].number;
    const bool has_sizes = scale[6].number > 0 && scale[7].number > 0;
    return has_sizes && pixels > most_bytes / 4 && pixels <= INT32_MAX / 2;
}

std::vector<Argument> scale_arguments(Decoder &d, int slot)
{
    std::vector<Argument> values = surface_rectangle(d, slot);
    const std::vector<Argument> target = screen_rectangle(d);
    values.insert(values.end(), target.begin(), target.end());
    if (is_too_large(values, d.hostile ? MOST_HOSTILE_SCALED_BYTES : MOST_SCALED_BYTES))
        values[6] = values[7] = as_number(1);
    return values;
}

std::vector<Argument> color(Decoder &d, int)
{
    static const uint32_t colors[] = {0xFFFFFFFF, 0x80FFFFFF, 0x00FFFFFF, 0xFF204060, 0xFF000000, 0x80102030};
    const uint8_t kind = d.in.byte();
    return {as_number(static_cast<int32_t>(kind < 192 ? colors[kind % 6] : d.in.word()))};
}

std::vector<Argument> no_arguments(Decoder &, int)
{
    return {};
}

template <int32_t size> std::vector<Argument> one_number(Decoder &d, int)
{
    return {as_number(number(d.in, size))};
}

std::vector<Argument> on_or_off(Decoder &d, int)
{
    return {as_number(d.in.byte() & 1)};
}

std::vector<Argument> place(Decoder &d, int)
{
    return {as_number(number(d.in, screen_w(d))), as_number(number(d.in, screen_h(d)))};
}

std::vector<Argument> size_of_surface(Decoder &d, int slot)
{
    return {as_number(number(d.in, d.slots[slot].w)), as_number(number(d.in, d.slots[slot].h))};
}

std::vector<Argument> name(Decoder &d, int)
{
    const uint8_t kind = d.in.byte();
    if (d.hostile && kind >= 244)
        return {as_text(decode_text(d.in, MC_NAME_MAX + 2))};
    return {as_text(kind % 17 < 16 ? NAMES[kind % 17] : long_name())};
}

std::vector<Argument> any_rectangle(Decoder &d, int)
{
    return screen_rectangle(d);
}

struct Word {
    const char *word;
    std::vector<Argument> (*arguments)(Decoder &d, int slot);
};

// Some more than once: they come more often.
const Word WORDS[] = {
    {"show", no_arguments},
    {"show", no_arguments},
    {"dirty", surface_rectangle},
    {"dirty", surface_rectangle},
    {"move", place},
    {"move", place},
    {"hide", no_arguments},
    {"resize", size_of_surface},
    {"set_layer", one_number<4>},
    {"opaque_area", surface_rectangle},
    {"color_plane", color},
    {"set_clip", any_rectangle},
    {"set_clip", any_rectangle},
    {"set_scale", scale_arguments},
    {"set_scale", scale_arguments},
    {"set_surface", name},
    {"set_sync", on_or_off},
    {"lock_area", surface_rectangle},
    {"unlock", no_arguments},
    {"block_until_unlock", no_arguments},
    {"status", no_arguments},
    {"get_native_color_depth", no_arguments},
    {"set_color_format", one_number<8>},
    {"no_such_word", any_rectangle},
};

std::vector<Argument> any_arguments(FuzzInput &in)
{
    std::vector<Argument> arguments(static_cast<size_t>(in.below(MC_ARGS_MAX + 2)));
    for (Argument &argument : arguments)
        argument = in.chance(64) ? as_text(decode_text(in, 30)) : as_number(number(in, 100));
    return arguments;
}
static_assert(sizeof WORDS / sizeof *WORDS == N_DECODED_WORDS);

} // namespace

std::string decode_name(Decoder &d)
{
    return name(d, 0)[0].text;
}

Action decode_word(Decoder &d, int which, int slot)
{
    Action a;
    a.word = WORDS[which].word;
    a.arguments = WORDS[which].arguments(d, slot);
    return a;
}

Action decode_create(Decoder &d, int slot)
{
    static const int32_t depths[] = {32, 32, 32, 16, 16, 18, 18, 24};
    FuzzInput &in = d.in;
    const uint8_t kinds = in.byte();
    const int32_t depth = depths[kinds % 8];
    const int32_t x = kinds & 8 ? number(in, screen_w(d)) : 0;
    const int32_t y = kinds & 8 ? number(in, screen_h(d)) : 0;
    const int32_t w = kinds & 16 ? number(in, screen_w(d)) : screen_w(d);
    const int32_t h = kinds & 16 ? number(in, screen_h(d)) : screen_h(d);
    const int32_t pitch = mappable(d, stride(in, int64_t{w} * (depth == 16 ? 2 : 4)), h);
    const int32_t level = kinds & 32 ? number(in, 4) : 0;
    const int32_t alpha = kinds & 64 ? 0 : kinds & 128 ? 2 : 1;
    Action a;
    a.word = "create";
    a.arguments = {as_number(alpha), as_number(in.chance(4) ? number(in, 32) : depth),
                   as_number(x),     as_number(y),
                   as_number(w),     as_number(h),
                   as_number(pitch), as_number(level)};
    a.arguments.push_back(as_number(rotation(in)));
    a.arguments.push_back(as_text("#"));
    const uint8_t object = in.byte();
    if (object < 248 && d.objects.size() < MOST_OBJECTS) {
        a.object = d.next_object++;
        a.makes = true;
        a.size = object_size(in, model::wrap(int64_t{pitch} * h));
        a.seed = in.byte();
        a.style = static_cast<int>(a.seed % 4);
        d.objects.push_back({a.object, a.size});
    } else if (object < 252 && !d.objects.empty()) { // a name that the server has taken, or refused
        a.object = d.objects.back().number;
    } else {
        a.arguments.back().text = object % 2 ? "" : "/nothing";
        if (d.hostile && object == 255)
            a.arguments.back().text = decode_text(in, MC_PACKET_MAX);
    }
    d.slots[slot].w = w;
    d.slots[slot].h = h;
    return a;
}

void decode_spoilt(Decoder &d, std::vector<Argument> &arguments)
{
    FuzzInput &in = d.in;
    const uint8_t kind = in.byte();
    if (kind < 8 && !arguments.empty())
        arguments.resize(kind % arguments.size());
    else if (kind < 12 && !arguments.empty())
        arguments[kind % arguments.size()] = as_text("7");
    else if (kind < 16)
        arguments.push_back(as_number(7));
    else if (d.hostile && kind < 20)
        arguments = any_arguments(in);
}
