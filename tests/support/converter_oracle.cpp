// SPDX-License-Identifier: MIT
#include "converter_oracle.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

struct Colour {
    uint32_t red, green, blue; // as wide as their format makes them
};

Colour take_apart(uint32_t pixel, uint32_t reds, uint32_t greens, uint32_t blues)
{
    return {pixel / (blues * greens) % reds, pixel / blues % greens, pixel % blues};
}
Colour from_32(uint32_t p)
{
    return take_apart(p, 256, 256, 256);
}
Colour from_16(uint32_t p)
{
    return take_apart(p, 32, 64, 32);
}
Colour from_18(uint32_t p)
{
    return take_apart(p, 64, 64, 64);
}

uint32_t to_32(uint32_t alpha, Colour c)
{
    return alpha * 16777216 + c.red * 65536 + c.green * 256 + c.blue;
}
uint32_t to_16(Colour c)
{
    return c.red * 2048 + c.green * 32 + c.blue;
}
uint32_t to_18(Colour c)
{
    return c.red * 4096 + c.green * 64 + c.blue;
}

uint32_t same(uint32_t p, uint32_t)
{
    return p;
}
uint32_t opaque(uint32_t p, uint32_t)
{
    return to_32(255, from_32(p));
}
uint32_t over(uint32_t p, uint32_t below)
{
    return over_slowly(p, below);
}
uint32_t rgb_16(uint32_t p, uint32_t)
{
    const Colour c = from_32(p);
    return to_16({c.red / 8, c.green / 4, c.blue / 8});
}
uint32_t rgb_18(uint32_t p, uint32_t)
{
    const Colour c = from_32(p);
    return to_18({c.red / 4, c.green / 4, c.blue / 4});
}
uint32_t widen_16(uint32_t p, uint32_t)
{
    const Colour c = from_16(p);
    return to_32(0, {c.red * 8, c.green * 4, c.blue * 8});
}
uint32_t widen_18(uint32_t p, uint32_t)
{
    const Colour c = from_18(p);
    return to_32(0, {c.red * 4, c.green * 4, c.blue * 4});
}
uint32_t from_16_to_18(uint32_t p, uint32_t)
{
    const Colour c = from_16(p);
    return to_18({c.red * 2, c.green, c.blue * 2});
}
uint32_t from_18_to_16(uint32_t p, uint32_t)
{
    const Colour c = from_18(p);
    return to_16({c.red / 2, c.green, c.blue / 2});
}
uint32_t alpha4(uint32_t p, uint32_t)
{
    return to_32(p / 16777216 / 16, from_32(p));
}
uint32_t opaque4(uint32_t p, uint32_t)
{
    return to_32(15, from_32(p));
}

constexpr auto UNTURNED = Placement::unturned;
constexpr auto QUARTER = Placement::quarter_turn;
constexpr auto DOUBLED = Placement::doubled;

constexpr ConverterFacts FACTS[] = {
    {"render_rgb_to_16", render_rgb_to_16, 4, 2, rgb_16, UNTURNED, false},
    {"render_rgb_to_16_90", render_rgb_to_16_90, 4, 2, rgb_16, QUARTER, true},
    {"render_rgb_to_16_90_quiet", render_rgb_to_16_90_quiet, 4, 2, rgb_16, QUARTER, false},
    {"render_rgb_to_16_270", render_rgb_to_16_270, 4, 2, rgb_16, UNTURNED, false},
    {"render_rgb_to_18", render_rgb_to_18, 4, 4, rgb_18, UNTURNED, false},
    {"render_rgb_to_18_90", render_rgb_to_18_90, 4, 4, rgb_18, UNTURNED, false},
    {"render_rgb_to_18_270", render_rgb_to_18_270, 4, 4, rgb_18, UNTURNED, false},
    {"render_argb_to_32", render_argb_to_32, 4, 4, over, UNTURNED, false},
    {"render_argb_to_32a", render_argb_to_32a, 4, 4, over, UNTURNED, false},
    {"render_rgb_to_32", render_rgb_to_32, 4, 4, same, UNTURNED, false},
    {"render_rgb_to_32a", render_rgb_to_32a, 4, 4, opaque, UNTURNED, false},
    {"render_32_to_32", render_32_to_32, 4, 4, same, UNTURNED, false},
    {"render_32_to_32_90", render_32_to_32_90, 4, 4, same, QUARTER, false},
    {"render_32_to_32_270", render_32_to_32_270, 4, 4, same, UNTURNED, false},
    {"render_16_to_16", render_16_to_16, 2, 2, same, UNTURNED, false},
    {"render_16_to_16_90", render_16_to_16_90, 2, 2, same, QUARTER, false},
    {"render_16_to_16_270", render_16_to_16_270, 2, 2, same, UNTURNED, false},
    {"render_16_to_32", render_16_to_32, 2, 4, widen_16, UNTURNED, false},
    {"render_18_to_32", render_18_to_32, 4, 4, widen_18, UNTURNED, false},
    {"render_16_to_18", render_16_to_18, 2, 4, from_16_to_18, UNTURNED, false},
    {"render_18_to_16", render_18_to_16, 4, 2, from_18_to_16, UNTURNED, false},
    {"render_argb_to_32_alpha4", render_argb_to_32_alpha4, 4, 4, alpha4, UNTURNED, false},
    {"render_rgb_to_32_alpha4", render_rgb_to_32_alpha4, 4, 4, opaque4, UNTURNED, false},
    {"render_16_to_16_x2", render_16_to_16_x2, 2, 2, same, DOUBLED, false},
    {"render_rgb_to_16_x2", render_rgb_to_16_x2, 4, 2, rgb_16, DOUBLED, false},
};

