// SPDX-License-Identifier: MIT
// The primary framebuffer: which devices it opens, what it says of them, and how it leaves them.
#include <cerrno>
#include <dirent.h>
#include <linux/kd.h>
#include <sys/mman.h>

#include <gmock/gmock.h>

#include "../../src/backend/backend.h"
#include "../../src/backend/framebuffer.h"
#include "../../src/composite/composite.h"
#include "../support/aborts.h"
#include "../support/fake_device.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

size_t open_descriptors()
{
    size_t n = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr)
        n++;
    closedir(folder);
    return n;
}

class Fb : public testing::Test {
protected:
    Fb() : console("/dev/tty0"), device("/dev/fb0")
    {
        console_device = fb_device = nullptr;
        device.describe(480, 272, 16, 960, 300);
        take_opened_paths();
    }
    ~Fb() override
    {
        if (pixels != nullptr)
            fb_displayfunc.release(nullptr);
        console_device = fb_device = nullptr;
    }

    void *open_screen(int32_t w = -1, int32_t h = -1)
    {
        info = ScreenInfo{};
        info.width = w;
        info.height = h;
        return pixels = fb_displayfunc.init(nullptr, &info);
    }
    void close_screen()
    {
        fb_displayfunc.release(nullptr);
        pixels = nullptr;
    }

    FakeDevice console, device;
    ScreenInfo info{};
    void *pixels = nullptr;
};

// ---- the description ----

TEST_F(Fb, ItDescribesA565Device)
{
    ASSERT_NE(open_screen(), nullptr);
    EXPECT_EQ(info.width, 480);
    EXPECT_EQ(info.height, 272);
    EXPECT_EQ(info.depth, 16u);
    EXPECT_EQ(info.red_mask, 0xF800u);
    EXPECT_EQ(info.green_mask, 0x07E0u);
    EXPECT_EQ(info.blue_mask, 0x001Fu);
    EXPECT_EQ(info.alpha_mask, 0u);
    EXPECT_EQ(info.has_alpha, 0);
    EXPECT_EQ(info.pixel_unit, 2u);
    EXPECT_EQ(info.byte_order, 0u);
    EXPECT_EQ(info.stride, 960u);
    EXPECT_EQ(info.memory, 960u * 300);
}

TEST_F(Fb, TransparencyIsDescribedButNotHonoured)
{
    device.describe(480, 272, 32, 1920, 272);
    device.var.transp = {24, 8, 0};
    device.var.red.msb_right = 1;
    info.width = info.height = -1;
    info.has_alpha = 1;
    pixels = fb_displayfunc.init(nullptr, &info);
    EXPECT_EQ(info.red_mask, 0xFF0000u);
    EXPECT_EQ(info.alpha_mask, 0xFF000000u);
    EXPECT_EQ(info.has_alpha, 0);
    EXPECT_EQ(info.byte_order, 1u);
}

TEST_F(Fb, TheMasksFollowLengthAndOffset)
{
    fb_var_screeninfo var{};
    var.xres = 1;
    var.red = {12, 6, 0};
    var.green = {6, 6, 0};
    var.blue = {0, 6, 0};
    var.transp = {0, 32, 0};
    fb_fix_screeninfo fix{};
    framebuffer_fill_info(&info, fix, var);
    EXPECT_EQ(info.red_mask, 0x3F000u);
    EXPECT_EQ(info.green_mask, 0x00FC0u);
    EXPECT_EQ(info.blue_mask, 0x0003Fu);
    EXPECT_EQ(info.alpha_mask, 0xFFFFFFFFu);
}

TEST_F(Fb, BytesPerPixelAreTheLineOverTheDevicesOwnWidth)
{
    device.describe(480, 272, 32, 2048, 272);
    open_screen(100, 100);
    EXPECT_EQ(info.pixel_unit, 4u);
    EXPECT_EQ(info.stride, 2048u);
}

TEST_F(Fb, OnlyARequestWithoutAnySizeGetsTheDevices)
{
    for (const auto &[w, h] : {std::pair{320, -1}, {-1, 240}, {320, 240}, {0, 0}, {-2, -1}}) {
        ASSERT_NE(open_screen(w, h), nullptr);
        EXPECT_EQ(info.width, w);
        EXPECT_EQ(info.height, h);
        close_screen();
    }
}

