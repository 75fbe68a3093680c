// SPDX-License-Identifier: MIT
// Pictures of panels, compared pixel by pixel with what the probe drew, and the counting of frames.
#include "panel_fixture.h"

#include <cstdint>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <linux/fb.h>
#include <pixman.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Picture {
    uint32_t width;
    uint32_t height;
    bool alpha;
    std::vector<uint8_t> rgba;

    uint32_t at(uint32_t x, uint32_t y) const // 0xAARRGGBB
    {
        const uint8_t *p = &rgba[(size_t{y} * width + x) * 4];
        return uint32_t{p[3]} << 24 | uint32_t{p[0]} << 16 | uint32_t{p[1]} << 8 | p[2];
    }
};

Picture read_png(const std::string &path)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    Picture picture = {};
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        ADD_FAILURE() << path << ": " << image.message;
        return picture;
    }
    picture.alpha = (image.format & PNG_FORMAT_FLAG_ALPHA) != 0;
    picture.width = image.width;
    picture.height = image.height;
    image.format = PNG_FORMAT_RGBA;
    picture.rgba.resize(PNG_IMAGE_SIZE(image));
    EXPECT_NE(png_image_finish_read(&image, nullptr, picture.rgba.data(), 0, nullptr), 0) << image.message;
    return picture;
}

// What the probe draws.
uint32_t pattern(uint32_t x, uint32_t y, uint32_t picture)
{
    uint32_t value = (x + 1) * 2654435761u ^ (y + 1) * 2246822519u ^ (picture + 1) * 3266489917u;
    value ^= value >> 15;
    return value * 668265263u;
}

// The colour that a format shows for a value, 0xRRGGBB. Multiplying by 33 or 65 writes the bits down twice.
uint32_t five(uint32_t value)
{
    return (value & 31) * 33 >> 2;
}
uint32_t six(uint32_t value)
{
    return (value & 63) * 65 >> 4;
}
uint32_t rgb565(uint32_t v)
{
    return five(v >> 11) << 16 | six(v >> 5) << 8 | five(v);
}
uint32_t bgr565(uint32_t v)
{
    return five(v) << 16 | six(v >> 5) << 8 | five(v >> 11);
}
uint32_t rgb666(uint32_t v)
{
    return six(v >> 12) << 16 | six(v >> 6) << 8 | six(v);
}
uint32_t rgb888(uint32_t v)
{
    return v & 0xFFFFFF;
}
uint32_t bgr888(uint32_t v)
{
    return (v & 0xFF) << 16 | (v & 0xFF00) | (v >> 16 & 0xFF);
}
uint32_t gray8(uint32_t v)
{
    return (v & 0xFF) * 0x010101;
}

struct FormatCase {
    const char *name;
    uint32_t bytes;
    uint32_t (*colour)(uint32_t value);
};

constexpr FormatCase FORMATS[] = {
    {"rgb565", 2, rgb565},   {"bgr565", 2, bgr565},   {"rgb666", 4, rgb666},   {"rgb888", 3, rgb888},
    {"xrgb8888", 4, rgb888}, {"argb8888", 4, rgb888}, {"xbgr8888", 4, bgr888}, {"c8", 1, gray8},
};

class PanelShotTest : public PanelTest {
protected:
    std::string shot_file() const { return folder + "/shot.png"; }

    Picture shot(const Words &options)
    {
        Words words = {"shot", shot_file()};
        words.insert(words.end(), options.begin(), options.end());
        const Result result = run(pfbpanel(words));
        EXPECT_EQ(result.status, 0) << result.err;
        return read_png(shot_file());
    }
};

void expect_pattern(const Picture &picture, uint32_t (*colour)(uint32_t), uint32_t number, uint32_t first_row = 0)
{
    unsigned wrong = 0;
    for (uint32_t y = 0; y < picture.height; y++)
        for (uint32_t x = 0; x < picture.width; x++)
            if (picture.at(x, y) != (0xFF000000 | colour(pattern(x, y + first_row, number))))
                wrong++;
    EXPECT_EQ(wrong, 0u) << "pixels differ";
}

