// SPDX-License-Identifier: MIT
// Every converter against the per-pixel oracle, on memory that ends where the pixels end: what it reads and writes,
// and that it leaves every other byte alone.
#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "../support/converter_oracle.h"
#include "../support/guarded_buffer.h"
#include "../support/kernel_sets.h"
#include "../support/random_cases.h"
#include "../support/stdout_capture.h"

namespace {

using random_cases::between;
using random_cases::Random;
using Bytes = std::vector<uint8_t>;

// How the buffers of a case lie in memory; gaps are in bytes and shift the alignment.
struct Layout {
    GuardedBuffer::Side side;
    size_t src_gap;
    size_t dst_gap;
};

std::string describe(const ConverterFacts &facts, const ConverterArguments &args, const Layout &layout)
{
    char text[256];
    snprintf(text, sizeof text, "%s native_w %d from %d,%d to %d,%d size %dx%d strides %d %d %s gaps %zu %zu",
             facts.name, args.native_w, args.sx, args.sy, args.dx, args.dy, args.w, args.h, args.sstride, args.dstride,
             layout.side == GuardedBuffer::AT_START ? "at start" : "at end", layout.src_gap, layout.dst_gap);
    return text;
}

std::string announcement(const ConverterArguments &args, const uint8_t *src)
{
    const int pitch = args.sstride / 4;
    char text[256];
    snprintf(text, sizeof text, "%s: %d %d %d %d %d %d sstride = %d, dstride = %d\nsrc0 = %p src = %p\n",
             "render_rgb_to_16_90", args.sx, args.sy, args.dx, args.dy, args.w, args.h, pitch, args.dstride / 2,
             static_cast<const void *>(src),
             reinterpret_cast<const void *>(reinterpret_cast<intptr_t>(src) +
                                            4 * (intptr_t{args.sy + args.h - 1} * pitch + args.sx)));
    return text;
}

void run_converter(const ConverterFacts &facts, const ConverterArguments &args, const uint8_t *src, uint8_t *dst)
{
    if (!facts.announces) {
        convert_really(facts, args, src, dst);
        return;
    }
    const StdoutCapture capture;
    convert_really(facts, args, src, dst);
    EXPECT_EQ(capture.text(), announcement(args, src));
}

void expect_same(std::span<const uint8_t> expected, std::span<const uint8_t> found, const char *what)
{
    const auto [at, ignored] = std::mismatch(expected.begin(), expected.end(), found.begin());
    if (at != expected.end())
        ADD_FAILURE() << what << " differs at byte " << at - expected.begin() << " of its pages";
}

void fill_randomly(std::span<uint8_t> pages, Random &random)
{
    for (size_t at = 0; at < pages.size(); at += sizeof(uint32_t)) {
        const auto word = static_cast<uint32_t>(random());
        memcpy(pages.data() + at, &word, sizeof word);
    }
}

void check(const ConverterFacts &facts, const ConverterArguments &args, const Layout &layout, Random &random)
{
    SCOPED_TRACE(describe(facts, args, layout));
    const GuardedBuffer src(bytes_read(facts, args), layout.side, layout.src_gap);
    const GuardedBuffer dst(bytes_written(facts, args), layout.side, layout.dst_gap);
    for (const GuardedBuffer *buffer : {&src, &dst})
        fill_randomly(buffer->all(), random);
    const Bytes src_before(src.all().begin(), src.all().end());
    Bytes expected(dst.all().begin(), dst.all().end());
    convert_slowly(facts, args, src.data(), expected.data() + (dst.data() - dst.all().data()));

    run_converter(facts, args, src.data(), dst.data());
    expect_same(expected, dst.all(), "destination");
    expect_same(src_before, src.all(), "source");
}

// The smallest strides that hold the rectangle, and `more` bytes.
void set_strides(const ConverterFacts &facts, ConverterArguments &args, int32_t more_src, int32_t more_dst)
{
    const int32_t right = facts.placement == Placement::quarter_turn ? args.native_w : args.dx + std::max(args.w, 0);
    const int32_t step = facts.placement == Placement::doubled ? 4 : facts.dst_size;
    args.sstride = (args.sx + std::max(args.w, 0)) * facts.src_size + more_src;
    args.dstride = right * step + more_dst;
}

// In every instruction set.
class EveryConverter : public testing::TestWithParam<std::tuple<ConverterFacts, const Kernels *>> {
protected:
    static const ConverterFacts &facts() { return std::get<0>(GetParam()); }

private:
    const UsedKernels used{std::get<1>(GetParam())};
};

INSTANTIATE_TEST_SUITE_P(, EveryConverter,
                         testing::Combine(testing::ValuesIn(converter_facts().begin(), converter_facts().end()),
                                          testing::ValuesIn(all_kernel_sets())),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param)->name;
                         });

TEST_P(EveryConverter, AtTheStartOfMemory)
{
    Random random(1);
    for (int32_t w = 0; w <= 67; w++) {
        for (int32_t h : {0, 1, 2, 5}) {
            ConverterArguments args = {h, 0, 0, 0, 0, w, h, 0, 0};
            set_strides(facts(), args, 0, 0);
            check(facts(), args, {GuardedBuffer::AT_START, 0, 0}, random);
        }
    }
}

TEST_P(EveryConverter, AtTheEndOfMemoryWithOddStrides)
{
    Random random(2);
    for (int32_t w = 0; w <= 67; w++) {
        for (int32_t h : {0, 1, 2, 5}) {
            ConverterArguments args = {h + 9, 3, 1, 5, 2, w, h, 0, 0};
            set_strides(facts(), args, 1 + w % 7, 3 + w % 5);
            check(facts(), args, {GuardedBuffer::AT_END, 0, 0}, random);
        }
    }
}

