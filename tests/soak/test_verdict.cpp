// SPDX-License-Identifier: MIT
// The verdict on made-up runs.
#include <gtest/gtest.h>

#include "soak.h"

namespace {

constexpr size_t N = 60;

// A server that holds what it holds, with a little noise, and in each sample more by `growth`.
std::vector<Sample> samples(long Sample::*value, double growth)
{
    std::vector<Sample> all(N);
    for (size_t i = 0; i < N; i++) {
        all[i].resident_kb = 20000 + static_cast<long>(i * 7919 % 1000);
        all[i].anonymous_kb = 9000 + static_cast<long>(i * 7919 % 300);
        all[i].mappings = 300 + static_cast<long>(i * 7 % 10);
        all[i].descriptors = 30 + static_cast<long>(i * 7 % 4);
        all[i].threads = 1;
        all[i].*value += static_cast<long>(growth * static_cast<double>(i));
    }
    return all;
}

} // namespace

TEST(SoakVerdict, WhatStaysFlatIsWell)
{
    EXPECT_EQ(verdict_growth(samples(&Sample::mappings, 0), {}), "");
    EXPECT_EQ(verdict_growth(samples(&Sample::resident_kb, -20), {}), "");
    EXPECT_EQ(verdict_left({}, {}), "");
}

TEST(SoakVerdict, WhatGrowsIsNamed)
{
    EXPECT_EQ(verdict_growth(samples(&Sample::resident_kb, 300), {}).substr(0, 12), "resident KiB");
    EXPECT_EQ(verdict_growth(samples(&Sample::anonymous_kb, 50), {}).substr(0, 13), "anonymous KiB");
    EXPECT_EQ(verdict_growth(samples(&Sample::mappings, 1), {}).substr(0, 8), "mappings");
    EXPECT_EQ(verdict_growth(samples(&Sample::descriptors, 0.3), {}).substr(0, 11), "descriptors");
    EXPECT_EQ(verdict_growth(samples(&Sample::threads, 0.1), {}).substr(0, 7), "threads");
    EXPECT_EQ(verdict_growth(samples(&Sample::runtime_names, 0.1), {}).substr(0, 8), "names in");
}

// What fills up at the start, and a single peak, are no growth.
TEST(SoakVerdict, AStartAndAPeakAreNoGrowth)
{
    std::vector<Sample> all = samples(&Sample::mappings, 0);
    for (size_t i = 0; i < N / 4; i++)
        all[i].anonymous_kb = 0;
    all[N - 2].anonymous_kb = all[N - 2].resident_kb = 1000000;
    EXPECT_EQ(verdict_growth(all, {}), "");
}

TEST(SoakVerdict, OneDescriptorOrNameThatIsLeftCounts)
{
    Sample after{};
    after.descriptors = 1;
    EXPECT_EQ(verdict_left({}, after).substr(0, 11), "descriptors");
    after = {};
    after.memory_names = 1;
    EXPECT_EQ(verdict_left({}, after).substr(0, 8), "names in");
    after = {};
    after.mappings = MAPPINGS_LEFT + 1;
    EXPECT_EQ(verdict_left({}, after).substr(0, 8), "mappings");
}