// Whole pixels of the device's width go into its line: neither the depth's own bytes nor a rounded number.
TEST_F(Fb, TheBytesPerPixelArePrintedAsTheLineHoldsThem)
{
    device.describe(480, 272, 16, 2048, 272);
    FbServer *server = fs_new(-1, -1);
    const std::string text = printed([server] { EXPECT_NE(fs_add_backend(server, "fb"), nullptr); });
    fs_destroy(server);
    EXPECT_EQ(text, "screen info is\n"
                    "width = 480 height = 272 depth = 16 stride = 2048\n"
                    "colormask = red:0000f800, green:000007e0, blue:0000001f, alpha:00000000, has_alph = 0\n"
                    "pixel unit: 4 bytes, byte order: LSB\n");
}

// ---- the devices ----

TEST_F(Fb, TheUsualDevicesAreOpenedFirst)
{
    open_screen();
    EXPECT_THAT(take_opened_paths(), ElementsAre("/dev/tty0", "/dev/fb0"));
}

TEST_F(Fb, TheOtherNamesAreTheFallback)
{
    console.path = "/dev/vc/0";
    device.path = "/dev/fb/0";
    ASSERT_NE(open_screen(), nullptr);
    EXPECT_THAT(take_opened_paths(), ElementsAre("/dev/tty0", "/dev/vc/0", "/dev/fb0", "/dev/fb/0"));
}

TEST_F(Fb, NamedDevicesAreOpenedInstead)
{
    console.path = "/dev/my-console";
    device.path = "/dev/my-fb";
    console_device = "/dev/my-console";
    fb_device = "/dev/my-fb";
    ASSERT_NE(open_screen(), nullptr);
    EXPECT_THAT(take_opened_paths(), ElementsAre("/dev/my-console", "/dev/my-fb"));
}

TEST_F(Fb, ANamedFramebufferHasNoFallback)
{
    fb_device = "/dev/nothing";
    EXPECT_ABORT_AFTER("can't open fb device: No such file or directory\n", open_screen(), "backend/fb", "fb_init",
                       "0");
}

TEST_F(Fb, ANamedConsoleHasNoFallback)
{
    console_device = "/dev/nothing";
    EXPECT_ABORT_AFTER("can't open virtual console device: No such file or directory\n", open_screen(), "backend/fb",
                       "fb_init", "0");
}

TEST_F(Fb, WithoutAnyDeviceItAborts)
{
    device.path = "/dev/elsewhere";
    EXPECT_ABORT_AFTER("can't open fb device: No such file or directory\n", open_screen(), "backend/fb", "fb_init",
                       "0");
    console.path = "/dev/elsewhere-too";
    EXPECT_ABORT_AFTER("can't open virtual console device: No such file or directory\n", open_screen(), "backend/fb",
                       "fb_init", "0");
}

TEST_F(Fb, ADeviceThatMayNotBeOpenedSaysSo)
{
    device.open_error = EACCES;
    EXPECT_ABORT_AFTER("can't open fb device: Permission denied\n", open_screen(), "backend/fb", "fb_init", "0");
    console.open_error = EACCES;
    EXPECT_ABORT_AFTER("can't open virtual console device: Permission denied\n", open_screen(), "backend/fb", "fb_init",
                       "0");
}

TEST_F(Fb, TheReasonIsTheOtherNamesWhereThatOneExists)
{
    FakeDevice other("/dev/fb/0");
    other.open_error = EBUSY;
    device.open_error = EACCES;
    EXPECT_ABORT_AFTER("can't open fb device: Device or resource busy\n", open_screen(), "backend/fb", "fb_init", "0");
    device.path = "/dev/elsewhere";
    EXPECT_ABORT_AFTER("can't open fb device: Device or resource busy\n", open_screen(), "backend/fb", "fb_init", "0");
}

TEST_F(Fb, TheOtherNameServesWhereTheFirstMayNotBeOpened)
{
    FakeDevice other("/dev/fb/0");
    other.describe(800, 480, 32, 3200, 480);
    device.open_error = EACCES;
    EXPECT_NE(open_screen(), nullptr);
}

TEST_F(Fb, TheConsoleIsSwitchedToGraphicsAndNeverBack)
{
    open_screen();
    EXPECT_EQ(console.console_mode, static_cast<uint32_t>(KD_GRAPHICS));
    close_screen();
    EXPECT_EQ(console.console_mode, static_cast<uint32_t>(KD_GRAPHICS));
    EXPECT_EQ(console.requests.size(), 1u);
}

TEST_F(Fb, AConsoleThatKeepsItsModeIsNoReasonToStop)
{
    console.failing_request = KDSETMODE;
    EXPECT_NE(open_screen(), nullptr);
}

