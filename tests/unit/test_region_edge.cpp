// SPDX-License-Identifier: MIT
// Regions at the rim of the 16-bit plane.
#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "../../src/region/region.h"

namespace {

// An L of two rectangles, (0, 0) to (20, 10).
class RegionEdge : public testing::Test {
protected:
    void SetUp() override
    {
        const Rect upper{0, 0, 10, 4}, lower{0, 4, 20, 10};
        region_init(&region, nullptr);
        region_union_rect(&region, &region, &upper);
        region_union_rect(&region, &region, &lower);
        testing::internal::CaptureStderr(); // where pixman complains
    }
    void TearDown() override
    {
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        region_uninit(&region);
    }
    void expect_rects(const std::vector<Rect> &expected)
    {
        ASSERT_EQ(region_num_rects(&region), static_cast<int>(expected.size()));
        for (size_t i = 0; i < expected.size(); i++) {
            const Box &box = region_rects(&region)[i];
            EXPECT_EQ(box.x1, expected[i].x1);
            EXPECT_EQ(box.y1, expected[i].y1);
            EXPECT_EQ(box.x2, expected[i].x2);
            EXPECT_EQ(box.y2, expected[i].y2);
        }
        EXPECT_EQ(region_is_empty(&region), expected.empty());
    }

    Region region;
};

TEST_F(RegionEdge, MovedInsideKeepsItsShape)
{
    region_translate(&region, SHRT_MAX - 20, SHRT_MIN);
    expect_rects({{SHRT_MAX - 20, SHRT_MIN, SHRT_MAX - 10, SHRT_MIN + 4},
                  {SHRT_MAX - 20, SHRT_MIN + 4, SHRT_MAX, SHRT_MIN + 10}});
}

TEST_F(RegionEdge, MovedPartlyOutLosesThatPart)
{
    region_translate(&region, SHRT_MAX - 15, 0);
    expect_rects({{SHRT_MAX - 15, 0, SHRT_MAX - 5, 4}, {SHRT_MAX - 15, 4, SHRT_MAX, 10}});
}

TEST_F(RegionEdge, MovedOntoTheRimIsEmpty)
{
    region_translate(&region, SHRT_MAX, 0);
    expect_rects({});
}

TEST_F(RegionEdge, MovedFarOutIsEmpty)
{
    region_translate(&region, INT_MIN, INT_MAX);
    expect_rects({});
}

TEST_F(RegionEdge, MovedBackWhatIsLostStaysLost)
{
    region_translate(&region, 0, SHRT_MIN - 6);
    region_translate(&region, 0, -(SHRT_MIN - 6));
    expect_rects({{0, 6, 20, 10}});
}

} // namespace
