// SPDX-License-Identifier: MIT
#include "ctl_support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <png.h>
#include <unistd.h>

namespace {

// The value of `bits` bits in the upper part of a byte, as a share of 255.
uint32_t widen(uint32_t byte, uint32_t bits)
{
    const uint32_t value = byte >> (8 - bits);
    return bits == 5 ? value * 33 >> 2 : bits == 6 ? value * 65 >> 4 : byte;
}

std::string next_file(const RunningServer &server, const char *what)
{
    static int number;
    return server.folder() + "/" + what + std::to_string(number++);
}

} // namespace

ProgramStart beside(const RunningServer &server, const std::string &program, const Words &words)
{
    ProgramStart start;
    start.words = {program};
    start.words.insert(start.words.end(), words.begin(), words.end());
    start.environment = {{"MC_RUNTIME_DIR", server.folder()},
                         {"XDG_RUNTIME_DIR", server.folder()},
                         {"PFBPANEL_DIR", server.panel_folder()},
                         {"LSAN_OPTIONS", from_build("PFB_TEST_LSAN")},
                         {"LC_ALL", "C.UTF-8"}};
    return start;
}

ProgramResult ctl(const RunningServer &server, const Words &words)
{
    ProgramResult result = program_run(beside(server, from_build("PFB_TEST_CTL"), words));
    result.status = shell_status(result.status);
    EXPECT_EQ(sanitizer_report(result.err), "") << result.err;
    return result;
}

std::string ctl_done(const RunningServer &server, const Words &words)
{
    const ProgramResult result = ctl(server, words);
    EXPECT_EQ(result.status, 0) << testing::PrintToString(words);
    EXPECT_EQ(result.err, "") << testing::PrintToString(words);
    return result.out;
}

Foreground::Foreground(const RunningServer &server, const Words &words)
    : Foreground(beside(server, from_build("PFB_TEST_CTL"), words), next_file(server, "foreground"))
{
}

Foreground::Foreground(ProgramStart start, const std::string &file) : file_(file)
{
    const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    start.out_fd = start.err_fd = fd;
    pid_ = program_start(start);
    close(fd);
}

Foreground::~Foreground()
{
    if (pid_ > 0) {
        EXPECT_EQ(end(SIGTERM), 0) << out();
    }
}

int Foreground::end(int signal_number)
{
    if (signal_number != 0)
        kill(pid_, signal_number);
    const int status = program_wait(pid_);
    pid_ = -1;
    EXPECT_EQ(sanitizer_report(out()), "") << out();
    return shell_status(status);
}

Picture read_png(const std::string &path)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    Picture picture;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        ADD_FAILURE() << path << ": " << image.message;
        return picture;
    }
    EXPECT_EQ(image.format & PNG_FORMAT_FLAG_ALPHA, 0u);
    image.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> bytes(PNG_IMAGE_SIZE(image));
    EXPECT_NE(png_image_finish_read(&image, nullptr, bytes.data(), 0, nullptr), 0) << image.message;
    picture.width = static_cast<int>(image.width);
    picture.height = static_cast<int>(image.height);
    for (size_t at = 0; at < bytes.size(); at += 3)
        picture.pixels.push_back(uint32_t{bytes[at]} << 16 | uint32_t{bytes[at + 1]} << 8 | bytes[at + 2]);
    return picture;
}

void write_png(const std::string &path, int width, int height, const std::vector<uint32_t> &pixels)
{
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = PNG_FORMAT_RGBA;
    std::vector<uint8_t> bytes;
    for (const uint32_t pixel : pixels) {
        for (const int shift : {16, 8, 0, 24})
            bytes.push_back(static_cast<uint8_t>(pixel >> shift));
    }
    ASSERT_NE(png_image_write_to_file(&image, path.c_str(), 0, bytes.data(), 0, nullptr), 0) << image.message;
}

Picture widened(const Picture &picture, int depth)
{
    Picture wide = picture;
    const uint32_t red_blue = depth == 16 ? 5 : depth == 18 ? 6 : 8, green = depth < 24 ? 6 : 8;
    for (uint32_t &pixel : wide.pixels)
        pixel = widen(pixel >> 16 & 255, red_blue) << 16 | widen(pixel >> 8 & 255, green) << 8 |
                widen(pixel & 255, red_blue);
    return wide;
}

Picture shot(const RunningServer &server, const Words &options)
{
    const std::string file = next_file(server, "shot") + ".png";
    Words words = {"shot", file};
    words.insert(words.end(), options.begin(), options.end());
    EXPECT_EQ(ctl_done(server, words), "");
    return read_png(file);
}
