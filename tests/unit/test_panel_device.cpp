// SPDX-License-Identifier: MIT
// A panel's devices as a framebuffer program sees them, with the program built in three ways.
#include "panel_fixture.h"

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <linux/fb.h>
#include <linux/kd.h>

namespace {

class PanelDeviceTest : public PanelTest, public testing::WithParamInterface<const char *> {
protected:
    void SetUp() override
    {
        PanelTest::SetUp();
        probe = from_environment(GetParam());
    }
    // What the probe prints on a panel with these options; it must have ended well.
    std::string print(const Words &options, const Words &probe_arguments)
    {
        const Result result = run(panel(options, probe_arguments));
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return result.out;
    }
};

INSTANTIATE_TEST_SUITE_P(Builds, PanelDeviceTest,
                         testing::Values("PFB_TEST_PROBE_PLAIN", "PFB_TEST_PROBE_FORTIFIED",
                                         "PFB_TEST_PROBE_SANITIZED"),
                         [](const auto &info) { return std::string(info.param).substr(15); });

const Words LAYER = {"--size", "32x16", "--layer2", "20x10:argb8888"};
const std::string UPDATE = std::to_string(O_RDWR);
const std::string GET_FIX = std::to_string(FBIOGET_FSCREENINFO);
const std::string GET_VAR = std::to_string(FBIOGET_VSCREENINFO);
const std::string PUT_VAR = std::to_string(FBIOPUT_VSCREENINFO);
const std::string PAN = std::to_string(FBIOPAN_DISPLAY);

TEST_P(PanelDeviceTest, every_call_that_opens_finds_the_device)
{
    for (const char *call :
         {"open", "open64", "openat", "openat64", "__open_2", "__open64_2", "__openat_2", "__openat64_2", "creat",
          "creat64", "open-create", "fopen", "fopen-write", "fopen-append", "fopen64", "freopen", "freopen64"}) {
        EXPECT_EQ(print(LAYER, {"open", call, "/dev/fb0", UPDATE}), "pfbpanel fb0\n") << call;
        EXPECT_EQ(print(LAYER, {"open", call, "/dev/fb2", UPDATE}), "pfbpanel fb2\n") << call;
        EXPECT_EQ(print(LAYER, {"open", call, "/dev/tty0", UPDATE}), "console\n") << call;
        EXPECT_EQ(print(LAYER, {"open", call, "/dev/vc/0", UPDATE}), "ENOENT\n") << call;
    }
}

TEST_P(PanelDeviceTest, other_files_are_left_alone)
{
    const std::string file = folder + "/file";
    for (const char *call :
         {"creat", "open-create", "open", "open64", "openat", "openat64", "__open_2", "__open64_2", "__openat_2",
          "__openat64_2", "fopen", "fopen64", "fopen-write", "fopen-append", "freopen", "freopen64"})
        EXPECT_EQ(print({}, {"open", call, file, UPDATE}), "other\n") << call;
    EXPECT_EQ(print({}, {"open", "open-exclusive", file, UPDATE}), "EEXIST\n");
    EXPECT_EQ(print({}, {"open", "open", folder + "/none", UPDATE}), "ENOENT\n");
    EXPECT_EQ(print({}, {"open", "open", "/dev/null", UPDATE}), "other\n");
}

TEST_P(PanelDeviceTest, opening_never_makes_or_cuts_a_device)
{
    EXPECT_EQ(print({}, {"open", "open-create", "/dev/fb2", UPDATE}), "ENOENT\n");
    EXPECT_EQ(print({}, {"open", "fopen-write", "/dev/fb/0", UPDATE}), "ENOENT\n");
    EXPECT_EQ(print({}, {"open", "open-exclusive", "/dev/fb0", UPDATE}), "EEXIST\n");
    const Started program = start_panel({"--name", "cut"}, {"draw", "/dev/fb0", "1", "wait"});
    const std::string file = panels + "/pfbpanel-cut/dev/fb0", before = read_file(file);
    for (const char *call : {"creat", "open-create", "fopen-write", "fopen-append", "freopen"})
        EXPECT_EQ(run(pfbpanel({"run", "--", probe, "open", call, "/dev/fb0", UPDATE})).out, "pfbpanel fb0\n");
    EXPECT_EQ(read_file(file), before);
    stop(program);
}

TEST_P(PanelDeviceTest, a_static_constructor_may_use_the_device)
{
    EXPECT_EQ(print({}, {"constructor"}), "ok\npfbpanel fb0\n");
}

TEST_P(PanelDeviceTest, duplicates_and_a_fork_are_the_device_and_a_reused_number_is_not)
{
    EXPECT_EQ(print({}, {"duplicates", "/dev/fb0"}), "pfbpanel fb0\npfbpanel fb0\npfbpanel fb0\npfbpanel fb0\nother\n");
}

struct FormatCase {
    const char *name;
    unsigned bytes;
    const char *description; // as the kernel's structures would give it
};

const FormatCase FORMATS[] = {
    {"rgb565", 2, "bits=16 gray=0 red=11/5/0 green=5/6/0 blue=0/5/0 transp=0/0/0"},
    {"bgr565", 2, "bits=16 gray=0 red=0/5/0 green=5/6/0 blue=11/5/0 transp=0/0/0"},
    {"rgb666", 4, "bits=18 gray=0 red=12/6/0 green=6/6/0 blue=0/6/0 transp=0/0/0"},
    {"rgb888", 3, "bits=24 gray=0 red=16/8/0 green=8/8/0 blue=0/8/0 transp=0/0/0"},
    {"xrgb8888", 4, "bits=32 gray=0 red=16/8/0 green=8/8/0 blue=0/8/0 transp=0/0/0"},
    {"argb8888", 4, "bits=32 gray=0 red=16/8/0 green=8/8/0 blue=0/8/0 transp=24/8/0"},
    {"xbgr8888", 4, "bits=32 gray=0 red=0/8/0 green=8/8/0 blue=16/8/0 transp=0/0/0"},
    {"c8", 1, "bits=8 gray=1 red=0/8/0 green=0/8/0 blue=0/8/0 transp=0/0/0"},
};

TEST_P(PanelDeviceTest, formats_describe_themselves)
{
    for (const FormatCase &format : FORMATS) {
        const unsigned stride = 100 * format.bytes, memory = (stride * 50 + 4095) / 4096 * 4096;
        const int visual = format.bytes == 1 ? FB_VISUAL_STATIC_PSEUDOCOLOR : FB_VISUAL_TRUECOLOR;
        const Words info = lines(print({"--size", "100x50", "--format", format.name}, {"info", "/dev/fb0"}));
        ASSERT_EQ(info.size(), 3u) << format.name;
        EXPECT_EQ(info[0], "fix ok id=pfbpanel fb0 smem_len=" + std::to_string(memory) + " line_length=" +
                               std::to_string(stride) + " visual=" + std::to_string(visual) + " type=0 ypanstep=0");
        EXPECT_EQ(info[1], "var ok 100x50 virtual=100x50 " + std::string(format.description));
        EXPECT_EQ(info[2], "mmap ok");
    }
}

TEST_P(PanelDeviceTest, stride_rows_and_memory_are_as_asked_for)
{
    Words info = lines(print({"--size", "480x10", "--stride", "2048", "--virtual-height", "20"}, {"info", "/dev/fb0"}));
    EXPECT_EQ(info.at(0), "fix ok id=pfbpanel fb0 smem_len=40960 line_length=2048 visual=2 type=0 ypanstep=1");
    EXPECT_EQ(info.at(1).substr(0, 29), "var ok 480x10 virtual=480x20 ");
    info = lines(print({"--size", "480x10", "--memory", "12345"}, {"info", "/dev/fb0"}));
    EXPECT_EQ(info.at(0), "fix ok id=pfbpanel fb0 smem_len=12345 line_length=960 visual=2 type=0 ypanstep=0");
    info = lines(print({"--size", "8x8", "--layer2", "30x20:argb8888:256"}, {"info", "/dev/fb2"}));
    EXPECT_EQ(info.at(0), "fix ok id=pfbpanel fb2 smem_len=8192 line_length=256 visual=2 type=0 ypanstep=0");
    EXPECT_EQ(info.at(1).substr(0, 35), "var ok 30x20 virtual=30x20 bits=32 ");
}

TEST_P(PanelDeviceTest, only_the_memory_can_be_mapped)
{
    const Words options = {"--size", "64x64", "--memory", "10000"}; // three pages
    EXPECT_EQ(print(options, {"map", "/dev/fb0", "10000", "0"}), "ok ok\n");
    EXPECT_EQ(print(options, {"map", "/dev/fb0", "12288", "0"}), "ok ok\n");
    EXPECT_EQ(print(options, {"map", "/dev/fb0", "12289", "0"}), "EINVAL EINVAL\n");
    EXPECT_EQ(print(options, {"map", "/dev/fb0", "4096", "8192"}), "ok ok\n");
    EXPECT_EQ(print(options, {"map", "/dev/fb0", "4096", "12288"}), "EINVAL EINVAL\n");
    EXPECT_EQ(print(options, {"map", "/dev/tty0", "4096", "0"}), "ENODEV ENODEV\n");
}

TEST_P(PanelDeviceTest, a_bad_pointer_is_an_error_number)
{
    const std::string every = "EFAULT EFAULT EFAULT EFAULT EFAULT \n";
    EXPECT_EQ(print(LAYER, {"efault", "/dev/fb0", GET_FIX}), every);
    EXPECT_EQ(print(LAYER, {"efault", "/dev/fb0", GET_VAR}), every);
    EXPECT_EQ(print(LAYER, {"efault", "/dev/fb2", "0x46FF"}), "EFAULT EFAULT EFAULT EINVAL EFAULT \n")
        << "the last but one holds a sub-command of 0 before the unreadable part";
    EXPECT_EQ(print(LAYER, {"efault", "/dev/tty0", std::to_string(KDGETMODE)}),
              "EFAULT EFAULT EFAULT EFAULT EFAULT \n");
    EXPECT_EQ(print(LAYER, {"efault", "/dev/fb0", PUT_VAR}), "EFAULT EFAULT EFAULT EFAULT EINVAL \n")
        << "the last one can be read and holds a mode that is not the panel's";
}

TEST_P(PanelDeviceTest, unknown_requests_are_not_for_this_device)
{
    EXPECT_EQ(print(LAYER, {"ioctl", "/dev/fb0", "0x46FF"}), "ENOTTY\n") << "the first layer has no layer control";
    EXPECT_EQ(print(LAYER, {"ioctl", "/dev/fb0", std::to_string(KDSETMODE)}), "ENOTTY\n");
    EXPECT_EQ(print(LAYER, {"ioctl", "/dev/fb2", "0x4699"}), "ENOTTY\n");
    EXPECT_EQ(print(LAYER, {"ioctl", "/dev/tty0", GET_FIX}), "ENOTTY\n");
    EXPECT_EQ(print(LAYER, {"set", "/dev/fb0", std::to_string(FBIOBLANK), "1"}), "ok\n");
}

TEST_P(PanelDeviceTest, the_console_keeps_its_mode)
{
    const std::string set = std::to_string(KDSETMODE);
    EXPECT_EQ(print({}, {"set", "/dev/tty0", set, "1"}), "ok mode=1\n");
    EXPECT_EQ(print({}, {"set", "/dev/tty0", set, "0"}), "ok mode=0\n");
    EXPECT_EQ(print({}, {"set", "/dev/tty0", set, "7"}), "EINVAL mode=0\n");
}

TEST_P(PanelDeviceTest, panning_stays_within_the_virtual_screen)
{
    const Words tall = {"--size", "16x10", "--virtual-height", "20"};
    EXPECT_EQ(print(tall, {"put", "/dev/fb0", PUT_VAR, "10"}), "ok yoffset=10 activate=16\n");
    EXPECT_EQ(print(tall, {"put", "/dev/fb0", PUT_VAR, "11"}), "EINVAL yoffset=0 activate=0\n");
    EXPECT_EQ(print(tall, {"put", "/dev/fb0", PUT_VAR, "0xFFFFFFFF"}), "EINVAL yoffset=0 activate=0\n");
    EXPECT_EQ(print(tall, {"put", "/dev/fb0", PUT_VAR, "10", "17"}), "EINVAL yoffset=0 activate=0\n");
    EXPECT_EQ(print(tall, {"put", "/dev/fb0", PAN, "7"}), "ok yoffset=7 activate=0\n");
    EXPECT_EQ(print(tall, {"put", "/dev/fb0", PAN, "11"}), "EINVAL yoffset=0 activate=0\n");
    EXPECT_EQ(print({"--size", "16x10"}, {"put", "/dev/fb0", PUT_VAR, "10"}), "EINVAL yoffset=0 activate=0\n");
}

TEST_P(PanelDeviceTest, the_layer_control_reads_back_and_is_logged)
{
    const Words options = {"--name", "layer", "--size", "32x16", "--layer2", "20x10:argb8888"};
    const Started program = start_panel(options, {"wait"});
    const Words out = lines(run(pfbpanel({"run", "--", probe, "layer", "/dev/fb2"})).out);
    const std::string log = read_file(panels + "/pfbpanel-layer/layer2.log");
    stop(program);

    ASSERT_EQ(out.size(), 7u);
    const Words first = split(out[1], ' '), last = split(out[5], ' ');
    ASSERT_EQ(first.size(), 48u);
    ASSERT_EQ(last.size(), 48u);
    ASSERT_EQ(log.size(), 2 * 192u);
    uint32_t blocks[2][48];
    std::copy(log.begin(), log.end(), reinterpret_cast<char *>(blocks));
    EXPECT_EQ(blocks[0][0], 3u);
    EXPECT_EQ(blocks[1][0], 3u);
    EXPECT_EQ(first[0], "00000004") << "the sub-command is the caller's";
    for (uint32_t i = 1; i < 48; i++) {
        const uint32_t driver = 0x5EED0000 + 4 * i;
        EXPECT_EQ(std::stoul(first[i], nullptr, 16), driver) << i;
        EXPECT_EQ(blocks[0][i], i == 29 ? driver | 0x2000 : driver) << i;
        EXPECT_EQ(blocks[1][i], 0x1000 + i) << i;
        EXPECT_EQ(std::stoul(last[i], nullptr, 16), 0x1000 + i) << i;
    }
    EXPECT_EQ((Words{out[0], out[2], out[3], out[4], out[6]}), (Words{"ok", "ok", "ok", "ok", "EINVAL"}));
}

TEST_P(PanelDeviceTest, the_nodes_look_like_devices)
{
    EXPECT_EQ(print(LAYER, {"stat", "/dev/fb0"}), "1 1 1 29:0 29:0 0 access ok\n");
    EXPECT_EQ(print(LAYER, {"stat", "/dev/fb2"}), "1 1 1 29:2 29:2 0 access ok\n");
    EXPECT_EQ(print(LAYER, {"stat", "/dev/tty0"}), "1 1 1 4:0 4:0 0 access ok\n");
    EXPECT_EQ(print({}, {"stat", "/dev/fb2"}), "ENOENT access ENOENT\n");
    EXPECT_EQ(print({}, {"stat", "/dev/null"}), "1 1 1 1:3 1:3 0 access ok\n");
}

TEST_P(PanelDeviceTest, requests_work_with_every_descriptor_in_use)
{
    EXPECT_EQ(print({}, {"full", "/dev/fb0"}), "EMFILE pfbpanel fb0\n");
}

TEST_P(PanelDeviceTest, each_fault_is_the_one_asked_for)
{
    for (const std::string device : {"fb0", "fb2"}) {
        const auto with = [&](const std::string &fault) {
            Words options = LAYER;
            options.insert(options.end(), {"--fault", device + "-" + fault});
            return options;
        };
        const std::string node = "/dev/" + device, other = "/dev/fb/" + device.substr(2);
        const Words sound = lines(print(LAYER, {"info", node}));
        Words info = lines(print(with("fix"), {"info", node}));
        EXPECT_EQ(info, (Words{"fix EIO", sound.at(1), "mmap ok"}));
        info = lines(print(with("var"), {"info", node}));
        EXPECT_EQ(info, (Words{sound.at(0), "var EIO", "mmap ok"}));
        info = lines(print(with("mmap"), {"info", node}));
        EXPECT_EQ(info, (Words{sound.at(0), sound.at(1), "mmap ENODEV"}));
        info = lines(print(with("zero-width"), {"info", node}));
        EXPECT_EQ(info.at(1).substr(0, 8), "var ok 0");
        EXPECT_EQ(print(with("open"), {"open", "open", node, UPDATE}), "ENODEV\n");
        EXPECT_EQ(print(with("open"), {"open", "fopen", node, UPDATE}), "ENODEV\n");
        EXPECT_EQ(print(with("other"), {"open", "open", node, UPDATE}), "ENOENT\n");
        EXPECT_EQ(print(with("other"), {"open", "open", other, UPDATE}), "pfbpanel " + device + "\n");
        EXPECT_EQ(print(with("none"), {"open", "open", node, UPDATE}), "ENOENT\n");
        EXPECT_EQ(print(with("none"), {"open", "open", other, UPDATE}), "ENOENT\n");
    }
}

TEST_P(PanelDeviceTest, faults_of_the_console_and_the_layer_control)
{
    const std::string set = std::to_string(KDSETMODE);
    EXPECT_EQ(print({"--fault", "tty0-open"}, {"open", "open", "/dev/tty0", UPDATE}), "ENODEV\n");
    EXPECT_EQ(print({"--fault", "tty0-mode"}, {"set", "/dev/tty0", set, "1"}), "EINVAL mode=0\n");
    EXPECT_EQ(print({"--fault", "tty0-other"}, {"open", "open", "/dev/tty0", UPDATE}), "ENOENT\n");
    EXPECT_EQ(print({"--fault", "tty0-other"}, {"open", "open", "/dev/vc/0", UPDATE}), "console\n");
    EXPECT_EQ(print({"--fault", "tty0-none"}, {"open", "open", "/dev/tty0", UPDATE}), "ENOENT\n");
    EXPECT_EQ(print({"--fault", "tty0-none"}, {"open", "open", "/dev/vc/0", UPDATE}), "ENOENT\n");
    Words options = LAYER;
    options.insert(options.end(), {"--fault", "fb2-control,fb0-other"});
    EXPECT_EQ(lines(print(options, {"layer", "/dev/fb2"})).at(0), "EINVAL");
    EXPECT_EQ(print(options, {"open", "open", "/dev/fb/0", UPDATE}), "pfbpanel fb0\n");
}

} // namespace