TEST_F(PanelShotTest, every_format_is_shown_as_it_is)
{
    for (const FormatCase &format : FORMATS) {
        SCOPED_TRACE(format.name);
        const Started program =
            start_panel({"--size", "61x37", "--format", format.name}, {"draw", "/dev/fb0", "3", "wait"});
        const Picture picture = shot({});
        EXPECT_EQ(picture.width, 61u);
        EXPECT_EQ(picture.height, 37u);
        EXPECT_FALSE(picture.alpha);
        expect_pattern(picture, format.colour, 3);
        stop(program);
    }
}

TEST_F(PanelShotTest, row_padding_is_left_out)
{
    for (const FormatCase &format : FORMATS) {
        SCOPED_TRACE(format.name);
        const std::string stride = std::to_string(40 * format.bytes + 12);
        const Started program = start_panel({"--size", "40x20", "--stride", stride, "--format", format.name},
                                            {"draw", "/dev/fb0", "4", "wait"});
        expect_pattern(shot({}), format.colour, 4);
        stop(program);
    }
}

TEST_F(PanelShotTest, the_shown_part_of_the_memory_is_taken)
{
    const Started program =
        start_panel({"--size", "24x10", "--virtual-height", "30", "--stride", "64"}, {"draw", "/dev/fb0", "5", "wait"});
    expect_pattern(shot({}), rgb565, 5);
    run(pfbpanel({"run", "--", probe, "put", "/dev/fb0", std::to_string(FBIOPAN_DISPLAY), "13"}));
    expect_pattern(shot({}), rgb565, 5, 13);
    stop(program);
}

TEST_F(PanelShotTest, rows_beyond_the_memory_are_black)
{
    // One page: what follows it in the reader's address space is something else.
    const Started program = start_panel({"--size", "100x16", "--format", "xrgb8888", "--memory", "4096"}, {"wait"});
    std::ofstream(panels + "/" + folder_entries().at(0) + "/dev/fb0") << std::string(4096, '\x7F');
    const Picture picture = shot({});
    unsigned wrong = 0;
    for (uint32_t y = 0; y < 16; y++)
        for (uint32_t x = 0; x < 100; x++)
            wrong += picture.at(x, y) != (y * 100 + x < 1024 ? 0xFF7F7F7F : 0xFF000000);
    EXPECT_EQ(wrong, 0u);
    stop(program);
}

TEST_F(PanelShotTest, the_second_layer_is_shown_with_its_alpha)
{
    const Started program =
        start_panel({"--size", "16x8", "--layer2", "33x21:argb8888:144"}, {"draw", "/dev/fb2", "6", "wait"});
    const Picture picture = shot({"--layer2"});
    EXPECT_TRUE(picture.alpha);
    ASSERT_EQ(picture.width, 33u);
    ASSERT_EQ(picture.height, 21u);
    unsigned wrong = 0;
    for (uint32_t y = 0; y < 21; y++)
        for (uint32_t x = 0; x < 33; x++)
            wrong += picture.at(x, y) != pattern(x, y, 6);
    EXPECT_EQ(wrong, 0u);
    stop(program);
}

// ---- both layers ----

// Two canvases of pixman's, the second laid over the first one's top left corner.
std::vector<uint32_t> laid_over(std::vector<uint32_t> below, int width, int height, std::vector<uint32_t> above,
                                int above_width, int above_height)
{
    pixman_image_t *to = pixman_image_create_bits(PIXMAN_x8r8g8b8, width, height, below.data(), width * 4);
    pixman_image_t *from =
        pixman_image_create_bits(PIXMAN_a8r8g8b8, above_width, above_height, above.data(), above_width * 4);
    pixman_image_composite32(PIXMAN_OP_OVER, from, nullptr, to, 0, 0, 0, 0, 0, 0, above_width, above_height);
    pixman_image_unref(from);
    pixman_image_unref(to);
    return below;
}

// What the probe's picture holds: the format's colours, opaque, or the words themselves, which have alpha.
std::vector<uint32_t> pattern_words(uint32_t width, uint32_t height, uint32_t number, uint32_t (*colour)(uint32_t))
{
    std::vector<uint32_t> words;
    for (uint32_t y = 0; y < height; y++)
        for (uint32_t x = 0; x < width; x++) {
            const uint32_t value = pattern(x, y, number);
            words.push_back(colour != nullptr ? 0xFF000000 | colour(value) : value);
        }
    return words;
}