uint32_t get_pixel(const uint8_t *at, int size)
{
    uint32_t value = 0;
    for (int byte = size - 1; byte >= 0; byte--)
        value = value * 256 + at[byte];
    return value;
}

void put_pixel(uint8_t *at, int size, uint32_t value)
{
    for (int byte = 0; byte < size; byte++, value /= 256)
        at[byte] = static_cast<uint8_t>(value % 256);
}

// Byte offset of a pixel: rows are the stride apart, less what is no whole `unit`.
size_t offset(int64_t x, int64_t y, int32_t stride, int size, int unit)
{
    return static_cast<size_t>(y * (stride - stride % unit) + x * size);
}

size_t source_offset(const ConverterFacts &facts, const ConverterArguments &args, int32_t i, int32_t j)
{
    return offset(args.sx + i, args.sy + j, args.sstride, facts.src_size, facts.src_size);
}

// Of the copy (across, down) of the pixel; only the doubling converters make more than one.
size_t destination_offset(const ConverterFacts &facts, const ConverterArguments &args, int32_t i, int32_t j,
                          int32_t across, int32_t down)
{
    switch (facts.placement) {
    case Placement::unturned:
        return offset(args.dx + i, args.dy + j, args.dstride, facts.dst_size, facts.dst_size);
    case Placement::quarter_turn:
        return offset(args.native_w - 1 - args.dy - j, args.dx + i, args.dstride, facts.dst_size, facts.dst_size);
    case Placement::doubled: // counted in 32-bit words, each of them two pixels
        return offset(args.dx + i, 2 * (args.dy + j) + down, args.dstride, 4, 4) + static_cast<size_t>(2 * across);
    }
    abort();
}

int copies(const ConverterFacts &facts)
{
    return facts.placement == Placement::doubled ? 2 : 1;
}

template <typename Visit> void for_each_pixel(const ConverterArguments &args, Visit visit)
{
    for (int32_t j = 0; j < args.h; j++) {
        for (int32_t i = 0; i < args.w; i++)
            visit(i, j);
    }
}

template <typename Visit> void for_each_target(const ConverterFacts &facts, const ConverterArguments &args, Visit visit)
{
    for_each_pixel(args, [&](int32_t i, int32_t j) {
        for (int32_t copy = 0; copy < copies(facts) * copies(facts); copy++)
            visit(i, j, destination_offset(facts, args, i, j, copy % 2, copy / 2));
    });
}

uint32_t over_byte(uint32_t src, uint32_t dst, uint32_t src_alpha)
{
    return std::min(255u, src + (2 * dst * (255 - src_alpha) + 255) / 510);
}

} // namespace

std::span<const ConverterFacts> converter_facts()
{
    return FACTS;
}

const ConverterFacts &converter_facts_of(Converter run)
{
    for (const ConverterFacts &facts : FACTS) {
        if (facts.run == run)
            return facts;
    }
    fprintf(stderr, "not a converter\n");
    abort();
}

size_t bytes_read(const ConverterFacts &facts, const ConverterArguments &args)
{
    size_t end = 0;
    for_each_pixel(args, [&](int32_t i, int32_t j) {
        end = std::max(end, source_offset(facts, args, i, j) + static_cast<size_t>(facts.src_size));
    });
    return end;
}

size_t bytes_written(const ConverterFacts &facts, const ConverterArguments &args)
{
    size_t end = 0;
    for_each_target(facts, args, [&](int32_t, int32_t, size_t at) {
        end = std::max(end, at + static_cast<size_t>(facts.dst_size));
    });
    return end;
}

void convert_slowly(const ConverterFacts &facts, const ConverterArguments &args, const uint8_t *src, uint8_t *dst)
{
    for_each_target(facts, args, [&](int32_t i, int32_t j, size_t at) {
        const uint32_t from = get_pixel(src + source_offset(facts, args, i, j), facts.src_size);
        put_pixel(dst + at, facts.dst_size, facts.pixel(from, get_pixel(dst + at, facts.dst_size)));
    });
}

void convert_really(const ConverterFacts &facts, const ConverterArguments &args, const uint8_t *src, uint8_t *dst)
{
    FbServer fs = {};
    fs.native_w = args.native_w;
    const FbServer *reads_it = facts.placement == Placement::quarter_turn ? &fs : nullptr;
    facts.run(reads_it, src, dst, args.sx, args.sy, args.dx, args.dy, args.w, args.h, args.sstride, args.dstride);
}

uint32_t over_slowly(uint32_t src, uint32_t dst)
{
    const uint32_t alpha = src / 16777216;
    const Colour s = from_32(src);
    const Colour d = from_32(dst);
    return to_32(
        over_byte(alpha, dst / 16777216, alpha),
        {over_byte(s.red, d.red, alpha), over_byte(s.green, d.green, alpha), over_byte(s.blue, d.blue, alpha)});
}
