// SPDX-License-Identifier: MIT
// Each pixel loop by itself: ours in every instruction set, memcpy over the same buffers, and pixman and libyuv where
// they have such a thing. Names are CASE/SIZE/WHO. bench/kernels.py puts the results into relation.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include <benchmark/benchmark.h>
#include <libyuv.h>
#include <pixman.h>

#include "../src/composite/composite.h"
#include "../src/kernels/kernels.h"
#include "../src/render/render.h"

namespace {

// Pixels from one row to the next, 0 where nothing lies in between.
struct Size {
    const char *name;
    int w, h, pitch;
};
constexpr Size SIZES[] = {{"16x16", 16, 16, 0},
                          {"16x16of480", 16, 16, 480},
                          {"480x272", 480, 272, 0},
                          {"800x480", 800, 480, 0},
                          {"1920x1080", 1920, 1080, 0}};

enum Content { RANDOM, TRANSPARENT, OPAQUE };

struct Picture {
    int w, h;
    int pixel_size;
    int stride; // bytes
    uint8_t *pixels;
    pixman_image_t *pixman; // null: no such format

    int pitch() const { return stride / pixel_size; }
    int64_t bytes() const { return int64_t{w} * pixel_size * h; } // without what lies between the rows
};

// What a measured call gets to see.
struct Field {
    Picture src, dst;
    FbServer server;
    ImageSurface surface; // of a refresh
    ScaleState scale;
};

using Work = void (*)(Field &);

struct Case {
    const char *name;
    int src_size, dst_size;        // bytes per pixel; 0: nothing is read there
    int dst_passes;                // 1: written; 2: read as well
    pixman_format_code_t from, to; // 0: pixman has none
    pixman_op_t op;
    Work ours, libyuv;
    Content content;
    bool turned;
    double scale; // destination pixels per source pixel
};

// ---- ours ----

template <auto converter> void run(Field &f)
{
    converter(&f.server, f.src.pixels, f.dst.pixels, 0, 0, 0, 0, f.src.w, f.src.h, f.src.stride, f.dst.stride);
}

void refresh(Field &f)
{
    const Rect whole{0, 0, f.src.w, f.src.h};
    region_reset(&f.surface.dirty_region, &whole);
    scale_refresh(&f.surface);
}

template <typename Pixel> void fill(Field &f)
{
    auto *dst = reinterpret_cast<Pixel *>(f.dst.pixels);
    if constexpr (sizeof(Pixel) == 4)
        kernels->fill_32(dst, f.dst.pitch(), 0xFF123456, f.dst.w, f.dst.h);
    else
        kernels->fill_16(dst, f.dst.pitch(), 0x1234, f.dst.w, f.dst.h);
}

void dim(Field &f)
{
    for (int y = 0; y < f.dst.h; y++)
        kernels->dim(reinterpret_cast<uint32_t *>(f.dst.pixels + y * f.dst.stride), 0x80, f.dst.w);
}

// ---- libyuv ----

void yuv_to_16(Field &f)
{
    libyuv::ARGBToRGB565(f.src.pixels, f.src.stride, f.dst.pixels, f.dst.stride, f.src.w, f.src.h);
}
void yuv_from_16(Field &f)
{
    libyuv::RGB565ToARGB(f.src.pixels, f.src.stride, f.dst.pixels, f.dst.stride, f.src.w, f.src.h);
}
void yuv_copy(Field &f)
{
    libyuv::CopyPlane(f.src.pixels, f.src.stride, f.dst.pixels, f.dst.stride, f.src.w * f.src.pixel_size, f.src.h);
}
void yuv_over(Field &f)
{
    libyuv::ARGBBlend(f.src.pixels, f.src.stride, f.dst.pixels, f.dst.stride, f.dst.pixels, f.dst.stride, f.src.w,
                      f.src.h);
}
void yuv_turn(Field &f)
{
    libyuv::ARGBRotate(f.src.pixels, f.src.stride, f.dst.pixels, f.dst.stride, f.src.w, f.src.h, libyuv::kRotate90);
}
void yuv_scale(Field &f)
{
    libyuv::ARGBScale(f.src.pixels, f.src.stride, f.src.w, f.src.h, f.dst.pixels, f.dst.stride, f.dst.w, f.dst.h,
                      libyuv::kFilterNone);
}

// ---- the cases ----

constexpr auto NONE = static_cast<pixman_format_code_t>(0);
constexpr auto X32 = PIXMAN_x8r8g8b8;
constexpr auto A32 = PIXMAN_a8r8g8b8;
constexpr auto R16 = PIXMAN_r5g6b5;
constexpr auto SRC = PIXMAN_OP_SRC;
constexpr auto OVER = PIXMAN_OP_OVER;

const Case CASES[] = {
    {"rgb_to_16", 4, 2, 1, X32, R16, SRC, run<render_rgb_to_16>, yuv_to_16, RANDOM, false, 1},
    {"rgb_to_16_90", 4, 2, 1, X32, R16, SRC, run<render_rgb_to_16_90_quiet>, nullptr, RANDOM, true, 1},
    {"rgb_to_16_270", 4, 2, 1, X32, R16, SRC, run<render_rgb_to_16_270>, yuv_to_16, RANDOM, false, 1},
    {"rgb_to_18", 4, 4, 1, NONE, NONE, SRC, run<render_rgb_to_18>, nullptr, RANDOM, false, 1},
    {"rgb_to_18_90", 4, 4, 1, NONE, NONE, SRC, run<render_rgb_to_18_90>, nullptr, RANDOM, false, 1},
    {"rgb_to_18_270", 4, 4, 1, NONE, NONE, SRC, run<render_rgb_to_18_270>, nullptr, RANDOM, false, 1},
    {"over_random", 4, 4, 2, A32, X32, OVER, run<render_argb_to_32>, yuv_over, RANDOM, false, 1},
    {"over_transparent", 4, 4, 2, A32, X32, OVER, run<render_argb_to_32>, yuv_over, TRANSPARENT, false, 1},
    {"over_opaque", 4, 4, 1, A32, X32, OVER, run<render_argb_to_32>, yuv_over, OPAQUE, false, 1},
    {"over_random_32a", 4, 4, 2, A32, A32, OVER, run<render_argb_to_32a>, yuv_over, RANDOM, false, 1},
    {"rgb_to_32", 4, 4, 1, X32, X32, SRC, run<render_rgb_to_32>, yuv_copy, RANDOM, false, 1},
    {"rgb_to_32a", 4, 4, 1, X32, A32, SRC, run<render_rgb_to_32a>, nullptr, RANDOM, false, 1},
    {"32_to_32", 4, 4, 1, X32, X32, SRC, run<render_32_to_32>, yuv_copy, RANDOM, false, 1},
    {"32_to_32_90", 4, 4, 1, X32, X32, SRC, run<render_32_to_32_90>, yuv_turn, RANDOM, true, 1},
    {"32_to_32_270", 4, 4, 1, X32, X32, SRC, run<render_32_to_32_270>, yuv_copy, RANDOM, false, 1},
    {"16_to_16", 2, 2, 1, R16, R16, SRC, run<render_16_to_16>, yuv_copy, RANDOM, false, 1},
    {"16_to_16_90", 2, 2, 1, R16, R16, SRC, run<render_16_to_16_90>, nullptr, RANDOM, true, 1},
    {"16_to_16_270", 2, 2, 1, R16, R16, SRC, run<render_16_to_16_270>, yuv_copy, RANDOM, false, 1},
    {"16_to_32", 2, 4, 1, R16, X32, SRC, run<render_16_to_32>, yuv_from_16, RANDOM, false, 1},
    {"18_to_32", 4, 4, 1, NONE, NONE, SRC, run<render_18_to_32>, nullptr, RANDOM, false, 1},
    {"16_to_18", 2, 4, 1, NONE, NONE, SRC, run<render_16_to_18>, nullptr, RANDOM, false, 1},
    {"18_to_16", 4, 2, 1, NONE, NONE, SRC, run<render_18_to_16>, nullptr, RANDOM, false, 1},
    {"argb_to_32_alpha4", 4, 4, 1, NONE, NONE, SRC, run<render_argb_to_32_alpha4>, nullptr, RANDOM, false, 1},
    {"rgb_to_32_alpha4", 4, 4, 1, NONE, NONE, SRC, run<render_rgb_to_32_alpha4>, nullptr, RANDOM, false, 1},
    {"16_to_16_x2", 2, 2, 1, R16, R16, SRC, run<render_16_to_16_x2>, nullptr, RANDOM, false, 2},
    {"rgb_to_16_x2", 4, 2, 1, X32, R16, SRC, run<render_rgb_to_16_x2>, nullptr, RANDOM, false, 2},
    {"fill_16", 0, 2, 1, NONE, NONE, SRC, fill<uint16_t>, nullptr, RANDOM, false, 1},
    {"fill_32", 0, 4, 1, NONE, NONE, SRC, fill<uint32_t>, nullptr, RANDOM, false, 1},
    {"dim", 0, 4, 2, NONE, NONE, SRC, dim, nullptr, RANDOM, false, 1},
    {"refresh_32_x2", 4, 4, 1, X32, X32, SRC, refresh, yuv_scale, RANDOM, false, 2},
    {"refresh_32_x1.6", 4, 4, 1, X32, X32, SRC, refresh, yuv_scale, RANDOM, false, 1.6},
    {"refresh_32_x0.5", 4, 4, 1, X32, X32, SRC, refresh, yuv_scale, RANDOM, false, 0.5},
    {"refresh_32_x0.8", 4, 4, 1, X32, X32, SRC, refresh, yuv_scale, RANDOM, false, 0.8},
    {"refresh_16_x2", 2, 2, 1, R16, R16, SRC, refresh, nullptr, RANDOM, false, 2},
    {"refresh_16_x1.6", 2, 2, 1, R16, R16, SRC, refresh, nullptr, RANDOM, false, 1.6},
    {"refresh_16_x0.5", 2, 2, 1, R16, R16, SRC, refresh, nullptr, RANDOM, false, 0.5},
    {"refresh_16_x0.8", 2, 2, 1, R16, R16, SRC, refresh, nullptr, RANDOM, false, 0.8},
};

// ---- setting up ----

void fill_content(const Picture &picture, Content content, int pixel_size)
{
    std::mt19937 random(1);
    auto *words = reinterpret_cast<uint32_t *>(picture.pixels);
    for (int i = 0; i < picture.stride * picture.h / 4; i++) {
        const auto word = static_cast<uint32_t>(random());
        const uint32_t alpha = word >> 24;
        const auto part = [&](int shift) { return (word >> shift & 255) * alpha / 255 << shift; };
        const uint32_t premultiplied = alpha << 24 | part(16) | part(8) | part(0);
        words[i] = pixel_size == 2     ? word
                   : content == RANDOM ? premultiplied
                   : content == OPAQUE ? word | 0xFF000000
                                       : 0;
    }
}

Picture make_picture(int w, int h, int pitch, int pixel_size, pixman_format_code_t format)
{
    Picture picture{w, h, pixel_size, pitch * pixel_size, nullptr, nullptr};
    // Room for the largest memcpy, which takes half of what is read and written: for OVER, one and a half pictures.
    const size_t size = (static_cast<size_t>(pitch) * static_cast<size_t>(h) * 6 + 4095) / 4096 * 4096;
    picture.pixels = static_cast<uint8_t *>(aligned_alloc(4096, size));
    memset(picture.pixels, 0x55, size);
    if (format != NONE)
        picture.pixman =
            pixman_image_create_bits(format, w, h, reinterpret_cast<uint32_t *>(picture.pixels), picture.stride);
    return picture;
}

void set_transform(const Field &f, const Case &c)
{
    if (f.src.pixman == nullptr || (c.scale == 1 && !c.turned))
        return;
    pixman_transform_t turn = {
        {{0, pixman_fixed_1, 0}, {-pixman_fixed_1, 0, pixman_int_to_fixed(f.src.h)}, {0, 0, pixman_fixed_1}}};
    pixman_transform_t scale;
    pixman_transform_init_scale(&scale, pixman_double_to_fixed(1 / c.scale), pixman_double_to_fixed(1 / c.scale));
    pixman_image_set_transform(f.src.pixman, c.turned ? &turn : &scale);
    pixman_image_set_filter(f.src.pixman, PIXMAN_FILTER_NEAREST, nullptr, 0);
}

void set_surface(Field &f, const Case &c)
{
    const int format = c.src_size == 4 ? XC_FORMAT_XRGB32 : XC_FORMAT_RGB16;
    const auto fixed = [](double value) { return static_cast<int32_t>(value * 65536); };
    f.scale.orig_img = xc_image_new_with_data(f.src.w, f.src.h, f.src.pixels, format, 0, 1, f.src.stride);
    f.scale.x_scale = f.scale.y_scale = fixed(c.scale);
    f.scale.x_step = f.scale.y_step = fixed(1 / c.scale);
    f.surface.area = {0, 0, f.dst.w, f.dst.h};
    f.surface.img = xc_image_new_with_data(f.dst.w, f.dst.h, f.dst.pixels, format, 0, 1, f.dst.stride);
    f.surface.scale_state = &f.scale;
    region_init(&f.surface.dirty_region, nullptr);
}

// The size is that of the larger picture.
Field *make_field(const Case &c, const Size &size)
{
    auto *f = new Field{};
    const auto by = [](int n, double factor) { return static_cast<int>(n * factor); };
    const double src_scale = std::min(1.0, 1 / c.scale);
    const double dst_scale = std::min(1.0, c.scale);
    const auto make = [&](int w, int h, int pixel_size, pixman_format_code_t format) {
        return make_picture(w, h, std::max(w, size.pitch), pixel_size, format);
    };
    const int w = size.w, h = size.h;
    f->src = make(by(w, src_scale), by(h, src_scale), c.src_size, c.from);
    f->dst = make(by(c.turned ? h : w, dst_scale), by(c.turned ? w : h, dst_scale), c.dst_size, c.to);
    f->server.native_w = f->dst.w;
    fill_content(f->src, c.content, c.src_size);
    set_transform(*f, c);
    set_surface(*f, c);
    return f;
}

void use_pixman(Field &f, pixman_op_t op)
{
    pixman_image_composite32(op, f.src.pixman, nullptr, f.dst.pixman, 0, 0, 0, 0, 0, 0, f.dst.w, f.dst.h);
}

// Bytes read and written. A picture that is made smaller is read in whole rows.
int64_t traffic(const Field &f, const Case &c)
{
    const int64_t rows = c.scale < 1 ? f.dst.h : f.src.h;
    return rows * f.src.w * f.src.pixel_size + int64_t{c.dst_passes} * f.dst.bytes();
}

// Made when somebody first asks for it: all of them take half a gigabyte.
class LateField {
public:
    LateField(const Case &of, const Size &in) : c(of), size(in) {}
    Field &get()
    {
        if (field == nullptr)
            field = make_field(c, size);
        return *field;
    }

private:
    const Case &c;
    const Size &size;
    Field *field = nullptr;
};

template <typename Body> void add(const Case &c, LateField *late, const std::string &name, Body body)
{
    benchmark::RegisterBenchmark(name.c_str(), [=, &c](benchmark::State &state) {
        Field &f = late->get();
        const int64_t bytes = traffic(f, c);
        for (auto _ : state) {
            body(f, bytes);
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * bytes);
    });
}

void add_case(const Case &c, const Size &size)
{
    auto *late = new LateField(c, size);
    const std::string name = std::string(c.name) + "/" + size.name + "/";
    const KernelList list = kernels_available();
    for (int i = 0; i < list.count; i++) {
        const Kernels *set = list.sets[i];
        add(c, late, name + set->name, [=, &c](Field &f, int64_t) {
            kernels = set;
            c.ours(f);
        });
    }
    add(c, late, name + "memcpy",
        [](Field &f, int64_t bytes) { memcpy(f.dst.pixels, f.src.pixels, static_cast<size_t>(bytes / 2)); });
    if (c.from != NONE)
        add(c, late, name + "pixman", [&c](Field &f, int64_t) { use_pixman(f, c.op); });
    if (c.libyuv != nullptr)
        add(c, late, name + "libyuv", [&c](Field &f, int64_t) { c.libyuv(f); });
}

} // namespace

int main(int argc, char **argv)
{
    for (const Case &c : CASES) {
        for (const Size &size : SIZES)
            add_case(c, size);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
