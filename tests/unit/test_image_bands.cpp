// SPDX-License-Identifier: MIT
// A rectangle that goes through the work image into the frame band by band: both images end as if all of it had gone
// into the work image first, and where they would not, it does not go by bands.
#include <gmock/gmock.h>

#include "../../src/composite/composite.h"
#include "../support/random_cases.h"
#include "../support/stdout_capture.h"
#include "../support/test_image.h"

namespace {

constexpr int32_t SIDE = 40; // of the screen
constexpr int FORMATS[] = {XC_FORMAT_ARGB32, XC_FORMAT_XRGB32, XC_FORMAT_RGB16, XC_FORMAT_RGB18};

// The shape of an image; what it holds follows from the seed.
struct Shape {
    int format;
    uint32_t seed;
    int32_t stride = SIDE * 4;
    size_t extent = SIDE * SIDE * 4;

    TestImage image() const { return {SIDE, SIDE, format, seed, stride, extent}; }
};

struct Bands {
    Shape src{XC_FORMAT_XRGB32, 1};
    Shape work{XC_FORMAT_XRGB32, 2};
    Shape frame{XC_FORMAT_XRGB32, 3};
    Rect rect{3, 5, 37, 31};
    int32_t x = 2; // of the source on the screen
    int32_t y = 1;
    int32_t rotation = 0;
};

class ImageBands : public testing::Test {
protected:
    ImageBands()
    {
        screen.native_w = screen.native_h = screen.w = screen.h = SIDE;
        image_band_bytes = 300;
    }
    ~ImageBands() override { image_band_bytes = usual; }

    // Whether it went by bands; both images are then what they have to be, and else untouched.
    bool goes(const Bands &b)
    {
        const StdoutCapture quiet;
        const TestImage src = b.src.image(), work = b.work.image(), frame = b.frame.image();
        Region region;
        region_init(&region, nullptr);
        region_reset(&region, &b.rect);
        const bool went =
            image_render_through(&screen, src.image, work.image, frame.image, &region, b.x, b.y, b.rotation);
        const TestImage work_then = b.work.image(), frame_then = b.frame.image();
        if (went) {
            image_render(&screen, nullptr, src.image, work_then.image, &region, b.x, b.y, b.rotation);
            image_render(&screen, nullptr, work_then.image, frame_then.image, &region, 0, 0, b.rotation);
        }
        EXPECT_TRUE(work.content() == work_then.content()) << "the work image, " << (went ? "by bands" : "untouched");
        EXPECT_TRUE(frame.content() == frame_then.content()) << "the frame, " << (went ? "by bands" : "untouched");
        region_uninit(&region);
        return went;
    }