void expect_words(const Picture &picture, const std::vector<uint32_t> &words)
{
    ASSERT_EQ(words.size(), size_t{picture.width} * picture.height);
    EXPECT_FALSE(picture.alpha);
    unsigned wrong = 0;
    for (uint32_t y = 0; y < picture.height; y++)
        for (uint32_t x = 0; x < picture.width; x++)
            wrong += picture.at(x, y) != (words[size_t{y} * picture.width + x] | 0xFF000000);
    EXPECT_EQ(wrong, 0u) << "pixels differ";
}

struct BothCase {
    const char *format;
    uint32_t (*colour)(uint32_t);
    const char *size;
    uint32_t width, height;
    const char *second;
    uint32_t second_width, second_height;
    uint32_t (*second_colour)(uint32_t); // null: with alpha
};

constexpr BothCase BOTH[] = {
    {"xrgb8888", rgb888, "40x30", 40, 30, "40x30:argb8888", 40, 30, nullptr},
    {"rgb565", rgb565, "40x30", 40, 30, "25x37:argb8888", 25, 37, nullptr},
    {"rgb666", rgb666, "40x30", 40, 30, "61x11:argb8888:256", 61, 11, nullptr},
    {"rgb888", rgb888, "33x21", 33, 21, "40x30:argb8888", 40, 30, nullptr},
    {"xrgb8888", rgb888, "40x30", 40, 30, "17x9:rgb565", 17, 9, rgb565},
    {"rgb565", rgb565, "40x30", 40, 30, "50x9:rgb666", 50, 9, rgb666},
    {"argb8888", rgb888, "40x30", 40, 30, "17x40:xrgb8888", 17, 40, rgb888},
};

class PanelBothTest : public PanelShotTest {
protected:
    void draw(const char *node, const char *number)
    {
        EXPECT_EQ(run(pfbpanel({"run", "--", probe, "draw", node, number})).status, 0);
    }
    void enable(const char *value)
    {
        EXPECT_EQ(run(pfbpanel({"run", "--", probe, "enable", "/dev/fb2", value})).out, "ok\n");
    }
};

TEST_F(PanelBothTest, the_second_layer_lies_over_the_first_one)
{
    for (const BothCase &c : BOTH) {
        SCOPED_TRACE(std::string(c.format) + " below " + c.second);
        const Started program = start_panel({"--size", c.size, "--format", c.format, "--layer2", c.second}, {"wait"});
        draw("/dev/fb0", "8");
        draw("/dev/fb2", "9");
        enable("1");
        const std::vector<uint32_t> below = pattern_words(c.width, c.height, 8, c.colour);
        const std::vector<uint32_t> above = pattern_words(c.second_width, c.second_height, 9, c.second_colour);
        expect_words(shot({"--both"}), laid_over(below, static_cast<int>(c.width), static_cast<int>(c.height), above,
                                                 static_cast<int>(c.second_width), static_cast<int>(c.second_height)));
        stop(program);
    }
}

// Every colour under every alpha: the rounding, and colours that are brighter than their alpha allows.
TEST_F(PanelBothTest, blends_to_the_bit)
{
    const Started program =
        start_panel({"--size", "256x256", "--format", "xrgb8888", "--layer2", "256x256:argb8888"}, {"wait"});
    const std::string place = panels + "/" + folder_entries().at(0) + "/dev/";
    std::vector<uint32_t> below, above;
    for (uint32_t y = 0; y < 256; y++)
        for (uint32_t x = 0; x < 256; x++) {
            below.push_back(x << 16 | (255 - x) << 8 | (x ^ y));
            above.push_back(y << 24 | y << 16 | (y / 2) << 8 | (255 - y));
        }
    for (const auto &[name, words] : {std::pair{"fb0", &below}, {"fb2", &above}})
        std::ofstream(place + name, std::ios::in | std::ios::out)
            .write(reinterpret_cast<const char *>(words->data()), 256 * 256 * 4);
    enable("1");
    expect_words(shot({"--both"}), laid_over(below, 256, 256, above, 256, 256));
    stop(program);
}

TEST_F(PanelBothTest, a_second_layer_that_is_not_on_is_not_seen)
{
    const Started program = start_panel({"--size", "20x10", "--layer2", "20x10:argb8888"}, {"wait"});
    draw("/dev/fb0", "2");
    draw("/dev/fb2", "3");
    expect_pattern(shot({"--both"}), rgb565, 2);
    enable("1");
    EXPECT_NE(shot({"--both"}).rgba, shot({}).rgba);
    enable("0");
    expect_pattern(shot({"--both"}), rgb565, 2);
    stop(program);
}

