// SPDX-License-Identifier: MIT
// From one image into another: the converter for each pair of images and turn, the checks on each rectangle, and that
// only pixels that exist are touched.
#include <sys/mman.h>

#include <gmock/gmock.h>

#include "../../src/composite/composite.h"
#include "../support/aborts.h"
#include "../support/converter_oracle.h"
#include "../support/random_cases.h"
#include "../support/rects.h"
#include "../support/stderr_capture.h"
#include "../support/test_image.h"

namespace {

constexpr int32_t PANEL_W = 48, PANEL_H = 32;
constexpr int32_t SIDE = 32; // of the part that is on the screen in every turn

class ImageRender : public testing::Test {
protected:
    ImageRender()
    {
        screen.native_w = PANEL_W;
        screen.native_h = PANEL_H;
        turn(0);
        region_init(&region, nullptr);
    }
    ~ImageRender() override { region_uninit(&region); }

    void turn(int32_t rotation)
    {
        const bool sideways = rotation == 90 || rotation == 270;
        screen.rotation = rotation;
        screen.w = sideways ? PANEL_H : PANEL_W;
        screen.h = sideways ? PANEL_W : PANEL_H;
    }

    void draw(Rect rect) { region_union_rect(&region, &region, &rect); }

    void render(const TestImage &src, const TestImage &dst, int32_t x = 0, int32_t y = 0)
    {
        image_render(&screen, nullptr, src.image, dst.image, &region, x, y, screen.rotation);
    }

