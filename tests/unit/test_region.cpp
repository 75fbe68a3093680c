// SPDX-License-Identifier: MIT
// Regions: where they differ from pixman's, and that every operation does what its name says.
#include "../../src/region/region.h"

#include <climits>
#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../support/failing_memory.h"
#include "../support/failing_regions.h"
#include "../support/rects.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Regions : public testing::Test {
protected:
    Regions()
    {
        for (Region *region : {&a, &b, &result})
            region_init(region, nullptr);
    }
    ~Regions() override
    {
        for (Region *region : {&a, &b, &result})
            region_uninit(region);
    }

    static void add(Region &region, Rect rect) { region_union_rect(&region, &region, &rect); }

    Region a, b, result;
};

TEST_F(Regions, NewIsEmpty)
{
    Region *region = region_new();
    EXPECT_EQ(region_is_empty(region), 1);
    EXPECT_EQ(region_num_rects(region), 0);
    pixman_region_destroy(region);
}

TEST_F(Regions, NewWithRectHoldsTheBox)
{
    const Box box{1, 2, 30, 40};
    Region *region = region_new_with_rect(&box);
    EXPECT_THAT(rects_of(region), ElementsAre(Rect{1, 2, 30, 40}));
    pixman_region_destroy(region);
}

TEST_F(Regions, NewWithANullEmptyOrInvertedBoxIsEmpty)
{
    const Box no_width{5, 5, 5, 9}, no_height{5, 5, 9, 5}, inverted{9, 9, 5, 5};
    for (const Box *box : {static_cast<const Box *>(nullptr), &no_width, &no_height, &inverted}) {
        Region *region = region_new_with_rect(box);
        EXPECT_EQ(region_is_empty(region), 1);
        pixman_region_destroy(region);
    }
}

TEST_F(Regions, NewWithoutMemoryIsOneSharedEmptyRegionThatNobodyFrees)
{
    fail_allocation(ANY_ALLOCATION, 1);
    Region *first = region_new();
    fail_allocation(ANY_ALLOCATION, 1);
    Region *second = region_new();
    ASSERT_TRUE(allocation_failed());
    EXPECT_EQ(first, second);
    EXPECT_EQ(region_is_empty(first), 1);
    pixman_region_destroy(first);
    pixman_region_destroy(second);
    EXPECT_EQ(region_num_rects(first), 0);
}

// Two rectangles far from each other in a, two others in b; nothing can be had for what is made of them.
class RegionsWithoutMemory : public Regions {
protected:
    RegionsWithoutMemory()
    {
        add(a, {0, 0, 10, 10});
        add(a, {20, 20, 30, 30});
        add(b, {5, 5, 25, 8});
        add(b, {22, 22, 40, 28});
        fail_regions(1, 1000);
    }
    ~RegionsWithoutMemory() override { regions_failed(); }

    // What has been made is one rectangle, and a region like any other.
    static void expect_box(Region *region, Rect around)
    {
        EXPECT_EQ(regions_failed(), 1);
        EXPECT_THAT(rects_of(region), ElementsAre(around));
        const Rect far{1000, 1000, 1001, 1001};
        EXPECT_EQ(region_union_rect(region, region, &far), 1);
        EXPECT_THAT(rects_of(region), ElementsAre(around, far));
    }
};

TEST_F(RegionsWithoutMemory, UnionIsTheBoxAroundBoth)
{
    const unsigned before = region_failures();
    EXPECT_EQ(region_union(&result, &a, &b), 0);
    EXPECT_EQ(region_failures(), before + 1);
    expect_box(&result, {0, 0, 40, 30});
}

TEST_F(RegionsWithoutMemory, UnionInPlaceIsTheBoxAroundBoth)
{
    EXPECT_EQ(region_add_i(&a, &b), 0);
    expect_box(&a, {0, 0, 40, 30});
}

TEST_F(RegionsWithoutMemory, UnionWithAnEmptyOneIsTheBoxAroundTheOther)
{
    region_make_empty(&result);
    EXPECT_EQ(region_union(&result, &result, &b), 0);
    expect_box(&result, {5, 5, 40, 28});
}

TEST_F(RegionsWithoutMemory, CopyIsTheBoxAround)
{
    EXPECT_EQ(region_copy(&result, &a), 0);
    expect_box(&result, {0, 0, 30, 30});
}

TEST_F(RegionsWithoutMemory, IntersectionIsWhatTheBoxesHaveInCommon)
{
    EXPECT_EQ(region_intersect(&a, &a, &b), 0);
    expect_box(&a, {5, 5, 30, 28});
}