TEST_F(PanelBothTest, a_panel_of_one_layer_shows_that)
{
    const Started program = start_panel({"--name", "one", "--size", "9x9"}, {"draw", "/dev/fb0", "4", "wait"});
    expect_pattern(shot({"--both", "--name", "one"}), rgb565, 4);
    expect_pattern(shot({"--both", "--panel", panels + "/pfbpanel-one"}), rgb565, 4);
    stop(program);
}

TEST_F(PanelBothTest, both_layers_are_taken_where_they_are_panned_to)
{
    const Started program = start_panel(
        {"--size", "16x8", "--virtual-height", "20", "--layer2", "16x8:argb8888", "--format", "xrgb8888"}, {"wait"});
    draw("/dev/fb0", "5");
    draw("/dev/fb2", "6");
    enable("1");
    run(pfbpanel({"run", "--", probe, "put", "/dev/fb0", std::to_string(FBIOPAN_DISPLAY), "11"}));
    std::vector<uint32_t> below = pattern_words(16, 19, 5, rgb888);
    below.erase(below.begin(), below.begin() + 16 * 11);
    expect_words(shot({"--both"}), laid_over(below, 16, 8, pattern_words(16, 8, 6, nullptr), 16, 8));
    stop(program);
}

TEST_F(PanelShotTest, raw_pictures_are_the_visible_bytes)
{
    const Started program =
        start_panel({"--size", "10x6", "--stride", "32", "--name", "raw"}, {"draw", "/dev/fb0", "7", "wait"});
    ASSERT_EQ(run(pfbpanel({"shot", "--raw", shot_file()})).status, 0);
    const std::string memory = read_file(panels + "/pfbpanel-raw/dev/fb0");
    std::string rows;
    for (size_t y = 0; y < 6; y++)
        rows += memory.substr(y * 32, 20);
    EXPECT_EQ(read_file(shot_file()), rows);
    stop(program);
}

TEST_F(PanelShotTest, every_way_to_choose_a_panel_shows_it)
{
    const Started one = start_panel({"--name", "one", "--size", "9x9"}, {"draw", "/dev/fb0", "1", "wait"});
    const Started two = start_panel({"--name", "two", "--size", "9x9"}, {"draw", "/dev/fb0", "2", "wait"});
    expect_pattern(shot({"--name", "one"}), rgb565, 1);
    expect_pattern(shot({"--panel", panels + "/pfbpanel-two"}), rgb565, 2);
    EXPECT_EQ(run(pfbpanel({"shot", shot_file()})).status, 1) << "two panels are running";
    EXPECT_EQ(run(pfbpanel({"shot", "--name", "three", shot_file()})).status, 1);
    // From within a panel it is that one; as a device it is found by ioctl and mmap like any real framebuffer.
    for (const Words &choice : {Words{}, Words{"--fb", "/dev/fb0"}}) {
        Words words = {"run", "--name", "two", "--", pfbpanel({})[0], "shot", shot_file()};
        words.insert(words.end(), choice.begin(), choice.end());
        std::filesystem::remove(shot_file());
        const Result result = run(pfbpanel(words));
        EXPECT_EQ(result.status, 0) << result.err;
        expect_pattern(read_png(shot_file()), rgb565, 2);
    }
    stop(one);
    stop(two);
}

