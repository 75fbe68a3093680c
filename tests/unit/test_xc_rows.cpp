// SPDX-License-Identifier: MIT
// Copying, blending and conversion of rows, against pixman.
#include "xc.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <pixman.h>

#include "../support/guarded_buffer.h"
#include "../support/kernel_sets.h"
#include "../support/random_cases.h"

namespace {

using Pixels = std::vector<uint32_t>;
using Row = void (*)(const uint32_t *, uint32_t *, int32_t);
using ImageOwner = std::unique_ptr<pixman_image_t, decltype(&pixman_image_unref)>;

constexpr uint32_t COLOUR = 0x00FFFFFF;
constexpr uint32_t ALL = 0xFFFFFFFF;

ImageOwner pixman_row(pixman_format_code_t format, const void *pixels, size_t n)
{
    const int width = static_cast<int>(n);
    auto *bits = static_cast<uint32_t *>(const_cast<void *>(pixels));
    return {pixman_image_create_bits(format, width, 1, bits, width * 4), pixman_image_unref};
}

// pixman draws nothing at all in rows beyond its 16-bit coordinates, so a long row goes in pieces.
void pixman_compose(pixman_op_t op, pixman_format_code_t src_format, const Pixels &src, pixman_format_code_t dst_format,
                    void *dst)
{
    const size_t dst_size = dst_format == PIXMAN_r5g6b5 ? 2 : 4;
    for (size_t at = 0; at < src.size(); at += 16384) {
        const size_t n = std::min<size_t>(16384, src.size() - at);
        const ImageOwner from = pixman_row(src_format, src.data() + at, n);
        const ImageOwner to = pixman_row(dst_format, static_cast<uint8_t *>(dst) + at * dst_size, n);
        ASSERT_NE(from.get(), nullptr);
        ASSERT_NE(to.get(), nullptr);
        pixman_image_composite32(op, from.get(), nullptr, to.get(), 0, 0, 0, 0, 0, 0, static_cast<int32_t>(n), 1);
    }
}

// The first pixel where the two differ under the mask, or the size.
size_t first_difference(const Pixels &a, const Pixels &b, uint32_t mask)
{
    size_t i = 0;
    while (i < a.size() && ((a[i] ^ b[i]) & mask) == 0)
        i++;
    return i;
}

void expect_like_pixman(Row row, pixman_op_t op, pixman_format_code_t src_format, pixman_format_code_t dst_format,
                        uint32_t mask, const Pixels &src, const Pixels &dst)
{
    Pixels theirs = dst;
    pixman_compose(op, src_format, src, dst_format, theirs.data());
    for (const Kernels *set : all_kernel_sets()) {
        const UsedKernels used(set);
        Pixels ours = dst;
        row(src.data(), ours.data(), static_cast<int32_t>(src.size()));
        const size_t i = first_difference(ours, theirs, mask);
        if (i < src.size()) {
            ADD_FAILURE() << std::hex << src[i] << " over " << dst[i] << " gives " << ours[i] << ", with pixman "
                          << theirs[i] << " (" << set->name << ")";
        }
    }
}

void expect_over(const Pixels &src, const Pixels &dst)
{
    expect_like_pixman(xc_blend_pixels_rgba_to_rgba, PIXMAN_OP_OVER, PIXMAN_a8r8g8b8, PIXMAN_a8r8g8b8, ALL, src, dst);
    expect_like_pixman(xc_blend_pixels_rgba_to_rgb, PIXMAN_OP_OVER, PIXMAN_a8r8g8b8, PIXMAN_x8r8g8b8, COLOUR, src, dst);
}

uint32_t pack(uint32_t a, uint32_t r, uint32_t g, uint32_t b)
{
    return a << 24 | r << 16 | g << 8 | b;
}

// Every alpha with every source and destination component, premultiplied or not, in each of the three places.
TEST(XcBlend, IsPixmansOverForEveryAlphaAndComponent)
{
    Pixels src(65536);
    Pixels dst(65536);
    for (uint32_t alpha = 0; alpha < 256 && !HasFailure(); alpha++) {
        for (uint32_t i = 0; i < 65536; i++) {
            const uint32_t s = i >> 8;
            const uint32_t d = i & 255;
            src[i] = pack(alpha, s, 255 - s, s ^ alpha);
            dst[i] = pack(d, d, 255 - d, d ^ 0x55);
        }
        expect_over(src, dst);
    }
}

TEST(XcBlend, IsPixmansOverForRandomWords)
{
    random_cases::run(200, [](random_cases::Random &random) {
        Pixels src(static_cast<size_t>(random_cases::between(random, 1, 2000)));
        Pixels dst(src.size());
        for (size_t i = 0; i < src.size(); i++) {
            src[i] = static_cast<uint32_t>(random());
            dst[i] = static_cast<uint32_t>(random());
        }
        expect_over(src, dst);
    });
}

TEST(XcBlend, KnownPixels)
{
    const auto over = [](uint32_t src, uint32_t dst) {
        xc_blend_pixels_rgba_to_rgba(&src, &dst, 1);
        return dst;
    };
    EXPECT_EQ(over(0xFF123456, 0xFFABCDEF), 0xFF123456u); // opaque hides
    EXPECT_EQ(over(0x00000000, 0x12345678), 0x12345678u); // transparent does nothing
    EXPECT_EQ(over(0x80000000, 0xFFFFFFFF), 0xFF7F7F7Fu); // half a veil
    EXPECT_EQ(over(0x80FFFFFF, 0xFF808080), 0xFFFFFFFFu); // brighter than its alpha allows: it stops at white
    EXPECT_EQ(over(0x00FF0000, 0xFF800010), 0xFFFF0010u); // one channel does not spill into the next
}

TEST(XcCopy, KeepsWordsOrMakesThemOpaque)
{
    std::mt19937 random(1);
    Pixels src(4099);
    Pixels dst(src.size());
    for (size_t i = 0; i < src.size(); i++) {
        src[i] = static_cast<uint32_t>(random());
        dst[i] = static_cast<uint32_t>(random());
    }
    expect_like_pixman(xc_copy_pixels_rgba_to_rgba, PIXMAN_OP_SRC, PIXMAN_a8r8g8b8, PIXMAN_a8r8g8b8, ALL, src, dst);
    expect_like_pixman(xc_copy_pixels_rgb_to_rgba, PIXMAN_OP_SRC, PIXMAN_x8r8g8b8, PIXMAN_a8r8g8b8, ALL, src, dst);
    uint32_t opaque = 0;
    xc_copy_pixels_rgb_to_rgba(src.data(), &opaque, 1);
    EXPECT_EQ(opaque, src[0] | 0xFF000000);
}

TEST(XcConvert, To16IsPixmans)
{
    Pixels src(1 << 20);
    for (uint32_t i = 0; i < src.size(); i++)
        src[i] = i * 2654435761u; // spread over all bits
    std::vector<uint16_t> theirs(src.size());
    pixman_compose(PIXMAN_OP_SRC, PIXMAN_x8r8g8b8, src, PIXMAN_r5g6b5, theirs.data());
    for (const Kernels *set : all_kernel_sets()) {
        const UsedKernels used(set);
        std::vector<uint16_t> ours(src.size());
        xc_convert_rgba_to_16(src.data(), ours.data(), 0, 0, 1 << 16, 16, 0, 0);
        for (size_t i = 0; i < src.size(); i++)
            ASSERT_EQ(ours[i], theirs[i]) << std::hex << src[i] << " " << set->name;
    }
}

// Rows that end where their memory ends, and rows of no length.
void expect_stays_inside(Row row, int32_t n)
{
    const size_t size = static_cast<size_t>(n) * 4;
    for (GuardedBuffer::Side side : {GuardedBuffer::AT_START, GuardedBuffer::AT_END}) {
        const GuardedBuffer src(size, side);
        const GuardedBuffer dst(size, side);
        memset(src.all().data(), 0x80, src.all().size());
        memset(dst.all().data(), 0xC3, dst.all().size());
        row(reinterpret_cast<uint32_t *>(src.data()), reinterpret_cast<uint32_t *>(dst.data()), n);
        size_t changed = 0;
        for (uint8_t byte : dst.all())
            changed += byte != 0xC3;
        EXPECT_EQ(changed, size) << n;
    }
}

TEST(XcRows, StayInsideTheirRow)
{
    for (Row row : {xc_copy_pixels_rgba_to_rgba, xc_copy_pixels_rgb_to_rgba, xc_blend_pixels_rgba_to_rgba,
                    xc_blend_pixels_rgba_to_rgb}) {
        for (const Kernels *set : all_kernel_sets()) {
            const UsedKernels used(set);
            for (int32_t n = 0; n < 68; n++)
                expect_stays_inside(row, n);
        }
        row(nullptr, nullptr, 0);
        row(nullptr, nullptr, -1);
        row(nullptr, nullptr, INT32_MIN);
    }
}

template <typename Pixel>
using Convert = void (*)(const uint32_t *, Pixel *, ptrdiff_t, ptrdiff_t, int32_t, int32_t, int32_t, int32_t);

// A rectangle of 3 x 2 pixels that count upwards, rows 5 and 7 apart; where it is said to lie must not matter.
template <typename Pixel> void expect_in_place(Convert<Pixel> convert, Pixel (*pixel)(uint32_t))
{
    const uint32_t src[8] = {0xFF010203, 0x01FFFFFF, 0x00808080, 0xDEADBEEF, 0xDEADBEEF, 0xFC030201, 0x10F8FCF8, 7};
    for (int32_t where : {0, 1, -5, 1000000}) {
        Pixel dst[11];
        Pixel expected[11];
        memset(dst, 0x5A, sizeof dst);
        memset(expected, 0x5A, sizeof expected);
        for (int i = 0; i < 3; i++) {
            expected[i] = pixel(src[i]);
            expected[7 + i] = pixel(src[5 + i]);
        }
        convert(src, dst, 2, 4, 3, 2, where, 3 * where);
        EXPECT_EQ(memcmp(dst, expected, sizeof dst), 0) << where;
    }
    convert(nullptr, nullptr, 0, 0, 0, 1, 0, 0);
    convert(nullptr, nullptr, 0, 0, 1, 0, 0, 0);
    convert(nullptr, nullptr, 0, 0, -1, 5, 0, 0);
    convert(nullptr, nullptr, 0, 0, 5, INT32_MIN, 0, 0);
}

uint32_t channel(uint32_t p, int byte)
{
    return p / (byte == 0 ? 1u : byte == 1 ? 256u : 65536u) % 256;
}

TEST(XcConvert, KeepsTheRectangleWhereItIs)
{
    expect_in_place<uint16_t>(xc_convert_rgba_to_16, [](uint32_t p) {
        return static_cast<uint16_t>(channel(p, 2) / 8 * 2048 + channel(p, 1) / 4 * 32 + channel(p, 0) / 8);
    });
    for (auto convert : {xc_convert_rgba_to_18, xc_convert_rgba_to_18_90, xc_convert_rgba_to_18_270}) {
        expect_in_place<uint32_t>(
            convert, [](uint32_t p) { return channel(p, 2) / 4 * 4096 + channel(p, 1) / 4 * 64 + channel(p, 0) / 4; });
    }
}

TEST(XcConvert, RowsMayOverlapInTheSource)
{
    const uint32_t src[3] = {0x00FFFFFF, 0, 0x00FC0000};
    uint32_t dst[4] = {};
    xc_convert_rgba_to_18(src, dst, -1, 0, 2, 2, 0, 0); // second row begins with the first one's last pixel
    EXPECT_EQ(dst[0], 0x3FFFFu);
    EXPECT_EQ(dst[1], 0u);
    EXPECT_EQ(dst[2], 0u);
    EXPECT_EQ(dst[3], 0x3F000u);
}

} // namespace