    FbServer screen{};
    const int32_t usual = image_band_bytes;
};

TEST_F(ImageBands, EachPairOfFormats)
{
    for (const int src : FORMATS) {
        for (const int dst : FORMATS) {
            for (const int32_t rotation : {0, 270}) {
                Bands b;
                b.src.format = src;
                b.work.format = b.frame.format = dst;
                b.rotation = rotation;
                EXPECT_TRUE(goes(b)) << src << " to " << dst << " at " << rotation;
            }
        }
    }
}

TEST_F(ImageBands, WhateverTheirHeight)
{
    for (const int32_t bytes : {1, 34 * 4, 34 * 4 * 2, 34 * 4 * 25, 34 * 4 * 26, 1 << 20}) {
        image_band_bytes = bytes;
        EXPECT_TRUE(goes({})) << bytes;
    }
}

TEST_F(ImageBands, NotWhereAStepTurns)
{
    for (const auto &[src, dst] : {std::pair{XC_FORMAT_RGB16, XC_FORMAT_RGB16},
                                   {XC_FORMAT_RGB18, XC_FORMAT_RGB18},
                                   {XC_FORMAT_XRGB32, XC_FORMAT_RGB16},
                                   {XC_FORMAT_RGB18, XC_FORMAT_RGB16}}) {
        Bands b;
        b.src.format = src;
        b.work.format = b.frame.format = dst;
        b.rotation = 90;
        EXPECT_FALSE(goes(b)) << src << " to " << dst;
    }
    Bands unturned;
    unturned.rotation = 90;
    EXPECT_TRUE(goes(unturned));
}

TEST_F(ImageBands, NotWherePixelsDoNotExist)
{
    for (Shape Bands::*image : {&Bands::src, &Bands::work, &Bands::frame}) {
        Bands b;
        b.x = b.y = 0;
        (b.*image).extent = (30 * SIDE + 37) * 4; // the last pixel of the rectangle is the last one
        EXPECT_TRUE(goes(b));
        (b.*image).extent -= 4;
        EXPECT_FALSE(goes(b));
    }
}

TEST_F(ImageBands, NotWhereRowsOverlap)
{
    for (Shape Bands::*image : {&Bands::work, &Bands::frame}) {
        Bands b;
        (b.*image).stride = 34 * 4; // as wide as the rectangle
        EXPECT_TRUE(goes(b));
        (b.*image).stride = 33 * 4;
        EXPECT_FALSE(goes(b));
    }
}

// What image_render would abort at is left to it.
TEST_F(ImageBands, NotBeyondTheScreenOrTheSource)
{
    for (const Rect &rect : {Rect{-1, 5, 37, 31}, Rect{3, -1, 37, 31}, Rect{3, 5, SIDE + 1, 31},
                             Rect{3, 5, 37, SIDE + 1}, Rect{1, 5, 37, 31}, Rect{3, 0, 37, 31}}) {
        Bands b;
        b.rect = rect;
        EXPECT_FALSE(goes(b)) << rect.x1 << "," << rect.y1 << " " << rect.x2 << "," << rect.y2;
    }
}

TEST_F(ImageBands, NotWithoutAnImageNorOfOtherRegions)
{
    const TestImage src = Bands{}.src.image(), work = Bands{}.work.image(), frame = Bands{}.frame.image();
    Region region;
    region_init(&region, nullptr);
    const auto went = [&](xc_image *from, xc_image *through, xc_image *to) {
        return image_render_through(&screen, from, through, to, &region, 0, 0, 0);
    };
    EXPECT_FALSE(went(src.image, work.image, frame.image)) << "nothing to do";
    const Rect rect{3, 5, 37, 31}, apart{3, 34, 20, 36};
    region_union_rect(&region, &region, &rect);
    EXPECT_FALSE(went(nullptr, work.image, frame.image));
    EXPECT_FALSE(went(src.image, nullptr, frame.image));
    EXPECT_FALSE(went(src.image, work.image, nullptr));
    EXPECT_TRUE(went(src.image, work.image, frame.image));
    region_union_rect(&region, &region, &apart);
    EXPECT_FALSE(went(src.image, work.image, frame.image)) << "two rectangles";
    region_uninit(&region);
}

TEST_F(ImageBands, RandomShapes)
{
    int by_bands = 0, others = 0;
    random_cases::run(2000, [&](random_cases::Random &random) {
        const auto between = [&](int32_t low, int32_t high) { return random_cases::between(random, low, high); };
        const auto shape = [&](int format) {
            Shape s{format, static_cast<uint32_t>(random())};
            s.stride = 4 * between(between(0, 3) == 0 ? 10 : SIDE - 4, SIDE + 4);
            s.extent = static_cast<size_t>(4 * (between(0, 3) == 0 ? between(1, SIDE * SIDE) : SIDE * (SIDE + 4)));
            return s;
        };
        const int output = FORMATS[between(0, 3)];
        Bands b{shape(FORMATS[between(0, 3)]), shape(output), shape(output), {}, -between(0, 3), -between(0, 3), 0};
        b.rotation = between(0, 2) == 0 ? 90 : between(0, 1) == 0 ? 270 : 0;
        b.rect.x1 = between(0, SIDE - 1);
        b.rect.y1 = between(0, SIDE - 1);
        b.rect.x2 = between(b.rect.x1 + 1, SIDE);
        b.rect.y2 = between(b.rect.y1 + 1, SIDE);
        image_band_bytes = between(1, 2000);
        (goes(b) ? by_bands : others)++;
    });
    if (getenv("PFB_TEST_CASE") == nullptr && getenv("PFB_TEST_CASES") == nullptr) {
        EXPECT_GT(by_bands, 300);
        EXPECT_GT(others, 300);
    }
}

} // namespace