TEST_F(PanelShotTest, what_cannot_be_shown_is_said)
{
    Result result = run(pfbpanel({"shot", "--fb", folder + "/none", shot_file()}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "pfbpanel: " + folder + "/none: No such file or directory\n");
    const Started program = start_panel({"--name", "a"}, {"wait"});
    result = run(pfbpanel({"shot", "--layer2", shot_file()}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "pfbpanel: " + panels + "/pfbpanel-a has no /dev/fb2\n");
    result = run(pfbpanel({"shot", folder + "/no/shot.png"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "pfbpanel: " + folder + "/no/shot.png: No such file or directory\n");
    EXPECT_FALSE(std::filesystem::exists(shot_file()));
    stop(program);
}

// A device that reports a width of 0 reaches the picture code by ioctl only.
TEST_F(PanelShotTest, a_device_without_a_picture_is_refused)
{
    const Result result = run(pfbpanel({"--size", "8x8", "--fault", "fb0-zero-width", "--", pfbpanel({})[0], "shot",
                                        "--fb", "/dev/fb0", shot_file()}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "pfbpanel: /dev/fb0 reports 0 x 8 pixels of 16 bits\n");
}

TEST_F(PanelShotTest, a_picture_replaces_the_old_one_and_leaves_nothing_beside_it)
{
    const std::string place = folder + "/pictures";
    std::filesystem::create_directory(place);
    std::ofstream(place + "/shot.png") << "old";
    const Started program = start_panel({"--size", "200x100"}, {"animate", "/dev/fb0", "100"});
    umask(022);
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(run(pfbpanel({"shot", place + "/shot.png"})).status, 0);
        const Picture picture = read_png(place + "/shot.png");
        EXPECT_EQ(picture.width, 200u);
        EXPECT_EQ(picture.height, 100u);
    }
    struct stat info;
    ASSERT_EQ(stat((place + "/shot.png").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(place), {}), 1);
    stop(program);
}

struct Watched {
    unsigned long samples = 0;
    unsigned long changed = 0;
    double seconds = 0;
    double rate = 0;
};

Watched parse_watch(const Result &result)
{
    Watched watched;
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(sscanf(result.out.c_str(), "%lu samples in %lf s, %lu changed: %lf frames that changed per second",
                     &watched.samples, &watched.seconds, &watched.changed, &watched.rate),
              4)
        << result.out;
    return watched;
}

TEST_F(PanelShotTest, watch_counts_what_changes_and_nothing_else)
{
    const Started still = start_panel({"--name", "still"}, {"draw", "/dev/fb0", "1", "wait"});
    const Started moving = start_panel({"--name", "moving"}, {"animate", "/dev/fb0", "10000"});
    const Watched none = parse_watch(run(pfbpanel({"watch", "--seconds", "0.3", "--name", "still"})));
    EXPECT_GT(none.samples, 0u);
    EXPECT_EQ(none.changed, 0u);
    EXPECT_EQ(none.rate, 0);
    const Watched some = parse_watch(run(pfbpanel({"watch", "--seconds", "1", "--name", "moving"})));
    EXPECT_GT(some.changed, 0u);
    EXPECT_LE(some.changed, some.samples);
    EXPECT_NEAR(some.rate, static_cast<double>(some.changed) / some.seconds, some.rate * 0.02 + 0.1);
    stop(still);
    stop(moving);
}

std::string process_status(pid_t pid, const std::string &field)
{
    for (const std::string &line : lines(read_file("/proc/" + std::to_string(pid) + "/status"))) {
        if (line.rfind(field + ":", 0) == 0)
            return line.substr(field.size() + 1);
    }
    return "0"; // not running
}

bool catches_interrupt(pid_t pid)
{
    return (std::stoull(process_status(pid, "SigCgt"), nullptr, 16) & 1u << (SIGINT - 1)) != 0;
}

// It sleeps once before each sample.
void wait_for_samples(pid_t pid, unsigned long count)
{
    const unsigned long before = std::stoul(process_status(pid, "voluntary_ctxt_switches"));
    const auto enough = [&] { return std::stoul(process_status(pid, "voluntary_ctxt_switches")) >= before + count; };
    EXPECT_TRUE(wait_until(enough)) << "it takes no samples";
}

TEST_F(PanelShotTest, watch_sees_a_panned_screen_and_ends_early_when_interrupted)
{
    const Started program = start_panel({"--size", "8x8", "--virtual-height", "16"}, {"draw", "/dev/fb0", "1", "wait"});
    const Started watching = start(pfbpanel({"watch", "--seconds", "100000", "--rate", "1000"}));
    ASSERT_TRUE(wait_until([&] { return catches_interrupt(watching.pid); })) << read_file(watching.err_file);
    wait_for_samples(watching.pid, 5);
    run(pfbpanel({"run", "--", probe, "put", "/dev/fb0", std::to_string(FBIOPAN_DISPLAY), "8"}));
    wait_for_samples(watching.pid, 5);
    EXPECT_EQ(parse_watch(end(watching, SIGINT)).changed, 1u);
    stop(program);
}

} // namespace