TEST_F(RegionsWithoutMemory, IntersectionWithARectangleIsWhatTheBoxHasInCommonWithIt)
{
    const Rect rect{5, 5, 28, 27};
    EXPECT_EQ(region_intersect_rect(&result, &a, &rect), 0);
    expect_box(&result, {5, 5, 28, 27});
}

TEST_F(RegionsWithoutMemory, DifferenceIsTheBoxAroundTheMinuend)
{
    EXPECT_EQ(region_subtract(&result, &a, &b), 0);
    expect_box(&result, {0, 0, 30, 30});
}

TEST_F(RegionsWithoutMemory, BoxesAreAddedAsTheBoxAroundThem)
{
    const Box boxes[] = {{50, 50, 60, 60}, {1, 1, 1, 500}, {70, 2, 71, 3}};
    EXPECT_EQ(region_add_boxes(&a, boxes, 3), 0);
    expect_box(&a, {0, 0, 71, 60});
}

// Most damage is one rectangle, and this is why that never fails.
TEST_F(RegionsWithoutMemory, OneRectangleNeedsNone)
{
    Region one;
    const Box box{0, 0, 100, 100};
    region_init(&one, &box);
    EXPECT_EQ(region_union(&result, &one, &a), 1);
    EXPECT_EQ(region_add_i(&b, &one), 1);
    EXPECT_EQ(regions_failed(), 0);
    EXPECT_THAT(rects_of(result), ElementsAre(Rect{0, 0, 100, 100}));
    EXPECT_THAT(rects_of(b), ElementsAre(Rect{0, 0, 100, 100}));
}

// pixman would call it a bug on standard error, which is where a client's reports would write to then.
TEST_F(Regions, InvertedBoxesAreAddedInSilence)
{
    add(a, {0, 0, 10, 10});
    const Box boxes[] = {{9, 9, 4, 20}, {9, 9, 20, 4}};
    for (int n : {1, 2}) {
        const std::string complaint = complained([&] { EXPECT_EQ(region_add_boxes(&a, boxes, n), 1); });
        EXPECT_EQ(complaint, "") << n;
    }
    EXPECT_THAT(rects_of(a), ElementsAre(Rect{0, 0, 10, 10}));
}

TEST_F(Regions, DestroyTakesNull)
{
    pixman_region_destroy(nullptr);
}

TEST_F(Regions, InitFillsTheCallersStorage)
{
    const Box box{-5, -6, 7, 8};
    Region region;
    region_init(&region, &box);
    EXPECT_THAT(rects_of(region), ElementsAre(Rect{-5, -6, 7, 8}));
    region_uninit(&region);
}

TEST_F(Regions, OneRectangleIsListedFromTheExtents)
{
    add(a, {3, 4, 10, 20});
    EXPECT_EQ(region_num_rects(&a), 1);
    EXPECT_EQ(region_rects(&a), &a.extents);
    EXPECT_THAT(rects_of(a), ElementsAre(Rect{3, 4, 10, 20}));
}

TEST_F(Regions, UnionRectWithAnEmptyRectangleReturnsZeroAndLeavesTheResult)
{
    add(a, {0, 0, 5, 5});
    add(result, {50, 50, 60, 60});
    for (const Rect empty : {Rect{3, 3, 3, 9}, Rect{3, 3, 9, 3}, Rect{9, 3, 3, 9}, Rect{3, 9, 9, 3}}) {
        EXPECT_EQ(region_union_rect(&result, &a, &empty), 0);
        EXPECT_THAT(rects_of(result), ElementsAre(Rect{50, 50, 60, 60}));
    }
}

TEST_F(Regions, UnionRectUnites)
{
    add(a, {0, 0, 10, 10});
    const Rect right{20, 0, 30, 10};
    EXPECT_NE(region_union_rect(&result, &a, &right), 0);
    EXPECT_THAT(rects_of(result), ElementsAre(Rect{0, 0, 10, 10}, Rect{20, 0, 30, 10}));
    EXPECT_THAT(rects_of(a), ElementsAre(Rect{0, 0, 10, 10}));
}

TEST_F(Regions, CoordinatesBeyondSixteenBitsSaturate)
{
    add(a, {-100000, INT_MIN, 100000, INT_MAX});
    EXPECT_THAT(rects_of(a), ElementsAre(Rect{-32768, -32768, 32767, 32767}));
    const Rect large{10, 20, 100000, 70000};
    region_reset(&b, &large);
    EXPECT_THAT(rects_of(b), ElementsAre(Rect{10, 20, 32767, 32767}));
    EXPECT_NE(region_intersect_rect(&result, &b, &large), 0);
    EXPECT_THAT(rects_of(result), ElementsAre(Rect{10, 20, 32767, 32767}));
}

