// SPDX-License-Identifier: MIT
// Which converter serves which pair of images.
#include <climits>
#include <set>

#include <gtest/gtest.h>

#include "../support/converter_oracle.h"

namespace {

constexpr int ROTATIONS[] = {0, 90, 270, 180, 45, -90, 1, 360, 450, INT_MAX, INT_MIN};
constexpr int DEPTHS[] = {16, 18, 32, 24, 0, 1, 8, 12, 15, 17, 19, 30, 31, 33, 64, 255};

const ConverterChoice *choice(int src_depth, int dst_depth, int rotation, bool src_alpha = false,
                              bool dst_alpha = false)
{
    xc_image src = {};
    xc_image dst = {};
    src.depth = static_cast<uint8_t>(src_depth);
    dst.depth = static_cast<uint8_t>(dst_depth);
    src.flags = XC_IMAGE_SHARED | (src_alpha ? XC_IMAGE_ALPHA : 0);
    dst.flags = XC_IMAGE_SHARED | (dst_alpha ? XC_IMAGE_ALPHA : 0);
    return find_converter(&src, &dst, rotation);
}

Converter chosen(int src_depth, int dst_depth, int rotation, bool src_alpha = false, bool dst_alpha = false)
{
    const ConverterChoice *found = choice(src_depth, dst_depth, rotation, src_alpha, dst_alpha);
    return found == nullptr ? nullptr : found->run;
}

// The alpha flags decide, the rotation does not.
TEST(FindConverter, From32BitsOntoWords)
{
    for (int dst_depth : {32, 24}) {
        for (int rotation : ROTATIONS) {
            EXPECT_EQ(chosen(32, dst_depth, rotation, true, true), render_argb_to_32a);
            EXPECT_EQ(chosen(32, dst_depth, rotation, true, false), render_argb_to_32);
            EXPECT_EQ(chosen(32, dst_depth, rotation, false, true), render_rgb_to_32a);
            EXPECT_EQ(chosen(32, dst_depth, rotation, false, false), render_rgb_to_32);
        }
    }
}

struct ByRotation {
    int src_depth, dst_depth;
    Converter at_0, at_90, at_270;
};

// The rotation decides, the alpha flags do not.
constexpr ByRotation BY_ROTATION[] = {
    {32, 16, render_rgb_to_16, render_rgb_to_16_90_quiet, render_rgb_to_16_270},
    {32, 18, render_rgb_to_18, render_rgb_to_18_90, render_rgb_to_18_270},
    {16, 16, render_16_to_16, render_16_to_16_90, render_16_to_16_270},
    {18, 18, render_32_to_32, render_32_to_32_90, render_32_to_32_270},
};

TEST(FindConverter, ByRotation)
{
    for (const ByRotation &row : BY_ROTATION) {
        for (int alphas = 0; alphas < 4; alphas++) {
            SCOPED_TRACE(testing::Message() << row.src_depth << " onto " << row.dst_depth << " alphas " << alphas);
            const bool src_alpha = alphas & 1;
            const bool dst_alpha = alphas & 2;
            EXPECT_EQ(chosen(row.src_depth, row.dst_depth, 0, src_alpha, dst_alpha), row.at_0);
            EXPECT_EQ(chosen(row.src_depth, row.dst_depth, 90, src_alpha, dst_alpha), row.at_90);
            EXPECT_EQ(chosen(row.src_depth, row.dst_depth, 270, src_alpha, dst_alpha), row.at_270);
            for (int rotation : {180, 45, -90, 1, 360, 450, INT_MAX, INT_MIN})
                EXPECT_EQ(chosen(row.src_depth, row.dst_depth, rotation, src_alpha, dst_alpha), nullptr) << rotation;
        }
    }
}

// Neither decides.
TEST(FindConverter, MixedDepths)
{
    for (int rotation : ROTATIONS) {
        for (int alphas = 0; alphas < 4; alphas++) {
            EXPECT_EQ(chosen(16, 32, rotation, alphas & 1, alphas & 2), render_16_to_32);
            EXPECT_EQ(chosen(16, 18, rotation, alphas & 1, alphas & 2), render_16_to_18);
            EXPECT_EQ(chosen(18, 32, rotation, alphas & 1, alphas & 2), render_18_to_32);
            EXPECT_EQ(chosen(18, 16, rotation, alphas & 1, alphas & 2), render_18_to_16);
        }
    }
}

bool pair_is_served(int src_depth, int dst_depth)
{
    const bool known_source = src_depth == 16 || src_depth == 18 || src_depth == 32;
    const bool known_destination = dst_depth == 16 || dst_depth == 18 || dst_depth == 32;
    return known_source && (known_destination || (src_depth == 32 && dst_depth == 24));
}

TEST(FindConverter, RefusesEveryOtherPair)
{
    for (int src_depth : DEPTHS) {
        for (int dst_depth : DEPTHS) {
            for (int rotation : ROTATIONS) {
                for (int alphas = 0; alphas < 4; alphas++) {
                    const bool supported = rotation == 0 || rotation == 90 || rotation == 270;
                    const bool found = chosen(src_depth, dst_depth, rotation, alphas & 1, alphas & 2) != nullptr;
                    if (!pair_is_served(src_depth, dst_depth)) {
                        EXPECT_FALSE(found) << src_depth << " onto " << dst_depth << " at " << rotation;
                    } else if (supported) {
                        EXPECT_TRUE(found) << src_depth << " onto " << dst_depth << " at " << rotation;
                    }
                }
            }
        }
    }
}

TEST(FindConverter, RefusesPackedPixels)
{
    for (int dst_depth : {16, 18, 24, 32})
        EXPECT_EQ(chosen(24, dst_depth, 0), nullptr) << dst_depth;
    EXPECT_EQ(chosen(16, 24, 0), nullptr);
    EXPECT_EQ(chosen(18, 24, 0), nullptr);
}

// What a choice says of its converter agrees with what the converter does.
TEST(FindConverter, DescribesTheConverter)
{
    std::set<Converter> met;
    for (int src_depth : {16, 18, 32}) {
        for (int dst_depth : {16, 18, 24, 32}) {
            for (int rotation : {0, 90, 270}) {
                for (int alphas = 0; alphas < 4; alphas++) {
                    const ConverterChoice *found = choice(src_depth, dst_depth, rotation, alphas & 1, alphas & 2);
                    if (found == nullptr)
                        continue;
                    const ConverterFacts &facts = converter_facts_of(found->run);
                    SCOPED_TRACE(facts.name);
                    EXPECT_EQ(found->src_size, facts.src_size);
                    EXPECT_EQ(found->dst_size, facts.dst_size);
                    EXPECT_EQ(found->turned, facts.placement == Placement::quarter_turn);
                    EXPECT_NE(facts.placement, Placement::doubled);
                    const bool prints = found->run == render_rgb_to_16_90_quiet;
                    EXPECT_EQ(found->announce, prints ? render_rgb_to_16_90_announce : nullptr);
                    met.insert(found->run);
                }
            }
        }
    }
    EXPECT_EQ(met.size(), 20u); // the alpha-4 and doubling ones serve no pair
}

} // namespace
