// SPDX-License-Identifier: MIT
// The second layer: its device, its memory and its layer control.
#include <cerrno>

#include <gmock/gmock.h>

#include "../../src/backend/backend.h"
#include "../../src/backend/fb2.h"
#include "../support/aborts.h"
#include "../support/fake_device.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr unsigned long LAYER_CONTROL = 0x46FF;

// Words of the control block by their byte offsets.
constexpr size_t COMMAND = 0, FLAGS = 116 / 4, WORD_132 = 132 / 4, WORD_136 = 136 / 4, WORD_140 = 140 / 4,
                 ENABLE = 184 / 4;

class Fb2 : public testing::Test {
protected:
    Fb2() : device("/dev/fb2")
    {
        device.has_layer = true;
        device.describe(800, 480, 32, 3200, 500);
        take_opened_paths();
    }
    ~Fb2() override
    {
        const StderrCapture quiet;
        if (pixels != nullptr)
            fb2_displayfunc.release(nullptr);
    }

    void *open_screen(int32_t w = -1, int32_t h = -1)
    {
        info = ScreenInfo{};
        info.width = w;
        info.height = h;
        return pixels = fb2_displayfunc.init(nullptr, &info);
    }
    void close_screen()
    {
        fb2_displayfunc.release(nullptr);
        pixels = nullptr;
    }

    FakeDevice device;
    ScreenInfo info{};
    void *pixels = nullptr;
};

TEST_F(Fb2, WithoutARequestTheDevicesSizeIsUsed)
{
    ASSERT_NE(open_screen(), nullptr);
    EXPECT_EQ(info.width, 800);
    EXPECT_EQ(info.height, 480);
    EXPECT_EQ(width, 800);
    EXPECT_EQ(height, 480);
}

TEST_F(Fb2, ARequestedSizeIsKept)
{
    for (const auto &[w, h] : {std::pair{320, 240}, {320, -1}, {-1, 240}}) {
        ASSERT_NE(open_screen(w, h), nullptr);
        EXPECT_EQ(info.width, w);
        EXPECT_EQ(info.height, h);
        EXPECT_EQ(width, w);
        EXPECT_EQ(height, h);
        close_screen();
    }
}

TEST_F(Fb2, ItAlwaysHasAlpha)
{
    for (const uint32_t length : {0u, 8u}) {
        device.var.transp = {24, length, 0};
        open_screen();
        EXPECT_EQ(info.has_alpha, 1);
        EXPECT_EQ(info.alpha_mask, length == 0 ? 0u : 0xFF000000u);
        EXPECT_EQ(info.red_mask, 0xFF0000u);
        EXPECT_EQ(info.stride, 3200u);
        EXPECT_EQ(info.pixel_unit, 4u);
        EXPECT_EQ(info.memory, 3200u * 500);
        close_screen();
    }
}

TEST_F(Fb2, TheStateIsThereForTools)
{
    ASSERT_NE(open_screen(), nullptr);
    EXPECT_EQ(fb2_ptr, pixels);
    EXPECT_EQ(fb2_mmap_size, 3200u * 500);
    EXPECT_EQ(fb2_info.xres, 800u);
    EXPECT_EQ(fb2_fix.line_length, 3200u);
    EXPECT_GE(fb2_fd, 0);
}

TEST_F(Fb2, TheOtherNameIsTheFallbackAndTheCommandLineIsNotAsked)
{
    device.path = "/dev/fb/2";
    fb_device = "/dev/my-fb";
    ASSERT_NE(open_screen(), nullptr);
    EXPECT_THAT(take_opened_paths(), ElementsAre("/dev/fb2", "/dev/fb/2"));
    fb_device = nullptr;
}

TEST_F(Fb2, WithoutADeviceItAborts)
{
    device.path = "/dev/elsewhere";
    EXPECT_ABORT_AFTER("can't open fb2 device: No such file or directory\n", open_screen(), "backend/fb2",
                       "qarno_fb2_init", "0");
}

TEST_F(Fb2, ADeviceThatMayNotBeOpenedSaysSo)
{
    device.open_error = EACCES;
    EXPECT_ABORT_AFTER("can't open fb2 device: Permission denied\n", open_screen(), "backend/fb2", "qarno_fb2_init",
                       "0");
}

TEST_F(Fb2, TheMemoryIsZeroAfterOpeningAndAfterReleasing)
{
    device.fill(0x5A);
    auto *bytes = static_cast<uint8_t *>(open_screen(320, 240));
    EXPECT_TRUE(device.is_filled_with(0));
    bytes[3200 * 500 - 1] = 1;
    bytes[0] = 1;
    close_screen();
    EXPECT_TRUE(device.is_filled_with(0));
}

