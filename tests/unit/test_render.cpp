// SPDX-License-Identifier: MIT
// What becomes of one pixel, the telling pixels by name, and the two lines that one converter prints.
#include "../../src/render/render.h"

#include <cstdio>
#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../support/converter_oracle.h"
#include "../support/kernel_sets.h"
#include "../support/stdout_capture.h"

namespace {

constexpr Converter ALL_FROM_RGB_TO_16[] = {render_rgb_to_16, render_rgb_to_16_90_quiet, render_rgb_to_16_270,
                                            render_rgb_to_16_x2};
constexpr Converter ALL_FROM_RGB_TO_18[] = {render_rgb_to_18, render_rgb_to_18_90, render_rgb_to_18_270};

// One pixel through a converter.
template <typename Src> uint32_t converted(Converter run, Src pixel)
{
    FbServer fs = {};
    fs.native_w = 1;
    uint32_t dst[2] = {};
    run(&fs, &pixel, dst, 0, 0, 0, 0, 1, 1, 4, 4);
    return converter_facts_of(run).dst_size == 2 ? dst[0] & 0xFFFF : dst[0];
}

TEST(Pixel, White)
{
    for (Converter run : ALL_FROM_RGB_TO_16)
        EXPECT_EQ(converted<uint32_t>(run, 0x00FFFFFF), 0xFFFFu);
    for (Converter run : ALL_FROM_RGB_TO_18)
        EXPECT_EQ(converted<uint32_t>(run, 0x00FFFFFF), 0x3FFFFu);
}

TEST(Pixel, MiddleGreyIsTruncated)
{
    for (Converter run : ALL_FROM_RGB_TO_16)
        EXPECT_EQ(converted<uint32_t>(run, 0x00808080), 0x8410u);
    for (Converter run : ALL_FROM_RGB_TO_18)
        EXPECT_EQ(converted<uint32_t>(run, 0x00808080), 0x20820u);
}

TEST(Pixel, AlphaIsDropped)
{
    for (Converter run : ALL_FROM_RGB_TO_16)
        EXPECT_EQ(converted<uint32_t>(run, 0xFF000000), 0u);
    for (Converter run : ALL_FROM_RGB_TO_18)
        EXPECT_EQ(converted<uint32_t>(run, 0xFF000000), 0u);
}

TEST(Pixel, WideningAddsZeroBits)
{
    EXPECT_EQ(converted<uint16_t>(render_16_to_32, 0xFFFF), 0x00F8FCF8u);
    EXPECT_EQ(converted<uint16_t>(render_16_to_18, 0xFFFF), 0x0003EFFEu);
    EXPECT_EQ(converted<uint32_t>(render_18_to_32, 0x3FFFF), 0x00FCFCFCu);
    EXPECT_EQ(converted<uint32_t>(render_18_to_16, 0x3FFFF), 0xFFFFu);
}

TEST(Pixel, AlphaOfFourBits)
{
    EXPECT_EQ(converted<uint32_t>(render_argb_to_32_alpha4, 0xABCDEF12), 0x0ACDEF12u);
    EXPECT_EQ(converted<uint32_t>(render_argb_to_32_alpha4, 0x0FFFFFFF), 0x00FFFFFFu);
    EXPECT_EQ(converted<uint32_t>(render_rgb_to_32_alpha4, 0xABCDEF12), 0x0FCDEF12u);
}

TEST(Pixel, DoublingFillsABlock)
{
    const uint16_t small[2] = {0x1234, 0xABCD};
    uint16_t block[8] = {};
    render_16_to_16_x2(nullptr, small, block, 0, 0, 0, 0, 2, 1, 4, 8);
    const uint16_t expected[8] = {0x1234, 0x1234, 0xABCD, 0xABCD, 0x1234, 0x1234, 0xABCD, 0xABCD};
    EXPECT_EQ(memcmp(block, expected, sizeof block), 0);
}

TEST(Pixel, DoublingCountsWordsOfTheDestination)
{
    // A stride of 7 pixels holds 3 pairs: rows are 6 pixels apart. Pixel (1, 1) is the second pair of the third row.
    const uint16_t one = 0x7777;
    uint16_t dst[6 * 4] = {};
    render_16_to_16_x2(nullptr, &one, dst, 0, 0, 1, 1, 1, 1, 2, 14);
    for (int i = 0; i < 24; i++)
        EXPECT_EQ(dst[i], i == 14 || i == 15 || i == 20 || i == 21 ? one : 0) << i;
}

// Pixels through a converter, in every instruction set, compared with the rule for each. They are one long row, or rows
// of 256 where the converter does not leave them the way they stand.
template <typename Src, typename Dst> void expect_rule(Converter run, const std::vector<Src> &src)
{
    const ConverterFacts &facts = converter_facts_of(run);
    const auto n = static_cast<int32_t>(src.size());
    const bool doubled = facts.placement == Placement::doubled;
    const int32_t w = facts.placement == Placement::unturned ? n : 256, h = n / w;
    const int32_t dst_width = facts.placement == Placement::quarter_turn ? h : doubled ? 2 * w : w;
    const ConverterArguments args = {h, 0, 0, 0, 0, w, h, w * int32_t{sizeof(Src)}, dst_width * int32_t{sizeof(Dst)}};
    const size_t size = doubled ? 4 * src.size() : src.size();
    std::vector<Dst> expected(size);
    convert_slowly(facts, args, reinterpret_cast<const uint8_t *>(src.data()),
                   reinterpret_cast<uint8_t *>(expected.data()));
    for (const Kernels *set : all_kernel_sets()) {
        const UsedKernels used(set);
        std::vector<Dst> dst(size);
        convert_really(facts, args, reinterpret_cast<const uint8_t *>(src.data()),
                       reinterpret_cast<uint8_t *>(dst.data()));
        for (size_t i = 0; i < size; i++)
            ASSERT_EQ(dst[i], expected[i]) << facts.name << " by " << set->name << ", place " << i;
    }
}

TEST(Pixel, All16BitValues)
{
    std::vector<uint16_t> all;
    for (uint32_t p = 0; p < 65536; p++)
        all.push_back(static_cast<uint16_t>(p));
    expect_rule<uint16_t, uint32_t>(render_16_to_32, all);
    expect_rule<uint16_t, uint32_t>(render_16_to_18, all);
    expect_rule<uint16_t, uint16_t>(render_16_to_16, all);
    for (Converter run : {render_16_to_16_270, render_16_to_16_90, render_16_to_16_x2})
        expect_rule<uint16_t, uint16_t>(run, all);
}

TEST(Pixel, All18BitValues)
{
    std::vector<uint32_t> all;
    for (uint32_t p = 0; p < 1u << 18; p++)
        all.push_back(p);
    for (uint32_t p = 0; p < 1u << 18; p++)
        all.push_back(p | 0xFFFC0000 * (p % 2)); // bits that should be zero must not come through
    expect_rule<uint32_t, uint32_t>(render_18_to_32, all);
    expect_rule<uint32_t, uint16_t>(render_18_to_16, all);
    expect_rule<uint32_t, uint32_t>(render_32_to_32, all);
}

TEST(Pixel, ManyOf32BitsAndEveryValueOfEachChannel)
{
    std::vector<uint32_t> many;
    for (uint32_t value = 0; value < 256; value++) {
        for (int shift = 0; shift < 32; shift += 8) {
            many.push_back(value << shift);
            many.push_back(~(value << shift));
        }
    }
    for (uint32_t i = 0; i < 1u << 19; i++)
        many.push_back(i * 2654435761u);
    for (Converter run : {render_rgb_to_16, render_rgb_to_16_90_quiet, render_rgb_to_16_270, render_rgb_to_16_x2})
        expect_rule<uint32_t, uint16_t>(run, many);
    for (Converter run :
         {render_rgb_to_18, render_rgb_to_18_90, render_rgb_to_18_270, render_rgb_to_32, render_rgb_to_32a,
          render_32_to_32, render_32_to_32_90, render_32_to_32_270, render_argb_to_32_alpha4, render_rgb_to_32_alpha4})
        expect_rule<uint32_t, uint32_t>(run, many);
}

// The lines, with addresses as this system's formatter prints them.
std::string lines_of(const void *src0, intptr_t start, const char *numbers)
{
    char text[256];
    snprintf(text, sizeof text, "render_rgb_to_16_90: %s\nsrc0 = %p src = %p\n", numbers, src0,
             reinterpret_cast<const void *>(reinterpret_cast<intptr_t>(src0) + start));
    return text;
}

TEST(RgbTo16Turned, LowerPixelComesLeftOfTheUpperOne)
{
    FbServer fs = {};
    fs.native_w = 240;
    const uint32_t src[2] = {0x00FF0000, 0x000000FF};
    std::vector<uint16_t> dst(480, 0x5A5A);
    const StdoutCapture capture;
    render_rgb_to_16_90(&fs, src, dst.data(), 0, 0, 0, 0, 1, 2, 4, 480);
    EXPECT_EQ(capture.text(), lines_of(src, 4, "0 0 0 0 1 2 sstride = 1, dstride = 240"));
    EXPECT_EQ(dst[238], 0x001F);
    EXPECT_EQ(dst[239], 0xF800);
    dst[238] = dst[239] = 0x5A5A;
    EXPECT_EQ(dst, std::vector<uint16_t>(480, 0x5A5A));
}

TEST(RgbTo16Turned, PrintsOnEveryCallEvenOfNothing)
{
    const uint32_t src[1] = {};
    uint16_t dst[1] = {};
    const StdoutCapture capture;
    render_rgb_to_16_90(nullptr, src, dst, 5, 6, 7, 8, 0, 3, 11, 7);
    render_rgb_to_16_90(nullptr, src, dst, -1, 0, -2, -3, 4, -1, 400, 201);
    EXPECT_EQ(capture.text(), lines_of(src, (8 * 2 + 5) * 4, "5 6 7 8 0 3 sstride = 2, dstride = 3") +
                                  lines_of(src, (-2 * 100 - 1) * 4, "-1 0 -2 -3 4 -1 sstride = 100, dstride = 100"));
}

TEST(RgbTo16Turned, HalvesPrintOrDrawButNotBoth)
{
    FbServer fs = {};
    fs.native_w = 1;
    const uint32_t src[1] = {0x00FFFFFF};
    uint16_t dst[1] = {};
    const StdoutCapture capture;
    EXPECT_EQ(render_rgb_to_16_90_quiet(&fs, src, dst, 0, 0, 0, 0, 1, 1, 4, 2), 0);
    EXPECT_EQ(capture.text(), "");
    EXPECT_EQ(dst[0], 0xFFFF);
    dst[0] = 0;
    EXPECT_EQ(render_rgb_to_16_90_announce(&fs, src, dst, 0, 0, 0, 0, 1, 1, 4, 2), 0);
    EXPECT_EQ(capture.text(), lines_of(src, 0, "0 0 0 0 1 1 sstride = 1, dstride = 1"));
    EXPECT_EQ(dst[0], 0);
}

TEST(RgbTo16Turned, AnnouncesEvenNonsenseWithoutHarm)
{
    const StdoutCapture capture;
    const uint32_t src[1] = {};
    render_rgb_to_16_90_announce(nullptr, src, nullptr, INT_MIN, INT_MAX, 0, 0, 0, INT_MAX, -1, -1);
    EXPECT_EQ(capture.text().rfind("render_rgb_to_16_90: -2147483648 2147483647 0 0 0 2147483647 "
                                   "sstride = 1073741823, dstride = 2147483647\nsrc0 = ",
                                   0),
              0u);
}

TEST(Converters, TurnedAt270LandWhereTheUnturnedOnesDo)
{
    const Converter pairs[][2] = {{render_rgb_to_16, render_rgb_to_16_270},
                                  {render_16_to_16, render_16_to_16_270},
                                  {render_32_to_32, render_32_to_32_270},
                                  {render_rgb_to_18, render_rgb_to_18_270}};
    std::vector<uint32_t> src;
    for (uint32_t i = 0; i < 400; i++)
        src.push_back(i * 2654435761u);
    for (const auto &pair : pairs) {
        std::vector<uint32_t> unturned(400, 0x5A5A5A5A);
        std::vector<uint32_t> turned = unturned;
        pair[0](nullptr, src.data(), unturned.data(), 1, 2, 3, 4, 7, 5, 50, 60);
        pair[1](nullptr, src.data(), turned.data(), 1, 2, 3, 4, 7, 5, 50, 60);
        EXPECT_EQ(unturned, turned);
        EXPECT_NE(unturned, std::vector<uint32_t>(400, 0x5A5A5A5A));
    }
}

} // namespace