    FbServer screen{};
    Region region;
};

struct Pair {
    int src_format, src_depth;
    bool src_alpha;
    int dst_format, dst_depth;
    bool dst_alpha;
};

// What the pair means at 0, 90, 270 and 180 degrees; null: there is no converter.
struct Decision {
    Pair pair;
    Converter at_0, at_90, at_270, at_180;
};

constexpr Decision any_turn(Pair pair, Converter converter)
{
    return {pair, converter, converter, converter, converter};
}

const Decision DECISIONS[] = {
    any_turn({0, 32, true, 0, 32, true}, render_argb_to_32a),
    any_turn({0, 32, true, 1, 32, false}, render_argb_to_32),
    any_turn({1, 32, false, 0, 32, true}, render_rgb_to_32a),
    any_turn({1, 32, false, 1, 32, false}, render_rgb_to_32),
    any_turn({0, 32, true, 0, 24, true}, render_argb_to_32a),
    any_turn({0, 32, true, 1, 24, false}, render_argb_to_32),
    any_turn({1, 32, false, 0, 24, true}, render_rgb_to_32a),
    any_turn({1, 32, false, 1, 24, false}, render_rgb_to_32),
    {{1, 32, false, 3, 16, false}, render_rgb_to_16, render_rgb_to_16_90, render_rgb_to_16_270, nullptr},
    {{0, 32, true, 3, 16, true}, render_rgb_to_16, render_rgb_to_16_90, render_rgb_to_16_270, nullptr},
    {{1, 32, false, 8, 18, false}, render_rgb_to_18, render_rgb_to_18_90, render_rgb_to_18_270, nullptr},
    {{0, 32, true, 8, 18, true}, render_rgb_to_18, render_rgb_to_18_90, render_rgb_to_18_270, nullptr},
    any_turn({3, 16, false, 1, 32, false}, render_16_to_32),
    any_turn({3, 16, true, 0, 32, true}, render_16_to_32),
    any_turn({3, 16, false, 8, 18, false}, render_16_to_18),
    {{3, 16, false, 3, 16, false}, render_16_to_16, render_16_to_16_90, render_16_to_16_270, nullptr},
    {{3, 16, true, 3, 16, true}, render_16_to_16, render_16_to_16_90, render_16_to_16_270, nullptr},
    any_turn({8, 18, false, 1, 32, false}, render_18_to_32),
    any_turn({8, 18, false, 3, 16, false}, render_18_to_16),
    {{8, 18, false, 8, 18, false}, render_32_to_32, render_32_to_32_90, render_32_to_32_270, nullptr},
};

void describe_as(xc_image *image, int depth, bool alpha)
{
    image->depth = static_cast<uint8_t>(depth);
    image->flags = alpha ? image->flags | XC_IMAGE_ALPHA : image->flags & ~XC_IMAGE_ALPHA;
}

// The same by the plain per-pixel rule.
void render_slowly(Converter converter, const TestImage &src, std::vector<uint8_t> &dst, int32_t dst_stride, Rect rect,
                   int32_t x, int32_t y)
{
    const ConverterArguments args = {PANEL_W,           rect.x1 - x,       rect.y1 - y,       rect.x1,   rect.y1,
                                     rect.x2 - rect.x1, rect.y2 - rect.y1, src.image->stride, dst_stride};
    convert_slowly(converter_facts_of(converter), args, src.memory.data(), dst.data());
}

TEST_F(ImageRender, EachPairOfImagesAndTurnHasItsConverter)
{
    const Rects rects = {{5, 6, 17, 9}, {5, 12, 11, 30}, {20, 12, 31, 30}};
    for (const Rect &rect : rects)
        draw(rect);
    const StdoutCapture quiet;
    for (const Decision &decision : DECISIONS) {
        for (const auto &[rotation, converter] : {std::pair{0, decision.at_0}, std::pair{90, decision.at_90},
                                                  std::pair{270, decision.at_270}, std::pair{180, decision.at_180}}) {
            if (converter == nullptr)
                continue;
            SCOPED_TRACE(std::string(converter_facts_of(converter).name) + " at " + std::to_string(rotation));
            TestImage src(SIDE, SIDE, decision.pair.src_format, 1);
            TestImage dst(PANEL_W, PANEL_W, decision.pair.dst_format, 2);
            describe_as(src.image, decision.pair.src_depth, decision.pair.src_alpha);
            describe_as(dst.image, decision.pair.dst_depth, decision.pair.dst_alpha);
            std::vector<uint8_t> expected = dst.content();
            for (const Rect &rect : rects)
                render_slowly(converter, src, expected, dst.image->stride, rect, 4, 5);
            turn(rotation);
            render(src, dst, 4, 5);
            EXPECT_EQ(dst.content(), expected);
        }
    }
}

TEST_F(ImageRender, WhereTheTurnIsConsulted180Aborts)
{
    draw({0, 0, 5, 5});
    for (const Decision &decision : DECISIONS) {
        if (decision.at_180 != nullptr)
            continue;
        const Pair &pair = decision.pair;
        TestImage src(SIDE, SIDE, pair.src_format, 1);
        TestImage dst(PANEL_W, PANEL_H, pair.dst_format, 2);
        describe_as(src.image, pair.src_depth, pair.src_alpha);
        describe_as(dst.image, pair.dst_depth, pair.dst_alpha);
        turn(180);
        const std::string message = "No render function: src depth: " + std::to_string(pair.src_depth) +
                                    " dst depth: " + std::to_string(pair.dst_depth) + "\n";
        EXPECT_ABORT_AFTER(message, render(src, dst), "composite/", "image_render", "0");
    }
}

TEST_F(ImageRender, UnservedDepthsAbort)
{
    draw({0, 0, 5, 5});
    for (const auto &[src_depth, dst_depth] :
         {std::pair{24, 32}, {24, 24}, {24, 16}, {16, 24}, {18, 24}, {32, 8}, {8, 32}, {32, 0}, {15, 16}}) {
        TestImage src(SIDE, SIDE, XC_FORMAT_XRGB32, 1);
        TestImage dst(PANEL_W, PANEL_H, XC_FORMAT_XRGB32, 2);
        describe_as(src.image, src_depth, false);
        describe_as(dst.image, dst_depth, false);
        const std::string message = "No render function: src depth: " + std::to_string(src_depth) +
                                    " dst depth: " + std::to_string(dst_depth) + "\n";
        EXPECT_ABORT_AFTER(message, render(src, dst), "composite/", "image_render", "0");
    }
}

TEST_F(ImageRender, AnEmptyRegionOnlyPrintsWhateverTheDepths)
{
    TestImage src(SIDE, SIDE, XC_FORMAT_XRGB32, 1);
    TestImage dst(PANEL_W, PANEL_H, XC_FORMAT_XRGB32, 2);
    for (const int depth : {32, 24, 8}) {
        describe_as(src.image, depth, false);
        const std::vector<uint8_t> before = dst.content();
        turn(180);
        EXPECT_EQ(printed([&] { render(src, dst); }), "image_render: render region is null\n");
        EXPECT_EQ(dst.content(), before);
    }
}

TEST_F(ImageRender, OtherwiseNothingIsPrinted)
{
    TestImage src(SIDE, SIDE, XC_FORMAT_XRGB32, 1);
    TestImage dst(PANEL_W, PANEL_H, XC_FORMAT_RGB16, 2);
    draw({0, 0, 5, 5});
    EXPECT_EQ(printed([&] { render(src, dst); }), "");
}

TEST_F(ImageRender, TheTurn32To16AnnouncesEachRectangle)
{
    TestImage src(SIDE, SIDE, XC_FORMAT_XRGB32, 1, SIDE * 4 + 12);
    TestImage dst(PANEL_W, PANEL_H, XC_FORMAT_RGB16, 2, PANEL_W * 2 + 6);
    draw({5, 6, 17, 9});
    draw({6, 20, 8, 31});
    turn(90);
    const auto *base = reinterpret_cast<uint32_t *>(src.memory.data());
    char expected[400];
    snprintf(expected, sizeof expected,
             "render_rgb_to_16_90: 2 2 5 6 12 3 sstride = 35, dstride = 51\n"
             "src0 = %p src = %p\n"
             "render_rgb_to_16_90: 3 16 6 20 2 11 sstride = 35, dstride = 51\n"
             "src0 = %p src = %p\n",
             static_cast<const void *>(base), static_cast<const void *>(base + (2 + 3 - 1) * 35 + 2),
             static_cast<const void *>(base), static_cast<const void *>(base + (16 + 11 - 1) * 35 + 3));
    EXPECT_EQ(printed([&] { render(src, dst, 3, 4); }), expected);
}

// ---- the checks on each rectangle ----

TEST_F(ImageRender, ARectangleUpToTheScreensEdgeIsAccepted)
{
    TestImage src(PANEL_W + 1, PANEL_H + 1, XC_FORMAT_XRGB32, 1);
    TestImage dst(PANEL_W, PANEL_H, XC_FORMAT_XRGB32, 2);
    draw({0, 0, PANEL_W, PANEL_H});
    render(src, dst);
    std::vector<uint8_t> expected(dst.bytes);
    render_slowly(render_rgb_to_32, src, expected, dst.image->stride, {0, 0, PANEL_W, PANEL_H}, 0, 0);
    EXPECT_EQ(dst.content(), expected);
}

struct EdgeCase {
    Rect rect;
    int32_t x, y;
    const char *expression;
};

TEST_F(ImageRender, ARectangleBeyondTheScreenOrBeforeTheSourceAborts)
{
    TestImage src(PANEL_W + 20, PANEL_H + 20, XC_FORMAT_XRGB32, 1);
    TestImage dst(PANEL_W, PANEL_H, XC_FORMAT_XRGB32, 2);
    for (const EdgeCase &edge :
         {EdgeCase{{0, 0, PANEL_W + 1, 5}, 0, 0, "box->x2 <= fs->w"},
          EdgeCase{{0, 0, 5, PANEL_H + 1}, 0, 0, "box->y2 <= fs->h"}, EdgeCase{{-1, 0, 5, 5}, -10, 0, "box->x1 >= 0"},
          EdgeCase{{0, -1, 5, 5}, 0, -10, "box->y1 >= 0"}, EdgeCase{{4, 5, 8, 8}, 5, 5, "box->x1 - x >= 0"},
          EdgeCase{{5, 4, 8, 8}, 5, 5, "box->y1 - y >= 0"},
          // The first failing check is the one that is named.
          EdgeCase{{-1, -1, PANEL_W + 1, PANEL_H + 1}, 0, 0, "box->x1 - x >= 0"},
          EdgeCase{{-1, -1, PANEL_W + 1, PANEL_H + 1}, -1, 0, "box->y1 - y >= 0"},
          EdgeCase{{-1, -1, PANEL_W + 1, PANEL_H + 1}, -1, -1, "box->x1 >= 0"},
          EdgeCase{{0, -1, PANEL_W + 1, PANEL_H + 1}, 0, -1, "box->y1 >= 0"},
          EdgeCase{{0, 0, PANEL_W + 1, PANEL_H + 1}, 0, 0, "box->x2 <= fs->w"}}) {
        region_make_empty(&region);
        draw(edge.rect);
        EXPECT_ABORT(render(src, dst, edge.x, edge.y), "composite/", "image_render", edge.expression);
    }
}

TEST_F(ImageRender, ABoxWithoutPixelsAborts)
{
    TestImage src(PANEL_W, PANEL_H, XC_FORMAT_XRGB32, 1);
    TestImage dst(PANEL_W, PANEL_H, XC_FORMAT_XRGB32, 2);
    region.data = nullptr; // one rectangle, the extents
    region.extents = {5, 5, 5, 9};
    EXPECT_ABORT(render(src, dst), "composite/", "image_render", "box->x2 > box->x1");
    region.extents = {5, 5, 9, 5};
    EXPECT_ABORT(render(src, dst), "composite/", "image_render", "box->y2 > box->y1");
}

TEST_F(ImageRender, RectanglesBeforeTheFailingOneHaveBeenRendered)
{
    const size_t bytes = PANEL_W * PANEL_H * 4;
    void *shared = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    TestImage src(PANEL_W, PANEL_H + 10, XC_FORMAT_XRGB32, 1);
    xc_image *dst = xc_image_new_with_data(PANEL_W, PANEL_H, shared, XC_FORMAT_XRGB32, 0, 1, PANEL_W * 4);
    draw({0, 0, 5, 5});
    draw({10, 20, 15, PANEL_H + 1});
    EXPECT_ABORT(image_render(&screen, nullptr, src.image, dst, &region, 0, 0, 0), "composite/", "image_render",
                 "box->y2 <= fs->h");
    EXPECT_EQ(*static_cast<uint32_t *>(xc_image_pointer(dst, 4, 4)),
              *static_cast<uint32_t *>(xc_image_pointer(src.image, 4, 4)));
    EXPECT_EQ(*static_cast<uint32_t *>(xc_image_pointer(dst, 10, 20)), 0u);
    xc_image_unref(dst);
    munmap(shared, bytes);
}

// ---- pixels that do not exist ----

TEST_F(ImageRender, OnlyPixelsThatExistInBothImagesAreMoved)
{
    random_cases::run(400, [this](random_cases::Random &random) {
        const auto between = [&](int32_t low, int32_t high) { return random_cases::between(random, low, high); };
        const Decision &decision = DECISIONS[between(0, static_cast<int32_t>(std::size(DECISIONS)) - 1)];
        const int32_t rotation = between(0, 2) == 0 ? 0 : between(0, 1) == 0 ? 90 : 270;
        const Converter converter = rotation == 0 ? decision.at_0 : rotation == 90 ? decision.at_90 : decision.at_270;
        const ConverterFacts &facts = converter_facts_of(converter);
        const int32_t src_stride = facts.src_size * between(0, SIDE + 4);
        const int32_t dst_stride = facts.dst_size * between(PANEL_W, PANEL_W + 3);
        const auto src_bytes = static_cast<size_t>(facts.src_size * between(1, SIDE * SIDE));
        const auto dst_bytes = static_cast<size_t>(facts.dst_size * between(1, PANEL_W * PANEL_H));
        TestImage src(SIDE, SIDE, decision.pair.src_format, static_cast<uint32_t>(random()),
                      src_stride == 0 ? 1 : src_stride, src_bytes);
        src.image->stride = src_stride;
        TestImage dst(PANEL_W, PANEL_H, decision.pair.dst_format, static_cast<uint32_t>(random()), dst_stride,
                      dst_bytes);
        describe_as(src.image, decision.pair.src_depth, decision.pair.src_alpha);
        describe_as(dst.image, decision.pair.dst_depth, decision.pair.dst_alpha);

        const int32_t x1 = between(0, SIDE - 1), y1 = between(0, SIDE - 1);
        const Rect rect = {x1, y1, between(x1 + 1, SIDE), between(y1 + 1, SIDE)};
        std::vector<uint8_t> expected = dst.content();
        for (int32_t y = rect.y1; y < rect.y2; y++) {
            for (int32_t x = rect.x1; x < rect.x2; x++) {
                const ConverterArguments one = {PANEL_W, x, y, x, y, 1, 1, src_stride, dst_stride};
                if (bytes_read(facts, one) <= src_bytes && bytes_written(facts, one) <= dst_bytes)
                    convert_slowly(facts, one, src.memory.data(), expected.data());
            }
        }
        region_make_empty(&region);
        draw(rect);
        turn(rotation);
        const StdoutCapture quiet;
        render(src, dst);
        EXPECT_EQ(dst.content(), expected) << facts.name;
    });
}

// Where a pixel of the screen lands, by coordinates; may be before the start of a turned image.
int64_t landing(const ConverterFacts &facts, int32_t native_w, int32_t x, int32_t y, int32_t stride)
{
    const int64_t pitch = stride - stride % facts.dst_size;
    return facts.placement == Placement::quarter_turn ? x * pitch + int64_t{native_w - 1 - y} * facts.dst_size
                                                      : y * pitch + int64_t{x} * facts.dst_size;
}

size_t count_of(const std::string &text, const std::string &word)
{
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        n++;
    return n;
}

// Strides and memories of any number of bytes, the panel narrower than a turned rectangle is high, and a source that
// lies anywhere: pixels that exist in both images are moved, one by one as if nothing else were there, and no others.
TEST_F(ImageRender, StridesThatAreNotWholePixelsAndTurnedRectanglesThatLeaveThePanel)
{
    random_cases::run(600, [this](random_cases::Random &random) {
        const auto between = [&](int32_t low, int32_t high) { return random_cases::between(random, low, high); };
        const auto bytes = [&](int32_t most) { return static_cast<size_t>(between(1, most)); };
        const Decision &decision = DECISIONS[between(0, static_cast<int32_t>(std::size(DECISIONS)) - 1)];
        const int32_t rotation = between(0, 2) == 0 ? 0 : between(0, 3) == 0 ? 270 : 90;
        const ConverterFacts &facts = converter_facts_of(rotation == 0    ? decision.at_0
                                                         : rotation == 90 ? decision.at_90
                                                                          : decision.at_270);
        const int32_t x = -between(0, 5), y = -between(0, 5); // of the source on the screen
        const int32_t src_stride = between(0, between(0, 2) == 0 ? 5 : (SIDE + 8) * facts.src_size);
        const int32_t dst_stride = PANEL_W * facts.dst_size + between(0, 9);
        const size_t src_bytes = bytes((between(0, 2) == 0 ? 1 : SIDE + 6) * SIDE * facts.src_size);
        const size_t dst_bytes = bytes(PANEL_W * SIDE * facts.dst_size + 40);
        // The memory is whole words, so that pixels lie where their size wants them; what exists of it need not be.
        TestImage src(SIDE, SIDE, decision.pair.src_format, static_cast<uint32_t>(random()), 4, (src_bytes + 3) & ~3u);
        TestImage dst(PANEL_W, PANEL_H, decision.pair.dst_format, static_cast<uint32_t>(random()), dst_stride,
                      (dst_bytes + 3) & ~3u);
        src.image->stride = src_stride;
        src.image->extent = src_bytes;
        dst.image->extent = dst_bytes;
        describe_as(src.image, decision.pair.src_depth, decision.pair.src_alpha);
        describe_as(dst.image, decision.pair.dst_depth, decision.pair.dst_alpha);

        region_make_empty(&region);
        for (int32_t n = between(1, 3); n > 0; n--) {
            const int32_t x1 = std::max(between(-SIDE, SIDE - 1), 0), y1 = between(0, SIDE - 1);
            draw({x1, y1, between(x1 + 1, SIDE), between(y1 + 1, SIDE)});
        }
        turn(rotation);
        screen.native_w = between(PANEL_W - SIDE, PANEL_W);
        // With what lies before the image in its page: a turned pixel can land there.
        const std::span<uint8_t> page = dst.memory.all();
        std::vector<uint8_t> expected(page.begin(), page.end());
        uint8_t *expected_pixels = expected.data() + (dst.memory.data() - page.data());
        for (const Rect &rect : rects_of(region)) {
            for (int32_t row = rect.y1; row < rect.y2; row++) {
                for (int32_t column = rect.x1; column < rect.x2; column++) {
                    const ConverterArguments one = {screen.native_w, column - x, row - y, column, row, 1, 1,
                                                    src_stride,      dst_stride};
                    if (landing(facts, screen.native_w, column, row, dst_stride) >= 0 &&
                        bytes_read(facts, one) <= src_bytes && bytes_written(facts, one) <= dst_bytes)
                        convert_slowly(facts, one, src.memory.data(), expected_pixels);
                }
            }
        }
        const std::string text = printed([&] { render(src, dst, x, y); });
        screen.native_w = PANEL_W;
        EXPECT_TRUE(std::equal(page.begin(), page.end(), expected.begin())) << facts.name;
        // Once per rectangle, in however many pieces it is drawn.
        EXPECT_EQ(count_of(text, "\n"), facts.announces ? 2 * rects_of(region).size() : 0u) << facts.name;
    });
}

TEST_F(ImageRender, WithoutAnImageNothingHappens)
{
    TestImage image(SIDE, SIDE, XC_FORMAT_XRGB32, 1);
    const std::vector<uint8_t> before = image.content();
    draw({0, 0, 5, 5});
    image_render(&screen, nullptr, nullptr, image.image, &region, 0, 0, 0);
    image_render(&screen, nullptr, image.image, nullptr, &region, 0, 0, 0);
    EXPECT_EQ(image.content(), before);
}

} // namespace