TEST_F(Fb2, OpeningSwitchesTheLayerOnWithoutReadingItFirst)
{
    open_screen();
    ASSERT_EQ(device.controls.size(), 1u);
    const std::vector<uint32_t> &block = device.controls[0];
    EXPECT_EQ(block[COMMAND], 3u);
    EXPECT_EQ(block[FLAGS], 0x201Cu);
    EXPECT_EQ(block[WORD_132], 0u);
    EXPECT_EQ(block[WORD_136], 2u);
    EXPECT_EQ(block[WORD_140], 1u);
    EXPECT_EQ(block[ENABLE], 1u);
}

TEST_F(Fb2, ReleasingSwitchesTheLayerOffAndKeepsTheDriversOtherWords)
{
    open_screen();
    device.controls.clear();
    for (size_t i = 1; i < 48; i++)
        device.layer[i] = static_cast<uint32_t>(1000 + i);
    device.layer[FLAGS] = 0x5;
    close_screen();
    ASSERT_EQ(device.controls.size(), 2u);
    EXPECT_EQ(device.controls[0][COMMAND], 4u);
    std::vector<uint32_t> expected(48);
    for (size_t i = 1; i < 48; i++)
        expected[i] = static_cast<uint32_t>(1000 + i);
    expected[COMMAND] = 3;
    expected[FLAGS] = 0x2005;
    expected[ENABLE] = 0;
    EXPECT_EQ(device.controls[1], expected);
}

TEST_F(Fb2, ReopeningManyTimesUsesUpNoDescriptors)
{
    open_screen();
    const int32_t first = fb2_fd;
    for (int i = 0; i < 20; i++) {
        close_screen();
        ASSERT_NE(open_screen(), nullptr);
        ASSERT_EQ(fb2_fd, first);
    }
}

TEST_F(Fb2, TheModeIsReadOnceAndTheLayerIsSwitchedOnLast)
{
    open_screen();
    EXPECT_THAT(device.requests, ElementsAre(FBIOGET_FSCREENINFO, FBIOGET_VSCREENINFO, LAYER_CONTROL));
}

TEST_F(Fb2, ALayerThatKeepsItsStateIsNoReasonToStop)
{
    device.failing_request = LAYER_CONTROL;
    EXPECT_NE(open_screen(), nullptr);
}

TEST_F(Fb2, MemoryThatCannotBeUnmappedIsReportedAndTheLayerIsSwitchedOff)
{
    device.fill(0x5A);
    open_screen();
    next_munmap_fails = true;
    EXPECT_EQ(complained([this] { close_screen(); }), "fb2 munmap failed: Invalid argument\n");
    EXPECT_TRUE(device.is_filled_with(0));
    EXPECT_EQ(device.layer[ENABLE], 0u);
}

TEST_F(Fb2, WithoutAScreenTheLayerIsSwitchedOffAllTheSame)
{
    open_screen();
    EXPECT_EQ(complained([this] { close_screen(); }), "");
    device.failing_request = FBIOGET_VSCREENINFO;
    complained([this] { EXPECT_EQ(open_screen(), nullptr); });
    device.failing_request = 0;
    device.fill(0x5A);
    device.layer[FLAGS] = 0x5;
    device.layer[ENABLE] = 1;
    fb2_displayfunc.release(nullptr);
    EXPECT_EQ(device.layer[COMMAND], 3u);
    EXPECT_EQ(device.layer[FLAGS], 0x2005u);
    EXPECT_EQ(device.layer[ENABLE], 0u);
    EXPECT_TRUE(device.is_filled_with(0x5A));
}

TEST_F(Fb2, AFailedRequestIsReportedAndThereIsNoScreen)
{
    for (const int request : {FBIOGET_FSCREENINFO, FBIOGET_VSCREENINFO}) {
        device.failing_request = static_cast<unsigned long>(request);
        EXPECT_THAT(complained([&] { EXPECT_EQ(open_screen(), nullptr); }), HasSubstr("Input/output error\n"));
    }
}

TEST_F(Fb2, UpdateAndFlushDoNothing)
{
    open_screen();
    device.fill(0x5A);
    Region region;
    const Box box{0, 0, 100, 100};
    region_init(&region, &box);
    fb2_displayfunc.update(nullptr, &region);
    fb2_displayfunc.flush(nullptr);
    region_uninit(&region);
    EXPECT_TRUE(device.is_filled_with(0x5A));
    EXPECT_EQ(std::count(device.requests.begin(), device.requests.end(), LAYER_CONTROL), 1);
}

} // namespace
