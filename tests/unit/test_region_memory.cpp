// SPDX-License-Identifier: MIT
// Where memory runs out while damage is worked out: whichever operation finds none, the picture ends as it would have.
#include <gmock/gmock.h>

#include "../support/compositor_test.h"
#include "../support/failing_regions.h"
#include "../support/stderr_capture.h"

namespace {

constexpr int ALL_FROM_THERE = 1 << 30;

struct Screen {
    const char *name;
    uint32_t depth;   // of the primary output
    const char *made; // the surfaces' output
    int32_t format;   // of the surfaces without alpha
};

class ScreenWithoutMemory : public CompositorTest, public testing::WithParamInterface<Screen> {
protected:
    // A background, and three windows that cut each other: all of it shown once.
    void open()
    {
        const StdoutCapture quiet;
        const StderrCapture quiet_too;
        memories.clear();
        memory_outputs_reset();
        primary_output.depth = GetParam().depth;
        open_server();
        const std::string prefix = GetParam().made;
        const int32_t format = GetParam().format;
        background = add_shown((prefix + ".background").c_str(), {0, 0, 320, 240}, format);
        left = add_shown((prefix + ".left").c_str(), {20, 30, 120, 100}, format, 1);
        middle = add_shown((prefix + ".middle").c_str(), {90, 80, 110, 90}, ARGB32, 2);
        right = add_shown((prefix + ".right").c_str(), {150, 10, 90, 120}, format, 3);
        uint32_t word = 0x11335577;
        for (ImageSurface *surface : {background, left, middle, right})
            paint(surface, word *= 2654435761u);
        settle();
    }

    // Damage of many rectangles, and of some that only show where windows have gone.
    void change()
    {
        for (int i = 0; i < 100; i++) {
            const int32_t x = i * 37 % 310, y = i * 53 % 230;
            put(background->img, x, y, 0xFF00FF00u + static_cast<uint32_t>(i));
            fs_add_dirty(server, background, x, y, 1, 1);
        }
        for (int i = 0; i < 8; i++) {
            put(left->img, 12 * i, 11 * i, 0xFFFFFFFF);
            fs_add_dirty(server, left, 12 * i, 11 * i, 2, 2);
        }
        const StdoutCapture quiet;
        const StderrCapture quiet_too;
        settle();
        fs_move_surface(server, middle, 60, 20);
        fs_set_level_surface(server, left, 4);
        settle();
        fs_hide_surface(server, right);
        fs_add_dirty(server, background, 3, 3, 100, 2);
        fs_add_dirty(server, background, 3, 100, 2, 100);
        settle();
    }

    static std::vector<uint8_t> picture()
    {
        std::vector<uint8_t> bytes;
        for (const MemoryOutput *output : {&primary_output, &second_output}) {
            if (output->pixels)
                bytes.insert(bytes.end(), output->pixels->data(),
                             output->pixels->data() + output->row_bytes() * static_cast<uint32_t>(output->height));
        }
        return bytes;
    }

    // The picture after all changes, while `count` operations from the nth on find no memory. How many have failed.
    int change_without_memory(int nth, int count, std::vector<uint8_t> *shown)
    {
        open();
        fail_regions(nth, count);
        change();
        const int failed = regions_failed();
        *shown = picture();
        EXPECT_FALSE(render_is_pending());
        close_server();
        return failed;
    }

    ImageSurface *background, *left, *middle, *right;
};

INSTANTIATE_TEST_SUITE_P(On, ScreenWithoutMemory,
                         testing::Values(Screen{"32", 32, "fb", XRGB32}, Screen{"16", 16, "fb", RGB16},
                                         Screen{"SecondLayer", 32, "fb2", XRGB32}),
                         [](const auto &param) { return std::string("Bits") + param.param.name; });

TEST_P(ScreenWithoutMemory, EndsAsItWouldHave)
{
    std::vector<uint8_t> expected, shown;
    ASSERT_EQ(change_without_memory(1, 0, &expected), 0);
    int most = 0;
    for (const int count : {1, ALL_FROM_THERE}) {
        int nth = 1;
        for (int failed = 1; failed > 0; nth++) {
            failed = change_without_memory(nth, count, &shown);
            most = std::max(most, failed);
            ASSERT_TRUE(shown == expected) << "from the " << nth << "th operation on, " << count;
        }
        EXPECT_GT(nth, 30) << "the scene has as many operations that need memory";
    }
    EXPECT_GT(most, 10);
}

// Not for ever: a pass that needs no memory is followed by none.
TEST_P(ScreenWithoutMemory, DrawsOnceMoreAndNotWithoutEnd)
{
    open();
    fail_regions(1, ALL_FROM_THERE);
    primary_output.calls.clear();
    second_output.calls.clear();
    for (int i = 0; i < 30; i++)
        fs_add_dirty(server, background, i * 10, i * 7, 1, 1);
    {
        const StdoutCapture quiet;
        const StderrCapture quiet_too;
        settle();
    }
    EXPECT_GT(regions_failed(), 0);
    EXPECT_LE(primary_output.count(OutputCall::FLUSH) + second_output.count(OutputCall::FLUSH), 2);
}

} // namespace