TEST_F(Fb, TheModeIsReadTwice)
{
    open_screen();
    EXPECT_THAT(device.requests, ElementsAre(FBIOGET_FSCREENINFO, FBIOGET_VSCREENINFO, FBIOGET_VSCREENINFO));
}

// ---- failures of the device ----

TEST_F(Fb, AFailedRequestIsReportedAndThereIsNoScreen)
{
    for (const int request : {FBIOGET_FSCREENINFO, FBIOGET_VSCREENINFO}) {
        device.failing_request = static_cast<unsigned long>(request);
        EXPECT_THAT(complained([&] { EXPECT_EQ(open_screen(), nullptr); }), HasSubstr("Input/output error\n"));
    }
    device.failing_request = 0;
    EXPECT_NE(open_screen(), nullptr);
}

TEST_F(Fb, MemoryThatCannotBeMappedIsReported)
{
    device.fix.smem_len = 0;
    EXPECT_THAT(complained([&] { EXPECT_EQ(open_screen(), nullptr); }), HasSubstr("Invalid argument\n"));
}

TEST_F(Fb, AWidthOfZeroIsRefused)
{
    device.var.xres = 0;
    EXPECT_THAT(complained([&] { EXPECT_EQ(open_screen(), nullptr); }), HasSubstr("No such device\n"));
}

TEST_F(Fb, ReopeningManyTimesUsesUpNoDescriptors)
{
    open_screen();
    close_screen();
    const size_t before = open_descriptors();
    for (int i = 0; i < 20; i++) {
        ASSERT_NE(open_screen(), nullptr);
        close_screen();
        device.failing_request = FBIOGET_VSCREENINFO;
        const StderrCapture quiet;
        ASSERT_EQ(open_screen(), nullptr);
        device.failing_request = 0;
    }
    EXPECT_EQ(open_descriptors(), before);
}

// ---- the memory ----

TEST_F(Fb, TheMappedMemoryIsTheDevicesAndIsLeftAsItWas)
{
    device.fill(0x5A);
    auto *bytes = static_cast<uint8_t *>(open_screen());
    EXPECT_EQ(bytes[0], 0x5A);
    EXPECT_EQ(bytes[960 * 300 - 1], 0x5A);
    bytes[1] = 0x77;
    EXPECT_EQ(device.memory()[1], 0x77);
}

TEST_F(Fb, ReleasedTheWholeMemoryIsBlackAlsoBeyondTheScreen)
{
    device.fill(0x5A);
    open_screen();
    close_screen();
    EXPECT_TRUE(device.is_filled_with(0));
}

TEST_F(Fb, MemoryThatCannotBeUnmappedIsReported)
{
    device.fill(0x5A);
    open_screen();
    next_munmap_fails = true;
    EXPECT_EQ(complained([this] { close_screen(); }), "fb munmap failed: Invalid argument\n");
    EXPECT_TRUE(device.is_filled_with(0));
}

TEST_F(Fb, ReleaseWithoutAScreenDoesNothing)
{
    open_screen();
    EXPECT_EQ(complained([this] { close_screen(); }), "");
    device.failing_request = FBIOGET_FSCREENINFO;
    const StderrCapture quiet;
    EXPECT_EQ(open_screen(), nullptr);
    fb_displayfunc.release(nullptr);
}

TEST_F(Fb, UpdateAndFlushDoNothing)
{
    open_screen();
    device.fill(0x5A);
    const size_t requests = device.requests.size();
    Region region;
    const Box box{0, 0, 100, 100};
    region_init(&region, &box);
    fb_displayfunc.update(nullptr, &region);
    fb_displayfunc.flush(nullptr);
    region_uninit(&region);
    EXPECT_TRUE(device.is_filled_with(0x5A));
    EXPECT_EQ(device.requests.size(), requests);
}

TEST_F(Fb, FlipSelectsThePage)
{
    open_screen();
    EXPECT_EQ(fb_flip(1), 0);
    EXPECT_EQ(device.var.yoffset, 272u);
    EXPECT_EQ(device.var.activate, 16u);
    EXPECT_EQ(fb_flip(0), 0);
    EXPECT_EQ(device.var.yoffset, 0u);
    device.failing_request = FBIOPUT_VSCREENINFO;
    EXPECT_EQ(fb_flip(7), -1);
}

TEST_F(Fb, SyncSaysSo)
{
    EXPECT_EQ(printed([] { fb_sync(); }), "fb_sync\n");
}

} // namespace