TEST_P(EveryConverter, OnPixelBoundariesOnly)
{
    Random random(3);
    const auto src_size = static_cast<size_t>(facts().src_size);
    const auto dst_size = static_cast<size_t>(facts().dst_size);
    for (size_t pixels = 0; pixels < 9; pixels++) {
        for (GuardedBuffer::Side side : {GuardedBuffer::AT_START, GuardedBuffer::AT_END}) {
            ConverterArguments args = {40, 1, 1, 2, 3, 37, 11, 0, 0};
            set_strides(facts(), args, 2, 6);
            check(facts(), args, {side, pixels * src_size, (8 - pixels) * dst_size}, random);
        }
    }
}

TEST_P(EveryConverter, LargeRectangles)
{
    Random random(4);
    for (int32_t w : {127, 128, 255, 800, 1025}) {
        ConverterArguments args = {70, 1, 0, 3, 0, w, 67, 0, 0};
        set_strides(facts(), args, 5, 7);
        check(facts(), args, {GuardedBuffer::AT_END, 0, 0}, random);
        args.h = w;
        args.w = 67;
        args.native_w = w + 3;
        set_strides(facts(), args, 5, 7);
        check(facts(), args, {GuardedBuffer::AT_START, 0, 0}, random);
    }
}

// No pixel, no byte, no look at the server, and no arithmetic on the addresses either.
TEST_P(EveryConverter, OfNothingWritesNothing)
{
    const StdoutCapture capture;
    const Bytes src(64, 0xFF);
    const Bytes before(64, 0x5A);
    Bytes dst = before;
    for (int32_t none : {0, -1, -3, INT_MIN}) {
        for (int32_t some : {1, 2, 1000, INT_MAX}) {
            facts().run(nullptr, src.data(), dst.data(), 0, 0, 0, 0, some, none, 16, 16);
            facts().run(nullptr, src.data(), dst.data(), 0, 0, 0, 0, none, some, 16, 16);
        }
        facts().run(nullptr, src.data(), dst.data(), INT_MAX, INT_MAX, INT_MIN, INT_MIN, none, none, -1, -1);
    }
    EXPECT_EQ(dst, before);
}

TEST_P(EveryConverter, ReturnsZero)
{
    const StdoutCapture capture;
    FbServer fs = {};
    fs.native_w = 1;
    const uint32_t src = 0xFFFFFFFF;
    uint32_t dst[2] = {};
    EXPECT_EQ(facts().run(&fs, &src, dst, 0, 0, 0, 0, 1, 1, 4, 4), 0);
    EXPECT_EQ(facts().run(&fs, &src, dst, 0, 0, 0, 0, 1, 0, 4, 4), 0);
}

// Rows may overlap in the source (a client's stride is what it says), and a stride smaller than a pixel counts as 0.
TEST_P(EveryConverter, SourceRowsMayOverlap)
{
    Random random(5);
    for (int32_t sstride : {0, 1, 3, 4, 9, 40}) {
        ConverterArguments args = {20, 2, 1, 0, 0, 17, 9, 0, 0};
        set_strides(facts(), args, 0, 1);
        args.sstride = sstride;
        check(facts(), args, {GuardedBuffer::AT_END, 0, 0}, random);
    }
}

TEST(Converters, RandomRectangles)
{
    random_cases::run(6000, [](Random &random) {
        const auto facts = converter_facts();
        const ConverterFacts &converter = facts[static_cast<size_t>(between(random, 0, int32_t(facts.size()) - 1))];
        const auto sets = all_kernel_sets();
        const UsedKernels used(sets[static_cast<size_t>(between(random, 0, int32_t(sets.size()) - 1))]);
        SCOPED_TRACE(kernels->name);
        const int32_t largest = between(random, 0, 19) == 0 ? 300 : 70;
        ConverterArguments args = {};
        args.w = between(random, 0, largest);
        args.h = between(random, 0, largest / 2);
        args.sx = between(random, 0, 9);
        args.sy = between(random, 0, 9);
        args.dx = between(random, 0, 9);
        args.dy = between(random, 0, 9);
        args.native_w = args.dy + args.h + between(random, 0, 9);
        set_strides(converter, args, between(random, 0, 33), between(random, 0, 33));
        const auto side = between(random, 0, 1) == 0 ? GuardedBuffer::AT_START : GuardedBuffer::AT_END;
        const auto src_gap = static_cast<size_t>(between(random, 0, 3) * converter.src_size);
        const auto dst_gap = static_cast<size_t>(between(random, 0, 3) * converter.dst_size);
        check(converter, args, {side, src_gap, dst_gap}, random);
    });
}

// Whether the tests above can notice anything at all.
TEST(GuardedBufferDeathTest, TrapsOneByteTooFar)
{
    const rlimit no_core_files = {};
    ASSERT_EQ(setrlimit(RLIMIT_CORE, &no_core_files), 0);
    for (size_t size : {0u, 1u, 100u, 4096u, 5000u}) {
        const GuardedBuffer at_end(size, GuardedBuffer::AT_END);
        const GuardedBuffer at_start(size, GuardedBuffer::AT_START);
        memset(at_end.all().data(), 1, at_end.all().size());
        memset(at_start.all().data(), 1, at_start.all().size());
        volatile uint8_t *end = at_end.data() + size;
        volatile uint8_t *start = at_start.data();
        EXPECT_DEATH(*end = 1, "");
        EXPECT_DEATH(start[-1] = 1, "");
    }
}

} // namespace
