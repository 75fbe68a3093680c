// SPDX-License-Identifier: MIT
// The kernels of every instruction set beside the plain ones, on what the converters' own tests do not bring up: copied
// rows of every length, runs of transparent and opaque pixels, turns between pitches of every kind, colour planes, and
// the rows of scaled images.
#include <algorithm>
#include <cstring>
#include <list>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../support/converter_oracle.h"
#include "../support/guarded_buffer.h"
#include "../support/kernel_sets.h"
#include "../support/random_cases.h"

namespace {

using random_cases::between;
using random_cases::Random;

constexpr GuardedBuffer::Side SIDES[] = {GuardedBuffer::AT_START, GuardedBuffer::AT_END};

TEST(Kernels, TheFastestOfThemIsInUse)
{
    const auto sets = all_kernel_sets();
    EXPECT_EQ(sets.front(), &kernels_plain);
    EXPECT_EQ(sets.back(), kernels);
    std::set<std::string> names;
    for (const Kernels *set : sets)
        EXPECT_TRUE(names.insert(set->name).second) << set->name;
#ifdef __x86_64__
    EXPECT_EQ(names.count("sse2"), 1u);
    EXPECT_EQ(names.count("avx2"), __builtin_cpu_supports("avx2") ? 1u : 0u);
#elif defined(__aarch64__)
    EXPECT_EQ(names.count("neon"), 1u);
#endif
}

// ---- copies ----

void check_copy(const Kernels *set, size_t size, int32_t h, size_t src_more, size_t dst_more, Random &random)
{
    const auto bytes = [&](size_t more) { return (size + more) * static_cast<size_t>(h - 1) + size; };
    const GuardedBuffer::Side side = SIDES[between(random, 0, 1)];
    const GuardedBuffer src(bytes(src_more), side);
    const GuardedBuffer dst(bytes(dst_more), side);
    std::ranges::generate(src.all(), [&] { return static_cast<uint8_t>(random()); });
    std::ranges::fill(dst.all(), uint8_t{0xC3});
    std::vector<uint8_t> expected(dst.all().begin(), dst.all().end());
    uint8_t *to = expected.data() + (dst.data() - dst.all().data());
    for (size_t y = 0; y < static_cast<size_t>(h); y++)
        std::copy_n(src.data() + y * (size + src_more), size, to + y * (size + dst_more));
    set->copy(src.data(), static_cast<ptrdiff_t>(size + src_more), dst.data(), static_cast<ptrdiff_t>(size + dst_more),
              size, h);
    ASSERT_TRUE(std::ranges::equal(expected, dst.all()))
        << set->name << " " << size << " bytes + " << src_more << " to + " << dst_more << ", " << h << " rows";
}

TEST(KernelCopy, RowsOfEveryLength)
{
    Random random(8);
    for (const Kernels *set : all_kernel_sets()) {
        for (size_t size = 1; size < 700; size++) {
            const auto more = [&] { return static_cast<size_t>(between(random, 0, 1) * between(random, 0, 9)); };
            check_copy(set, size, between(random, 1, 4), more(), more(), random);
        }
    }
}

// ---- OVER ----

// Runs of random length, of pixels that hide nothing, all, or something; and of words that are no premultiplied pixels.
std::vector<uint32_t> words_in_runs(size_t n, Random &random)
{
    std::vector<uint32_t> words;
    while (words.size() < n) {
        const int kind = between(random, 0, 4);
        for (int left = between(random, 1, between(random, 0, 1) == 0 ? 5 : 90); left > 0; left--) {
            const auto word = static_cast<uint32_t>(random());
            const uint32_t made[] = {0, word | 0xFF000000, word, word & 0x00FFFFFF, 0x000000FFu << 8 * (word % 4)};
            words.push_back(made[kind]);
        }
    }
    words.resize(n);
    return words;
}

uint32_t *words_of(const GuardedBuffer &buffer)
{
    return reinterpret_cast<uint32_t *>(buffer.data());
}

void check_over(const Kernels *set, int32_t w, int32_t h, int32_t src_more, int32_t dst_more, Random &random)
{
    const int32_t src_pitch = w + src_more;
    const int32_t dst_pitch = w + dst_more;
    const auto words = [&](int32_t pitch) { return static_cast<size_t>(pitch * (h - 1) + w); };
    const GuardedBuffer::Side side = SIDES[between(random, 0, 1)];
    const GuardedBuffer src(words(src_pitch) * 4, side);
    const GuardedBuffer dst(words(dst_pitch) * 4, side);
    std::ranges::copy(words_in_runs(words(src_pitch), random), words_of(src));
    std::ranges::copy(words_in_runs(words(dst_pitch), random), words_of(dst));
    std::vector<uint32_t> expected(words_of(dst), words_of(dst) + words(dst_pitch));
    for (int32_t y = 0; y < h; y++) {
        for (int32_t x = 0; x < w; x++) {
            uint32_t &pixel = expected[static_cast<size_t>(y * dst_pitch + x)];
            pixel = over_slowly(words_of(src)[y * src_pitch + x], pixel);
        }
    }
    set->over(words_of(src), src_pitch, words_of(dst), dst_pitch, w, h);
    for (size_t i = 0; i < expected.size(); i++)
        ASSERT_EQ(words_of(dst)[i], expected[i])
            << set->name << " " << w << "x" << h << " pitches " << src_pitch << " " << dst_pitch << " word " << i;
}

TEST(KernelOver, RunsOfEveryKind)
{
    random_cases::run(400, [](Random &random) {
        const int32_t w = between(random, 1, between(random, 0, 1) == 0 ? 40 : 600);
        const int32_t h = between(random, 1, 6);
        const int32_t src_more = between(random, 0, 1) * between(random, 0, 5);
        const int32_t dst_more = between(random, 0, 1) * between(random, 0, 5);
        for (const Kernels *set : all_kernel_sets())
            check_over(set, w, h, src_more, dst_more, random);
    });
}

// One visible pixel among transparent ones and one translucent among opaque ones, at each place.
TEST(KernelOver, OnePixelAmongOthers)
{
    for (const Kernels *set : all_kernel_sets()) {
        for (const auto &[others, one] : {std::pair{0u, 0x40102030u}, {0xFF123456u, 0xFE123456u}, {0u, 1u}}) {
            for (size_t at = 0; at < 80; at++) {
                std::vector<uint32_t> src(80, others);
                std::vector<uint32_t> dst(80, 0x90807060);
                src[at] = one;
                set->over(src.data(), 80, dst.data(), 80, 80, 1);
                for (size_t i = 0; i < 80; i++)
                    ASSERT_EQ(dst[i], over_slowly(src[i], 0x90807060)) << set->name << " " << at << " " << i;
            }
        }
    }
}

// ---- rows that overlap ----

// A destination pitch below the length of its rows: the later row is the one that stays, or goes on from what the
// earlier one has left.
template <typename Src, typename Dst>
void check_overlapping(Kernel<Src, Dst> Kernels::*kernel, bool turns, Random &random)
{
    const int32_t w = between(random, 1, 60), h = between(random, 1, 60);
    const int32_t length = turns ? h : w, rows = turns ? w : h;
    const int32_t dst_pitch = between(random, 0, length - 1);
    std::vector<Src> src(static_cast<size_t>(w * h));
    std::ranges::generate(src, [&] { return static_cast<Src>(random()); });
    std::vector<Dst> before(static_cast<size_t>(dst_pitch * (rows - 1) + length));
    std::ranges::generate(before, [&] { return static_cast<Dst>(random()); });
    std::vector<Dst> expected = before;
    (kernels_plain.*kernel)(src.data(), w, expected.data(), dst_pitch, w, h);
    for (const Kernels *set : all_kernel_sets()) {
        std::vector<Dst> found = before;
        (set->*kernel)(src.data(), w, found.data(), dst_pitch, w, h);
        ASSERT_EQ(found, expected) << set->name << " " << w << "x" << h << " pitch " << dst_pitch;
    }
}

TEST(KernelRows, WhereTheyOverlapTheLaterOneStays)
{
    random_cases::run(200, [](Random &random) {
        for (const auto kernel : {&Kernels::rgb_to_18, &Kernels::rgb_to_argb, &Kernels::rgb_to_alpha4,
                                  &Kernels::argb_to_alpha4, &Kernels::over, &Kernels::from_18_to_32})
            check_overlapping(kernel, false, random);
        check_overlapping(&Kernels::rgb_to_16, false, random);
        check_overlapping(&Kernels::from_16_to_32, false, random);
        check_overlapping(&Kernels::from_16_to_18, false, random);
        check_overlapping(&Kernels::from_18_to_16, false, random);
        check_overlapping(&Kernels::turn_16, true, random);
        check_overlapping(&Kernels::turn_32, true, random);
        check_overlapping(&Kernels::turn_rgb_to_16, true, random);
    });
}

template <typename Src> void check_overlapping_double(Kernel<Src, uint16_t> Kernels::*twice, Random &random)
{
    const int32_t w = between(random, 1, 100), h = between(random, 1, 5);
    const int32_t dst_pitch = between(random, 0, 2 * w);
    std::vector<Src> src(static_cast<size_t>(w * h));
    std::ranges::generate(src, [&] { return static_cast<Src>(random()); });
    std::vector<uint16_t> expected(static_cast<size_t>(dst_pitch * (2 * h - 1) + 2 * w));
    (kernels_plain.*twice)(src.data(), w, expected.data(), dst_pitch, w, h);
    for (const Kernels *set : all_kernel_sets()) {
        std::vector<uint16_t> found(expected.size());
        (set->*twice)(src.data(), w, found.data(), dst_pitch, w, h);
        ASSERT_EQ(found, expected) << set->name << " " << w << "x" << h << " pitch " << dst_pitch;
    }
}

TEST(KernelRows, DoubledOnesThatOverlapAreThePlainOnes)
{
    random_cases::run(100, [](Random &random) {
        check_overlapping_double(&Kernels::double_16, random);
        check_overlapping_double(&Kernels::double_rgb_to_16, random);
    });
}

// ---- the quarter turn ----

// Of all pitches, those of a power of two decide which way through the rectangle is taken.
template <typename Src, typename Dst> void check_pitched_turn(Kernel<Src, Dst> Kernels::*turn, Random &random)
{
    const int32_t w = between(random, 1, 200), h = between(random, 1, 100);
    const int32_t unit = 1 << between(random, 0, 11);
    const int32_t src_pitch = (w + unit - 1) / unit * unit;
    const int32_t dst_pitch = h + between(random, 0, 1) * between(random, 0, 40);
    const auto src_pixels = static_cast<size_t>(src_pitch * (h - 1) + w);
    const auto dst_pixels = static_cast<size_t>(dst_pitch * (w - 1) + h);
    const GuardedBuffer::Side side = SIDES[between(random, 0, 1)];
    const GuardedBuffer src(src_pixels * sizeof(Src), side);
    std::ranges::generate(src.all(), [&] { return static_cast<uint8_t>(random()); });
    const auto *from = reinterpret_cast<const Src *>(src.data());
    std::vector<Dst> expected(dst_pixels, Dst{0x5A5A});
    (kernels_plain.*turn)(from, src_pitch, expected.data(), dst_pitch, w, h);
    for (const Kernels *set : all_kernel_sets()) {
        const GuardedBuffer dst(dst_pixels * sizeof(Dst), side);
        auto *to = reinterpret_cast<Dst *>(dst.data());
        std::fill_n(to, dst_pixels, Dst{0x5A5A});
        (set->*turn)(from, src_pitch, to, dst_pitch, w, h);
        ASSERT_TRUE(std::equal(expected.begin(), expected.end(), to))
            << set->name << " " << w << "x" << h << " pitches " << src_pitch << " " << dst_pitch;
    }
}

TEST(KernelTurn, PitchesOfEveryPowerOfTwo)
{
    random_cases::run(200, [](Random &random) {
        check_pitched_turn(&Kernels::turn_16, random);
        check_pitched_turn(&Kernels::turn_32, random);
        check_pitched_turn(&Kernels::turn_rgb_to_16, random);
    });
}

// ---- colour planes ----

// `more` pixels lie between the rows.
template <typename Pixel>
void check_fill(const Kernels *set, FillKernel<Pixel> fill, int32_t w, int32_t h, int32_t more, Random &random)
{
    const auto pixels = static_cast<size_t>((w + more) * (h - 1) + w);
    const GuardedBuffer dst(pixels * sizeof(Pixel), SIDES[between(random, 0, 1)],
                            static_cast<size_t>(between(random, 0, 3)) * sizeof(Pixel));
    const auto value = static_cast<Pixel>(random());
    std::ranges::fill(dst.all(), uint8_t{0xC3});
    std::vector<uint8_t> expected(dst.all().begin(), dst.all().end());
    uint8_t *to = expected.data() + (dst.data() - dst.all().data());
    for (int32_t y = 0; y < h; y++) {
        for (int32_t x = 0; x < w; x++)
            memcpy(to + static_cast<size_t>(y * (w + more) + x) * sizeof(Pixel), &value, sizeof value);
    }
    fill(reinterpret_cast<Pixel *>(dst.data()), w + more, value, w, h);
    ASSERT_TRUE(std::ranges::equal(expected, dst.all())) << set->name << " " << w << "x" << h << " + " << more;
}

TEST(KernelPlane, FillsARectangle)
{
    Random random(6);
    for (const Kernels *set : all_kernel_sets()) {
        for (int32_t w = 0; w < 200; w++) {
            const int32_t h = between(random, 1, 4), more = between(random, 0, 2);
            check_fill<uint16_t>(set, set->fill_16, w, h, more, random);
            check_fill<uint32_t>(set, set->fill_32, w, h, more, random);
        }
    }
}

uint32_t dimmed(uint32_t p, uint32_t strength)
{
    const auto part = [&](uint32_t unit) { return p / unit % 256 * strength / 256 * unit; };
    return part(65536) + part(256) + part(1);
}

// The row ends in none or some of the pixels that are no whole vector.
void check_dim(const Kernels *set, std::vector<uint32_t> pixels, uint32_t strength)
{
    pixels.resize(pixels.size() - strength % 16);
    const GuardedBuffer row(pixels.size() * 4, SIDES[strength % 2]);
    std::ranges::copy(pixels, words_of(row));
    set->dim(words_of(row), strength, static_cast<int32_t>(pixels.size()));
    for (size_t i = 0; i < pixels.size(); i++)
        ASSERT_EQ(words_of(row)[i], dimmed(pixels[i], strength)) << set->name << " " << strength << " of " << pixels[i];
}

// Each value of each byte, among others that are random and among its likes.
TEST(KernelPlane, DimsEveryValueByEveryStrength)
{
    Random random(7);
    std::vector<uint32_t> pixels;
    for (uint32_t value = 0; value < 256; value++) {
        pixels.push_back(value * 0x01010101);
        for (int shift = 0; shift < 32; shift += 8)
            pixels.push_back((static_cast<uint32_t>(random()) & ~(0xFFu << shift)) | value << shift);
    }
    pixels.resize(pixels.size() + 16, 0xFFFFFFFF); // some of them are cut off
    for (const Kernels *set : all_kernel_sets()) {
        for (uint32_t strength = 0; strength < 256; strength++)
            check_dim(set, pixels, strength);
    }
}

// ---- scaled rows ----

// Columns that go on by about `step` 65536ths of a pixel each.
PickPlan random_plan(Random &random, int32_t pixel_size)
{
    PickPlan plan = {};
    const int32_t steps[] = {0x2000,  0x8000,  0xA000,  0xE000,  0xFFFF,  0x10000,
                             0x14000, 0x18000, 0x20000, 0x24924, 0x30000, 0x90000};
    const int32_t step = steps[between(random, 0, 11)] + between(random, 0, 1) * between(random, -2, 2);
    plan.n = between(random, 0, 9) == 0 ? PICK_MOST : between(random, 1, 150);
    const int64_t fraction =
        between(random, 0, 2) == 0 ? -1 : between(random, 0, 0xFFFF); // -1: rows of 32 bits begin so
    for (int64_t i = 0; i < plan.n; i++)
        plan.columns[i] = static_cast<int32_t>(std::max<int64_t>(0, fraction + i * step) >> 16);
    // Now and then one long step among short ones.
    const int32_t far = between(random, 0, 3) == 0 ? between(random, 1, plan.n) : plan.n;
    for (int32_t i = far; i < plan.n; i++)
        plan.columns[i] += 13;
    pick_plan_finish(&plan, pixel_size);
    return plan;
}

// What a row of the plan looks like, in all the memory of `dst`.
template <typename Pixel>
std::vector<uint8_t> picked_slowly(const uint8_t *src, const GuardedBuffer &dst, const PickPlan &plan)
{
    std::vector<uint8_t> expected(dst.all().begin(), dst.all().end());
    uint8_t *to = expected.data() + (dst.data() - dst.all().data());
    for (int32_t i = 0; i < plan.n; i++)
        memcpy(to + static_cast<size_t>(i) * sizeof(Pixel), src + static_cast<size_t>(plan.columns[i]) * sizeof(Pixel),
               sizeof(Pixel));
    return expected;
}

// Up to six rows, sometimes more, each from the source of the one before or from another.
template <typename Pixel> void check_pick(const Kernels *set, PickKernel pick, const PickPlan &plan, Random &random)
{
    const auto end = static_cast<size_t>(plan.columns[plan.n - 1] + 1);
    std::list<GuardedBuffer> sources, made; // flush with an inaccessible page: no pixel boundaries are needed
    const auto add = [&](std::list<GuardedBuffer> &to, size_t size) -> const GuardedBuffer & {
        return to.emplace_back(size, SIDES[between(random, 0, 1)], static_cast<size_t>(between(random, 0, 3)));
    };
    std::vector<std::vector<uint8_t>> expected;
    std::vector<PickRow> rows;
    for (int32_t left = between(random, 1, between(random, 0, 19) == 0 ? 40 : 6); left > 0; left--) {
        if (sources.empty() || between(random, 0, 1) == 0) {
            const GuardedBuffer &src = add(sources, end * sizeof(Pixel));
            std::ranges::generate(src.all(), [&] { return static_cast<uint8_t>(random()); });
        }
        const GuardedBuffer &dst = add(made, static_cast<size_t>(plan.n) * sizeof(Pixel));
        std::ranges::fill(dst.all(), uint8_t{0xC3});
        expected.push_back(picked_slowly<Pixel>(sources.back().data(), dst, plan));
        rows.push_back({sources.back().data(), dst.data()});
    }
    pick(rows.data(), static_cast<int32_t>(rows.size()), &plan);
    size_t k = 0;
    for (const GuardedBuffer &dst : made) {
        ASSERT_TRUE(std::ranges::equal(expected[k], dst.all()))
            << set->name << " " << plan.n << " pixels, shape " << plan.shape << ", rhythm " << plan.rhythm << ", row "
            << k << " of " << rows.size();
        k++;
    }
}

TEST(KernelPick, TakesTheColumns)
{
    random_cases::run(400, [](Random &random) {
        const PickPlan plan_16 = random_plan(random, 2);
        const PickPlan plan_32 = random_plan(random, 4);
        for (const Kernels *set : all_kernel_sets()) {
            check_pick<uint16_t>(set, set->pick_16, plan_16, random);
            check_pick<uint32_t>(set, set->pick_32, plan_32, random);
        }
    });
}

// Columns that go on by `step` from `fraction`, both 65536ths; before 0 comes nothing.
PickPlan plan_of(int32_t step, int32_t n, int32_t pixel_size, int32_t fraction = 0)
{
    PickPlan plan = {};
    plan.n = n;
    for (int32_t i = 0; i < n; i++)
        plan.columns[i] = std::max(0, fraction + i * step) >> 16;
    pick_plan_finish(&plan, pixel_size);
    return plan;
}

// Every shape of a plan is one that usual factors lead to: none of the loops is there for nothing, and none is left out
// of the test above.
TEST(KernelPick, FactorsHaveTheirShapes)
{
    const auto shape_of = [](int32_t step, int32_t n, int32_t pixel_size) {
        return plan_of(step, n, pixel_size).shape;
    };
    for (int32_t step : {0x4000, 0x8000, 0xA000}) {
        EXPECT_EQ(shape_of(step, 300, 2), PICK_ONE) << step;
        EXPECT_EQ(shape_of(step, 300, 4), PICK_ONE) << step;
    }
    EXPECT_EQ(shape_of(0x14000, 300, 2), PICK_OVERLAPPED);
    EXPECT_EQ(shape_of(0x14000, 300, 4), PICK_TWO);
    for (int32_t pixel_size : {2, 4}) {
        EXPECT_EQ(shape_of(0x20000, 300, pixel_size), PICK_TWO);
        EXPECT_EQ(shape_of(0x30000, 300, pixel_size), PICK_SINGLY);
        EXPECT_EQ(shape_of(0x8000, 7, pixel_size), PICK_SINGLY);  // shorter than a step
        EXPECT_EQ(shape_of(0x8000, 15, pixel_size), PICK_SINGLY); // too short
        EXPECT_EQ(shape_of(0x4000, 20, pixel_size), PICK_SINGLY); // its source is shorter than a vector
    }
}

// The same of what steps have in common. Rows of 32 bits begin a 65536th before a whole pixel: their first step
// differs.
TEST(KernelPick, FactorsHaveTheirRhythms)
{
    for (const auto &[step, rhythm] : {std::pair{0x8000, PICK_DOUBLED}, {0x20000, PICK_HALVED}, {0x14000, PICK_ANY}}) {
        for (int32_t pixel_size : {2, 4}) {
            for (int32_t fraction : {-1, 0, 0x8000}) {
                const PickPlan plan = plan_of(step, 300, pixel_size, fraction);
                const int32_t in_step = 32 / pixel_size;
                EXPECT_EQ(plan.rhythm, rhythm) << step;
                EXPECT_EQ(plan.alike, fraction < 0 ? in_step : 0) << step;
                EXPECT_EQ(plan.advance, in_step * step / 0x10000) << step;
                EXPECT_GE(plan.until, 200) << step;
            }
            const PickPlan uneven = plan_of(step + 1000, 300, pixel_size);
            EXPECT_EQ(uneven.alike, 300) << step;
            EXPECT_EQ(uneven.rhythm, PICK_ANY) << step;
        }
    }
}

} // namespace
