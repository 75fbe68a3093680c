// SPDX-License-Identifier: MIT
// Images: what they say of themselves, whose their memory is, what is refused; and the intersection of rectangles.
#include "xc.h"

#include <array>
#include <climits>
#include <cstdlib>

#include <gtest/gtest.h>

// The library's allocations come through here (linked with --wrap), to be counted and to fail when told to.
namespace {

int calloc_fails_in = 0; // the how manieth call fails; 0: none
long live = 0;           // blocks in use
size_t last_calloc = 0;  // bytes

} // namespace

extern "C" {
void *__real_calloc(size_t count, size_t size);
void *__real_malloc(size_t size);
void __real_free(void *block);

void *__wrap_calloc(size_t count, size_t size)
{
    if (calloc_fails_in > 0 && --calloc_fails_in == 0)
        return nullptr;
    live++;
    last_calloc = count * size;
    return __real_calloc(count, size);
}
void *__wrap_malloc(size_t size)
{
    live++;
    return __real_malloc(size);
}
void __wrap_free(void *block)
{
    live -= block != nullptr;
    __real_free(block);
}
}

namespace {

constexpr int OWN = 0;
constexpr int BORROWED = 1;

xc_image *new_own(int32_t width, int32_t height, int format, int32_t stride)
{
    return xc_image_new_with_data(width, height, nullptr, format, 0, OWN, stride);
}

struct FormatCase {
    int format;
    int depth;
    int pixel_size;
    uint32_t flags;
};

constexpr FormatCase FORMATS[] = {
    {0, 32, 4, XC_IMAGE_ALPHA},
    {1, 32, 4, 0},
    {3, 16, 2, 0},
    {8, 18, 4, 0},
};

TEST(XcImage, DescribesItsFormat)
{
    for (const FormatCase &expected : FORMATS) {
        SCOPED_TRACE(expected.format);
        xc_image *image = new_own(5, 3, expected.format, 24);
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(image->format, expected.format);
        EXPECT_EQ(image->depth, expected.depth);
        EXPECT_EQ(image->flags, expected.flags);
        EXPECT_EQ(xc_image_pixel_size(image), expected.pixel_size);
        EXPECT_EQ(image->width, 5);
        EXPECT_EQ(image->height, 3);
        EXPECT_EQ(image->stride, 24);
        EXPECT_EQ(image->extent, 72u);
        xc_image_unref(image);
    }
}

TEST(XcImage, HasTheFormatNumbersThatClientsSend)
{
    EXPECT_EQ(XC_FORMAT_ARGB32, 0);
    EXPECT_EQ(XC_FORMAT_XRGB32, 1);
    EXPECT_EQ(XC_FORMAT_RGB16, 3);
    EXPECT_EQ(XC_FORMAT_RGB18, 8);
    EXPECT_EQ(XC_IMAGE_ALPHA, 1u);
    EXPECT_EQ(XC_IMAGE_SHARED, 16u);
}

TEST(XcImage, OwnStorageIsZeroedByTheAllocator)
{
    const size_t size = 4096u * 1024u;
    xc_image *image = new_own(1000, 1024, XC_FORMAT_XRGB32, 4096);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(last_calloc, size); // so that untouched pages stay untouched
    EXPECT_EQ(image->extent, size);
    EXPECT_EQ(image->owned, 1);
    const auto *bytes = static_cast<const uint8_t *>(image->pixels);
    size_t not_zero = 0;
    for (size_t i = 0; i < size; i++)
        not_zero += bytes[i] != 0;
    EXPECT_EQ(not_zero, 0u);
    xc_image_unref(image);
}

TEST(XcImage, OwnStorageGoesWithTheLastReference)
{
    const long before = live;
    xc_image *image = new_own(4, 4, XC_FORMAT_RGB16, 8);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(live, before + 2);
    EXPECT_EQ(xc_image_ref(image), image);
    EXPECT_EQ(image->refs, 2);
    xc_image_unref(image);
    EXPECT_EQ(live, before + 2);
    EXPECT_EQ(image->refs, 1);
    xc_image_unref(image);
    EXPECT_EQ(live, before);
}

TEST(XcImage, BorrowedPixelsAreLeftAlone)
{
    std::array<uint32_t, 8> pixels;
    pixels.fill(0xA5A5A5A5);
    const long before = live;
    xc_image *image = xc_image_new_with_data(2, 4, pixels.data(), XC_FORMAT_ARGB32, 0, BORROWED, 8);
    ASSERT_NE(image, nullptr);
    image->flags |= XC_IMAGE_SHARED;
    EXPECT_EQ(live, before + 1);
    EXPECT_EQ(image->pixels, pixels.data());
    EXPECT_EQ(image->extent, 32u);
    EXPECT_EQ(image->owned, 0);
    xc_image_unref(image);
    EXPECT_EQ(live, before);
    for (uint32_t pixel : pixels)
        EXPECT_EQ(pixel, 0xA5A5A5A5);
}

TEST(XcImage, BorrowedMemoryOnTheHeapIsNotFreed)
{
    void *pixels = calloc(4, 4);
    const long before = live;
    xc_image_unref(xc_image_new_with_data(2, 2, pixels, XC_FORMAT_XRGB32, 0, BORROWED, 8));
    EXPECT_EQ(live, before);
    free(pixels);
}

size_t borrowed_extent(int32_t height, void *pixels, int32_t stride)
{
    xc_image *image = xc_image_new_with_data(2, height, pixels, XC_FORMAT_XRGB32, 0, BORROWED, stride);
    EXPECT_NE(image, nullptr);
    const size_t extent = image == nullptr ? SIZE_MAX : image->extent;
    xc_image_unref(image);
    return extent;
}

TEST(XcImage, BorrowedImagesMayHaveAnyStride)
{
    uint32_t pixel = 0;
    EXPECT_EQ(borrowed_extent(2, &pixel, 1), 2u);
    EXPECT_EQ(borrowed_extent(2, &pixel, 0), 0u);
    EXPECT_EQ(borrowed_extent(2, &pixel, -8), 0u);
    EXPECT_EQ(borrowed_extent(INT32_MAX, &pixel, INT32_MIN), 0u);
    EXPECT_EQ(borrowed_extent(65536, &pixel, 16384), size_t{1} << 30);
    if (sizeof(size_t) > 4) {
        EXPECT_EQ(borrowed_extent(INT32_MAX, &pixel, INT32_MAX), size_t{INT32_MAX} * INT32_MAX);
        EXPECT_EQ(borrowed_extent(100000, &pixel, 400000), size_t{400000} * 100000);
    }
}

TEST(XcImage, WithoutPixelsThereIsNothingToTouch)
{
    EXPECT_EQ(borrowed_extent(2, nullptr, 8), 0u);
}

TEST(XcImage, UnrefOfNullIsNothing)
{
    const long before = live;
    xc_image_unref(nullptr);
    EXPECT_EQ(live, before);
}

TEST(XcImage, RefusesUnknownFormats)
{
    uint32_t pixel = 0;
    for (int format = -300; format <= 300; format++) {
        if (format == 0 || format == 1 || format == 3 || format == 8)
            continue;
        EXPECT_EQ(new_own(1, 1, format, 4), nullptr) << format;
        EXPECT_EQ(xc_image_new_with_data(1, 1, &pixel, format, 0, BORROWED, 4), nullptr) << format;
    }
}

TEST(XcImage, RefusesSizesBelowOne)
{
    uint32_t pixel = 0;
    for (int32_t bad : {0, -1, INT_MIN}) {
        EXPECT_EQ(new_own(bad, 1, XC_FORMAT_XRGB32, 4), nullptr) << bad;
        EXPECT_EQ(new_own(1, bad, XC_FORMAT_XRGB32, 4), nullptr) << bad;
        EXPECT_EQ(xc_image_new_with_data(bad, 1, &pixel, XC_FORMAT_XRGB32, 0, BORROWED, 4), nullptr) << bad;
        EXPECT_EQ(xc_image_new_with_data(1, bad, &pixel, XC_FORMAT_XRGB32, 0, BORROWED, 4), nullptr) << bad;
    }
}

bool own_is_accepted(int32_t width, int32_t height, int format, int32_t stride)
{
    xc_image *image = new_own(width, height, format, stride);
    xc_image_unref(image);
    return image != nullptr;
}

TEST(XcImage, OwnStorageTakesAnyPositiveStride)
{
    EXPECT_TRUE(own_is_accepted(7, 2, XC_FORMAT_ARGB32, 27)); // rows overlap
    EXPECT_TRUE(own_is_accepted(7, 2, XC_FORMAT_RGB18, 21));
    EXPECT_TRUE(own_is_accepted(7, 2, XC_FORMAT_RGB16, 1));
    EXPECT_FALSE(own_is_accepted(7, 2, XC_FORMAT_RGB16, 0));
    EXPECT_FALSE(own_is_accepted(7, 2, XC_FORMAT_RGB16, -14));
}

TEST(XcImage, RefusesOwnStorageThatCannotBeCounted)
{
    const long before = live;
    EXPECT_FALSE(own_is_accepted(INT_MAX, INT_MAX, XC_FORMAT_XRGB32, INT_MAX));
    EXPECT_FALSE(own_is_accepted(INT_MAX, INT_MAX, XC_FORMAT_XRGB32, -4)); // the stride as 32 bits would have it
    EXPECT_FALSE(own_is_accepted(INT_MAX / 2, INT_MAX, XC_FORMAT_RGB16, INT_MAX - 1));
    EXPECT_FALSE(own_is_accepted(100000, 100000, XC_FORMAT_XRGB32, 400000));
    EXPECT_FALSE(own_is_accepted(1 << 15, 1 << 15, XC_FORMAT_XRGB32, 1 << 17)); // 2^32: nothing is left in 32 bits
    EXPECT_FALSE(own_is_accepted(1, 1 << 15, XC_FORMAT_XRGB32, 1 << 16));       // 2^31: one too many
    EXPECT_EQ(live, before);
}

TEST(XcImage, RefusesPixelsThatAreNeitherBorrowedNorItsOwn)
{
    uint32_t pixel = 0;
    EXPECT_EQ(xc_image_new_with_data(1, 1, &pixel, XC_FORMAT_XRGB32, 0, OWN, 4), nullptr);
}

TEST(XcImage, WithoutMemoryThereIsNoImageAndNoLeak)
{
    uint32_t pixel = 0;
    const long before = live;
    calloc_fails_in = 1;
    EXPECT_EQ(xc_image_new_with_data(1, 1, &pixel, XC_FORMAT_XRGB32, 0, BORROWED, 4), nullptr);
    EXPECT_EQ(calloc_fails_in, 0);
    for (int call = 1; call <= 2; call++) {
        calloc_fails_in = call;
        EXPECT_EQ(new_own(2, 2, XC_FORMAT_XRGB32, 8), nullptr) << call;
        EXPECT_EQ(calloc_fails_in, 0);
    }
    EXPECT_EQ(live, before);
}

TEST(XcImage, PointerCountsStridesAndPixels)
{
    for (const FormatCase &format : FORMATS) {
        xc_image *image = new_own(10, 10, format.format, 101);
        ASSERT_NE(image, nullptr);
        auto *start = static_cast<char *>(image->pixels);
        EXPECT_EQ(xc_image_pointer(image, 0, 0), start);
        EXPECT_EQ(xc_image_pointer(image, 3, 0), start + 3 * format.pixel_size);
        EXPECT_EQ(xc_image_pointer(image, 0, 4), start + 404);
        EXPECT_EQ(xc_image_pointer(image, 9, 9), start + 909 + 9 * format.pixel_size);
        xc_image_unref(image);
    }
}

TEST(XcImage, PointerIsNotCutTo32Bits)
{
    xc_image image = {};
    image.depth = 32;
    image.stride = INT_MAX;
    image.pixels = &image;
    const auto distance = [&](int32_t x, int32_t y) {
        return reinterpret_cast<uintptr_t>(xc_image_pointer(&image, x, y)) - reinterpret_cast<uintptr_t>(&image);
    };
    EXPECT_EQ(distance(INT_MAX, INT_MAX), static_cast<uintptr_t>(int64_t{INT_MAX} * INT_MAX + 4 * int64_t{INT_MAX}));
    EXPECT_EQ(distance(-1, 0), static_cast<uintptr_t>(-4));
    EXPECT_EQ(distance(0, -2), static_cast<uintptr_t>(-2 * int64_t{INT_MAX}));
}

xc_rect cross(xc_rect a, xc_rect b)
{
    xc_rect result = {};
    xg_area_cross(&a, &b, &result);
    return result;
}

void expect_rect(const xc_rect &rect, int32_t x1, int32_t y1, int32_t x2, int32_t y2)
{
    EXPECT_EQ(rect.x1, x1);
    EXPECT_EQ(rect.y1, y1);
    EXPECT_EQ(rect.x2, x2);
    EXPECT_EQ(rect.y2, y2);
}

TEST(XgAreaCross, TakesWhatBothHave)
{
    expect_rect(cross({0, 0, 10, 20}, {5, -5, 30, 15}), 5, 0, 10, 15);
    expect_rect(cross({5, -5, 30, 15}, {0, 0, 10, 20}), 5, 0, 10, 15);
    expect_rect(cross({0, 0, 100, 100}, {10, 20, 30, 40}), 10, 20, 30, 40);
    expect_rect(cross({INT_MIN, INT_MIN, INT_MAX, INT_MAX}, {-1, -2, 3, 4}), -1, -2, 3, 4);
}

TEST(XgAreaCross, OfDisjointRectanglesIsInvertedOnThatAxis)
{
    expect_rect(cross({0, 0, 10, 10}, {20, 0, 30, 10}), 20, 0, 10, 10);
    expect_rect(cross({0, 0, 10, 10}, {0, 20, 10, 30}), 0, 20, 10, 10);
    expect_rect(cross({0, 0, 10, 10}, {20, 30, 40, 50}), 20, 30, 10, 10);
    expect_rect(cross({0, 0, 10, 10}, {10, 0, 20, 10}), 10, 0, 10, 10); // side by side: empty, not inverted
}

TEST(XgAreaCross, MayWriteOverEitherOperand)
{
    xc_rect a = {0, 0, 10, 20};
    xc_rect b = {5, -5, 30, 15};
    xg_area_cross(&a, &b, &a);
    expect_rect(a, 5, 0, 10, 15);
    a = {0, 0, 10, 20};
    xg_area_cross(&a, &b, &b);
    expect_rect(b, 5, 0, 10, 15);
    xg_area_cross(&a, &a, &a);
    expect_rect(a, 0, 0, 10, 20);
}

} // namespace