TEST_F(Regions, ARectangleBeyondAllCoordinatesIsEmpty)
{
    add(a, {40000, 0, 50000, 10});
    EXPECT_EQ(region_is_empty(&a), 1);
}

TEST_F(Regions, UnionIntersectAndSubtractAreTheSetOperations)
{
    add(a, {0, 0, 10, 10});
    add(b, {5, 0, 15, 10});
    EXPECT_NE(region_union(&result, &a, &b), 0);
    EXPECT_THAT(rects_of(result), ElementsAre(Rect{0, 0, 15, 10}));
    EXPECT_NE(region_intersect(&result, &a, &b), 0);
    EXPECT_THAT(rects_of(result), ElementsAre(Rect{5, 0, 10, 10}));
    EXPECT_NE(region_subtract(&result, &a, &b), 0);
    EXPECT_THAT(rects_of(result), ElementsAre(Rect{0, 0, 5, 10}));
}

// Apart, side by side, overlapping, one inside the other: one rectangle where the pixels are one, and else pixman's.
TEST_F(Regions, TheUnionOfAnyTwoRectangles)
{
    constexpr int16_t SIDE = 5;
    std::vector<Box> boxes;
    for (int16_t y1 = 0; y1 < SIDE; y1++)
        for (int16_t x1 = 0; x1 < SIDE; x1++)
            for (int16_t y2 = y1; y2 < SIDE; y2++)
                for (int16_t x2 = x1; x2 < SIDE; x2++)
                    boxes.push_back({x1, y1, static_cast<int16_t>(x2 + 1), static_cast<int16_t>(y2 + 1)});
    int joined = 0;
    for (const Box &first : boxes) {
        for (const Box &second : boxes) {
            Region one{first, nullptr}, other{second, nullptr}, expected;
            pixman_region_init(&expected);
            pixman_region_union(&expected, &one, &other);
            region_union(&result, &one, &other);
            ASSERT_EQ(rects_of(result), rects_of(expected));
            ASSERT_EQ(result.data == nullptr, expected.data == nullptr);
            ASSERT_TRUE(pixman_region_equal(&result, &expected));
            joined += result.data == nullptr ? 1 : 0;
            region_union(&one, &other, &one);
            ASSERT_TRUE(pixman_region_equal(&one, &expected)) << "into itself";
            region_uninit(&one);
            region_uninit(&expected);
        }
    }
    EXPECT_GT(joined, 10000);
}

TEST_F(Regions, UnionSingleIsTheUnionWhereItIsOneRectangle)
{
    const Rect first{0, 0, 10, 10}, inside{2, 2, 4, 4}, beside{10, 0, 12, 10}, apart{20, 0, 22, 10}, none{5, 5, 5, 9};
    EXPECT_EQ(region_union_single(&a, &none), 1);
    EXPECT_THAT(rects_of(a), IsEmpty());
    EXPECT_EQ(region_union_single(&a, &first), 1);
    EXPECT_EQ(region_union_single(&a, &inside), 1);
    EXPECT_EQ(region_union_single(&a, &none), 1);
    EXPECT_THAT(rects_of(a), ElementsAre(first));
    EXPECT_EQ(region_union_single(&a, &beside), 1);
    EXPECT_EQ(region_union_single(&a, &apart), 0);
    EXPECT_THAT(rects_of(a), ElementsAre(Rect{0, 0, 12, 10}));
    add(a, apart);
    EXPECT_EQ(region_union_single(&a, &inside), 0);
    EXPECT_THAT(rects_of(a), ElementsAre(Rect{0, 0, 12, 10}, apart));
}

TEST_F(Regions, MovedIntoAnotherNothingIsLeft)
{
    for (const bool was_empty : {true, false}) {
        region_make_empty(&a);
        region_make_empty(&b);
        add(a, {0, 0, 10, 10});
        add(a, {20, 5, 30, 15});
        if (!was_empty)
            add(b, {5, 5, 12, 12});
        region_union(&result, &a, &b);
        region_move_into(&b, &a);
        EXPECT_EQ(rects_of(b), rects_of(result));
        EXPECT_EQ(region_is_empty(&a), 1);
        add(a, {1, 1, 2, 2});
        EXPECT_EQ(rects_of(b), rects_of(result)) << "they share nothing";
    }
}

TEST_F(Regions, AddUnitesTheSecondIntoTheFirst)
{
    add(a, {0, 0, 10, 10});
    add(b, {0, 10, 10, 20});
    EXPECT_NE(region_add_i(&a, &b), 0);
    EXPECT_THAT(rects_of(a), ElementsAre(Rect{0, 0, 10, 20}));
    EXPECT_THAT(rects_of(b), ElementsAre(Rect{0, 10, 10, 20}));
}

