// SPDX-License-Identifier: MIT
#include "kernel.h"

#include <algorithm>
#include <memory>

#include "../../src/kernels/kernels.h"
#include "buffer.h"

namespace {

// Sizes around the widths of vectors, and now and then a long one.
int32_t length(FuzzInput &in)
{
    const uint8_t kind = in.byte();
    return kind < 224 ? 1 + kind % 75 : 1 + kind * 3 - 600;
}

template <typename Pixel> Pixel *pixels(const Buffer &buffer)
{
    return reinterpret_cast<Pixel *>(buffer.data());
}

template <typename Pixel> Pixel *pixels(std::vector<uint8_t> &bytes)
{
    bytes.reserve(1); // a width of 0 is allowed, a pointer to nowhere is not
    return reinterpret_cast<Pixel *>(bytes.data());
}

size_t span_of(ptrdiff_t pitch, int32_t w, int32_t h, size_t unit)
{
    return (static_cast<size_t>(pitch) * static_cast<size_t>(h - 1) + static_cast<size_t>(w)) * unit;
}

// How a kernel's destination lies: as the source, every pixel twice both ways, or turned.
enum class Shape { SAME, DOUBLED, TURNED };

template <typename Src, typename Dst> void rectangle(FuzzInput &in, Kernel<Src, Dst> Kernels::*member, Shape shape)
{
    const int32_t w = length(in), h = 1 + in.below(shape == Shape::TURNED ? 40 : 6);
    const int32_t across = shape == Shape::TURNED ? h : shape == Shape::DOUBLED ? 2 * w : w;
    const int32_t down = shape == Shape::TURNED ? w : shape == Shape::DOUBLED ? 2 * h : h;
    const ptrdiff_t src_pitch = w + in.below(4);
    // Rows of a turned destination may overlap: the later one counts.
    const bool overlaps = shape == Shape::TURNED && in.chance(48);
    const ptrdiff_t dst_pitch = overlaps ? in.below(across) : across + in.below(4);
    const Buffer src(span_of(src_pitch, w, h, sizeof(Src)), in, sizeof(Src));
    const Buffer dst(span_of(dst_pitch, across, down, sizeof(Dst)), in, sizeof(Dst));
    const std::vector<uint8_t> source = src.bytes();
    std::vector<uint8_t> expected = dst.bytes();
    (kernels_plain.*member)(pixels<Src>(src), src_pitch, pixels<Dst>(expected), dst_pitch, w, h);
    (kernels->*member)(pixels<Src>(src), src_pitch, pixels<Dst>(dst), dst_pitch, w, h);
    dst.check(expected, kernels->name);
    src.check(source, kernels->name);
}

void copy(FuzzInput &in)
{
    const int32_t size = length(in) * (1 + in.below(8)), h = 1 + in.below(6);
    const ptrdiff_t src_pitch = size + in.below(4), dst_pitch = size + in.below(4);
    const Buffer src(span_of(src_pitch, size, h, 1), in, 1);
    const Buffer dst(span_of(dst_pitch, size, h, 1), in, 1);
    std::vector<uint8_t> expected = dst.bytes();
    const auto bytes = static_cast<size_t>(size);
    kernels_plain.copy(src.data(), src_pitch, expected.data(), dst_pitch, bytes, h);
    kernels->copy(src.data(), src_pitch, dst.data(), dst_pitch, bytes, h);
    dst.check(expected, kernels->name);
}

template <typename Pixel> void fill(FuzzInput &in, FillKernel<Pixel> Kernels::*member)
{
    const int32_t w = length(in) - 1;
    const int32_t h = 1 + in.below(4);
    const ptrdiff_t pitch = w + in.below(4);
    const Buffer area(span_of(pitch, w, h, sizeof(Pixel)), in, sizeof(Pixel));
    std::vector<uint8_t> expected = area.bytes();
    const auto value = static_cast<Pixel>(in.word());
    (kernels_plain.*member)(pixels<Pixel>(expected), pitch, value, w, h);
    (kernels->*member)(pixels<Pixel>(area), pitch, value, w, h);
    area.check(expected, kernels->name);
}

void dim(FuzzInput &in)
{
    const int32_t n = length(in) - 1;
    const Buffer row(static_cast<size_t>(n) * 4, in, 4);
    std::vector<uint8_t> expected = row.bytes();
    const uint32_t strength = in.byte();
    kernels_plain.dim(pixels<uint32_t>(expected), strength, n);
    kernels->dim(pixels<uint32_t>(row), strength, n);
    row.check(expected, kernels->name);
}

// Columns that go on by steps of the input's choice, mostly alike.
void plan_columns(FuzzInput &in, PickPlan &plan)
{
    plan.n = length(in);
    const uint8_t usual = in.byte();
    int32_t column = 0;
    for (int32_t i = 0; i < plan.n; i++) {
        plan.columns[i] = column;
        column += in.chance(32) ? in.below(12) : (usual % 64 + i % 4 * (usual / 64)) / 16;
    }
}

// Rows of one source, or each of its own.
void pick(FuzzInput &in, PickKernel Kernels::*member, int32_t size)
{
    static PickPlan plan; // large
    plan_columns(in, plan);
    const auto unit = static_cast<size_t>(size);
    const size_t src_size = static_cast<size_t>(plan.columns[plan.n - 1] + 1) * unit;
    const size_t dst_size = static_cast<size_t>(plan.n) * unit;
    const int32_t count = 1 + in.below(4);
    const bool same = in.chance(128);
    std::vector<std::unique_ptr<Buffer>> srcs;
    std::vector<std::unique_ptr<Buffer>> dsts;
    std::vector<PickRow> rows;
    for (int32_t row = 0; row < count; row++) {
        if (row == 0 || !same)
            srcs.push_back(std::make_unique<Buffer>(src_size, in, 1));
        dsts.push_back(std::make_unique<Buffer>(dst_size, in, 1));
        rows.push_back({srcs.back()->data(), dsts.back()->data()});
    }
    pick_plan_finish(&plan, size);
    (kernels->*member)(rows.data(), count, &plan);
    for (size_t row = 0; row < rows.size(); row++) {
        std::vector<uint8_t> expected(dst_size);
        for (size_t i = 0; i < static_cast<size_t>(plan.n); i++)
            std::copy_n(rows[row].src + static_cast<size_t>(plan.columns[i]) * unit, unit, expected.data() + i * unit);
        dsts[row]->check(expected, kernels->name);
    }
}

using Case = void (*)(FuzzInput &in);

template <auto member> void unmoved(FuzzInput &in)
{
    rectangle(in, member, Shape::SAME);
}

template <auto member> void doubled(FuzzInput &in)
{
    rectangle(in, member, Shape::DOUBLED);
}

template <auto member> void turned(FuzzInput &in)
{
    rectangle(in, member, Shape::TURNED);
}

// Every entry of the table, but for copies.
constexpr Case CASES[] = {
    unmoved<&Kernels::rgb_to_16>,
    unmoved<&Kernels::rgb_to_18>,
    unmoved<&Kernels::rgb_to_argb>,
    unmoved<&Kernels::rgb_to_alpha4>,
    unmoved<&Kernels::argb_to_alpha4>,
    unmoved<&Kernels::over>,
    unmoved<&Kernels::from_16_to_32>,
    unmoved<&Kernels::from_16_to_18>,
    unmoved<&Kernels::from_18_to_32>,
    unmoved<&Kernels::from_18_to_16>,
    doubled<&Kernels::double_16>,
    doubled<&Kernels::double_rgb_to_16>,
    turned<&Kernels::turn_16>,
    turned<&Kernels::turn_32>,
    turned<&Kernels::turn_rgb_to_16>,
    [](FuzzInput &in) { fill(in, &Kernels::fill_16); },
    [](FuzzInput &in) { fill(in, &Kernels::fill_32); },
    dim,
    [](FuzzInput &in) { pick(in, &Kernels::pick_16, 2); },
    [](FuzzInput &in) { pick(in, &Kernels::pick_32, 4); },
};
constexpr int N_CASES = sizeof CASES / sizeof *CASES;
static_assert(sizeof(Kernels) == sizeof(const char *) + (N_CASES + 1) * sizeof(void (*)()));

} // namespace

void one_kernel(FuzzInput &in)
{
    const uint8_t which = in.byte(); // the many that choose one of the others are what inputs were found with
    (which >= 248 ? copy : CASES[which % N_CASES])(in);
}
