// SPDX-License-Identifier: MIT
// Kernels, converters, the rows of libxc under them, and image_render, beside the plain per-pixel rules, in every set
// of kernels that the processor has.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "../src/composite/composite.h"
#include "../src/kernels/kernels.h"
#include "../src/render/render.h"
#include "../tests/support/converter_oracle.h"
#include "support/buffer.h"
#include "support/fuzz.h"
#include "support/kernel.h"

namespace {

int32_t small(FuzzInput &in)
{
    const uint8_t kind = in.byte();
    return kind < 224 ? kind % 40 : kind * 2 - 400;
}

// ---- a converter by itself ----

void one_converter(FuzzInput &in)
{
    const auto facts_of_all = converter_facts();
    const ConverterFacts &facts = facts_of_all[in.byte() % facts_of_all.size()];
    ConverterArguments args{};
    args.w = small(in) - 1;
    args.h = small(in) - 1;
    args.sx = in.below(20);
    args.sy = in.below(6);
    args.dx = in.below(20);
    args.dy = in.below(6);
    args.native_w = args.dy + std::max(args.h, 0) + in.below(12);
    const int32_t across = facts.placement == Placement::quarter_turn ? args.native_w : args.dx + std::max(args.w, 0);
    const int32_t unit = facts.placement == Placement::doubled ? 4 : facts.dst_size;
    args.sstride = (args.sx + std::max(args.w, 0)) * facts.src_size + in.below(12);
    args.dstride = across * unit + in.below(12);
    const Buffer src(bytes_read(facts, args), in, static_cast<size_t>(facts.src_size));
    const Buffer dst(bytes_written(facts, args), in, static_cast<size_t>(facts.dst_size));
    const std::vector<uint8_t> source = src.bytes();
    std::vector<uint8_t> expected = dst.bytes();
    convert_slowly(facts, args, source.data(), expected.data());
    convert_really(facts, args, src.data(), dst.data());
    dst.check(expected, facts.name);
    src.check(source, facts.name);
}

// ---- rows ----

struct Row {
    const char *name;
    void (*run)(const uint32_t *src, uint32_t *dst, int32_t n);
    uint32_t (*pixel)(uint32_t src, uint32_t dst);
};

const Row ROWS[] = {
    {"xc_copy_pixels_rgba_to_rgba", xc_copy_pixels_rgba_to_rgba, [](uint32_t s, uint32_t) { return s; }},
    {"xc_copy_pixels_rgb_to_rgba", xc_copy_pixels_rgb_to_rgba,
     [](uint32_t s, uint32_t) { return 0xFF000000u + s % 0x1000000; }},
    {"xc_blend_pixels_rgba_to_rgba", xc_blend_pixels_rgba_to_rgba, over_slowly},
    {"xc_blend_pixels_rgba_to_rgb", xc_blend_pixels_rgba_to_rgb, over_slowly},
};

void one_row(FuzzInput &in)
{
    const Row &row = ROWS[in.below(4)];
    const int32_t n = in.byte() - 2;
    const auto size = static_cast<size_t>(std::max(n, 0)) * 4;
    const Buffer src(size, in, 4), dst(size, in, 4);
    const auto own = in.take(size); // pixels of the input itself, where there are some
    std::copy(own.begin(), own.end(), src.data());
    std::vector<uint8_t> expected = dst.bytes();
    for (size_t i = 0; i < size; i += 4) {
        uint32_t s, d;
        memcpy(&s, src.data() + i, 4);
        memcpy(&d, dst.data() + i, 4);
        d = row.pixel(s, d);
        memcpy(expected.data() + i, &d, 4);
    }
    row.run(reinterpret_cast<const uint32_t *>(src.data()), reinterpret_cast<uint32_t *>(dst.data()), n);
    dst.check(expected, row.name);
}

// ---- image_render ----

// An image of some bytes that need not hold what its size and stride say.
struct Picture {
    xc_image image;
    std::unique_ptr<Buffer> memory;
};

int32_t picture_stride(FuzzInput &in, int32_t row)
{
    static const int32_t odd[] = {0, 1, 2, 3, -1, -4, INT32_MIN, INT32_MAX, 0x40000000, 7};
    const uint8_t kind = in.byte();
    return kind < 160 ? row : kind < 224 ? row + kind % 16 : odd[kind % 10];
}

Picture picture(FuzzInput &in)
{
    static const int depths[] = {16, 18, 32, 32, 24};
    Picture p{};
    xc_image &image = p.image;
    image.width = in.between(1, 40);
    image.height = in.between(1, 30);
    image.depth = static_cast<uint8_t>(depths[in.below(5)]);
    image.flags = in.chance(128) ? XC_IMAGE_ALPHA : 0;
    image.stride = picture_stride(in, image.width * xc_image_pixel_size(&image));
    const int whole = image.width * xc_image_pixel_size(&image) * image.height;
    image.extent = static_cast<size_t>(in.chance(96) ? in.half() % (whole + 1) : whole);
    p.memory = std::make_unique<Buffer>(image.extent, in, image.depth == 16 ? 2 : 4);
    image.pixels = p.memory->data();
    return p;
}

FbServer screen(FuzzInput &in)
{
    FbServer screen{};
    static const int32_t turns[] = {0, 0, 0, 90, 90, 270, 180, 33};
    screen.rotation = turns[in.below(8)];
    screen.native_w = in.between(1, 40);
    screen.native_h = in.between(1, 30);
    const bool sideways = screen.rotation == 90 || screen.rotation == 270;
    screen.w = sideways ? screen.native_h : screen.native_w;
    screen.h = sideways ? screen.native_w : screen.native_h;
    return screen;
}

struct Rendering {
    FbServer screen;
    xc_image *src, *dst;
    std::vector<uint8_t> expected; // of dst
    int32_t x, y;
};

// The byte offset of a pixel, rows being whole pixels of an unsigned stride; -1 where there is none.
int64_t offset(const xc_image &image, int size, int64_t x, int64_t y)
{
    const int64_t pitch = static_cast<uint32_t>(image.stride) / static_cast<uint32_t>(size);
    const int64_t at = (y * pitch + x) * size;
    return at >= 0 && at + size <= static_cast<int64_t>(image.extent) ? at : -1;
}

uint32_t get(const uint8_t *at, int size)
{
    uint32_t value = 0;
    memcpy(&value, at, static_cast<size_t>(size));
    return value;
}

void pixel_slowly(Rendering &r, const ConverterFacts &facts, int32_t x, int32_t y)
{
    const bool turned = facts.placement == Placement::quarter_turn;
    const int64_t from = offset(*r.src, facts.src_size, int64_t{x} - r.x, int64_t{y} - r.y);
    const int64_t to = turned ? offset(*r.dst, facts.dst_size, int64_t{r.screen.native_w} - 1 - y, x)
                              : offset(*r.dst, facts.dst_size, x, y);
    if (from < 0 || to < 0)
        return;
    uint8_t *at = r.expected.data() + to;
    const uint32_t value =
        facts.pixel(get(static_cast<uint8_t *>(r.src->pixels) + from, facts.src_size), get(at, facts.dst_size));
    memcpy(at, &value, static_cast<size_t>(facts.dst_size));
}

// Rows that overlap show in which order pixels are written: by rows, or where the display is turned, by columns from
// the bottom up.
void rectangle_slowly(Rendering &r, const ConverterFacts &facts, const Box &box)
{
    if (facts.placement != Placement::quarter_turn) {
        for (int32_t y = box.y1; y < box.y2; y++) {
            for (int32_t x = box.x1; x < box.x2; x++)
                pixel_slowly(r, facts, x, y);
        }
        return;
    }
    for (int32_t x = box.x1; x < box.x2; x++) {
        for (int32_t y = box.y2 - 1; y >= box.y1; y--)
            pixel_slowly(r, facts, x, y);
    }
}

// Which assertion the rectangle fails, or nothing.
const char *refusal(const Rendering &r, const Box &box)
{
    if (int64_t{box.x1} - r.x != static_cast<int32_t>(int64_t{box.x1} - r.x) || box.x1 < r.x)
        return "box->x1 - x >= 0";
    if (box.y1 < r.y)
        return "box->y1 - y >= 0";
    if (box.x1 < 0)
        return "box->x1 >= 0";
    if (box.y1 < 0)
        return "box->y1 >= 0";
    if (box.x2 > r.screen.w)
        return "box->x2 <= fs->w";
    return box.y2 > r.screen.h ? "box->y2 <= fs->h" : nullptr;
}

// Returns the assertion that has to fail, or nothing.
const char *render_slowly(Rendering &r, const Region &region)
{
    if (region_is_empty(&region))
        return nullptr;
    const ConverterChoice *choice = find_converter(r.src, r.dst, r.screen.rotation);
    if (choice == nullptr)
        return "0";
    const ConverterFacts &facts = converter_facts_of(choice->run);
    for (int i = 0; i < region_num_rects(&region); i++) {
        const Box &box = region_rects(&region)[i];
        if (const char *failed = refusal(r, box))
            return failed;
        rectangle_slowly(r, facts, box);
    }
    return nullptr;
}

void read_region(FuzzInput &in, const FbServer &screen, Region &region)
{
    region_init(&region, nullptr);
    const bool beyond = in.chance(24);
    for (int i = in.below(6); i > 0; i--) {
        const Rect rect{in.below(41), in.below(41), in.below(41), in.below(41)};
        region_union_rect(&region, &region, &rect);
    }
    const Rect whole{0, 0, screen.w, screen.h};
    if (!beyond)
        region_intersect_rect(&region, &region, &whole);
}

void one_rendering(FuzzInput &in)
{
    Rendering r{};
    r.screen = screen(in);
    const Picture src = picture(in), dst = picture(in);
    xc_image src_image = src.image, dst_image = dst.image;
    r.src = &src_image;
    r.dst = &dst_image;
    r.expected = dst.memory->bytes();
    r.x = in.chance(128) ? small(in) - 30 : 0;
    r.y = in.chance(128) ? small(in) - 30 : 0;
    Region region;
    read_region(in, r.screen, region);
    const std::vector<uint8_t> source = src.memory->bytes();
    const char *expected = render_slowly(r, region);
    try {
        image_render(&r.screen, nullptr, r.src, r.dst, &region, r.x, r.y, r.screen.rotation);
        if (expected != nullptr)
            fuzz_finding("image_render: assertion `%s' did not fail", expected);
    } catch (const FailedAssertion &failed) {
        if (expected == nullptr || failed.function != "image_render" || failed.expression != expected)
            fuzz_finding("%s: assertion `%s' failed instead of `%s'", failed.function.c_str(),
                         failed.expression.c_str(), expected ? expected : "none");
    }
    region_uninit(&region);
    dst.memory->check(r.expected, "image_render");
    src.memory->check(source, "image_render");
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, data + size};
    const KernelList sets = kernels_available();
    kernels = sets.sets[size % static_cast<size_t>(sets.count)]; // any, but the same each time
    const int kind = in.below(6);
    if (kind >= 4)
        one_kernel(in);
    else if (kind == 0)
        one_converter(in);
    else if (kind == 1)
        one_row(in);
    else
        one_rendering(in);
    fuzz_printed = {};
    return 0;
}