TEST_F(Regions, IntersectRectCutsToTheRectangle)
{
    add(a, {0, 0, 10, 10});
    add(a, {20, 0, 30, 10});
    const Rect cut{5, 5, 25, 100};
    EXPECT_NE(region_intersect_rect(&result, &a, &cut), 0);
    EXPECT_THAT(rects_of(result), ElementsAre(Rect{5, 5, 10, 10}, Rect{20, 5, 25, 10}));
    const Rect inverted{25, 0, 5, 10};
    EXPECT_NE(region_intersect_rect(&result, &a, &inverted), 0);
    EXPECT_THAT(rects_of(result), IsEmpty());
}

TEST_F(Regions, CopyReplaces)
{
    add(a, {0, 0, 10, 10});
    add(a, {20, 5, 30, 15});
    add(result, {100, 100, 200, 200});
    EXPECT_NE(region_copy(&result, &a), 0);
    EXPECT_EQ(rects_of(result), rects_of(a));
}

TEST_F(Regions, TranslateMovesEveryRectangle)
{
    add(a, {0, 0, 10, 10});
    add(a, {20, 0, 30, 10});
    region_translate(&a, -5, 7);
    EXPECT_THAT(rects_of(a), ElementsAre(Rect{-5, 7, 5, 17}, Rect{15, 7, 25, 17}));
}

TEST_F(Regions, TranslatedOutOfAllCoordinatesNothingRemains)
{
    add(a, {0, 0, 10, 10});
    region_translate(&a, INT_MAX, INT_MIN);
    EXPECT_EQ(region_is_empty(&a), 1);
}

TEST_F(Regions, ResetMakesExactlyTheRectangle)
{
    add(a, {0, 0, 10, 10});
    add(a, {20, 0, 30, 10});
    const Rect rect{1, 2, 3, 4};
    region_reset(&a, &rect);
    EXPECT_EQ(region_is_empty(&a), 0);
    EXPECT_THAT(rects_of(a), ElementsAre(rect));
}

TEST_F(Regions, ResetToAnEmptyOrInvertedRectangleMakesEmpty)
{
    for (const Rect rect : {Rect{5, 5, 5, 9}, Rect{5, 5, 9, 5}, Rect{9, 0, 5, 5}, Rect{0, 9, 5, 5}}) {
        add(a, {0, 0, 10, 10});
        region_reset(&a, &rect);
        EXPECT_EQ(region_is_empty(&a), 1);
        EXPECT_EQ(region_num_rects(&a), 0);
    }
}

TEST_F(Regions, MakeEmptyCollapsesTheExtentsToTheirTopLeftCorner)
{
    add(a, {3, 4, 10, 10});
    add(a, {20, 7, 30, 15});
    region_make_empty(&a);
    EXPECT_EQ(region_is_empty(&a), 1);
    EXPECT_EQ(region_num_rects(&a), 0);
    EXPECT_EQ(a.extents.x1, 3);
    EXPECT_EQ(a.extents.x2, 3);
    EXPECT_EQ(a.extents.y1, 4);
    EXPECT_EQ(a.extents.y2, 4);
}

TEST_F(Regions, AnEmptyRegionIsContainedInEveryBox)
{
    const Box box{5, 5, 6, 6};
    EXPECT_EQ(region_contained_in_rectangle(&a, &box), 1);
}

TEST_F(Regions, ContainedMeansNoPixelBeyondAnyEdge)
{
    add(a, {10, 10, 20, 20});
    add(a, {30, 15, 40, 40});
    const Box fits{10, 10, 40, 40};
    EXPECT_EQ(region_contained_in_rectangle(&a, &fits), 1);
    for (const Box tight : {Box{10, 10, 39, 40}, Box{10, 10, 40, 39}, Box{11, 10, 40, 40}, Box{10, 11, 40, 40}})
        EXPECT_EQ(region_contained_in_rectangle(&a, &tight), 0);
}

TEST_F(Regions, PrintListsTheRectangles)
{
    add(a, {0, 0, 10, 10});
    add(a, {20, 5, 30, 15});
    std::string expected = "num: 4 size: [0-9]+\nextents: 0 0 30 15\n";
    for (const Rect &rect : rects_of(a)) {
        for (const int32_t value : {rect.x1, rect.y1, rect.x2, rect.y2})
            expected += std::to_string(value) + " ";
        expected += "\n";
    }
    const std::string text = printed([&] { region_print(&a); });
    EXPECT_TRUE(std::regex_match(text, std::regex(expected + "\n"))) << text;
}

} // namespace
