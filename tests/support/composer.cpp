// SPDX-License-Identifier: MIT
#include "composer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "picture_file.h"
#include "process.h"

namespace {

pixman_image_t *image_over(pixman_format_code_t format, const Pixels &pixels)
{
    return pixman_image_create_bits_no_clear(format, pixels.width, pixels.height,
                                             reinterpret_cast<uint32_t *>(const_cast<uint8_t *>(pixels.bytes.data())),
                                             pixels.stride);
}

uint32_t widened_666(uint32_t p)
{
    return (p & 0x3F000) << 6 | (p & 0x00FC0) << 4 | (p & 0x0003F) << 2;
}

// pixman's rows start at whole words.
Pixels aligned(const Pixels &pixels)
{
    Pixels copy = pixels_new(pixels.format, pixels.width, pixels.height, pixels.width % 2 * 2);
    for (int y = 0; y < pixels.height; y++) {
        for (int x = 0; x < pixels.width; x++)
            copy.set(x, y, pixels.at(x, y));
    }
    return copy;
}

// pixman repeats a channel's upper bits below it when it widens one; here they are zero.
Pixels widened(const Pixels &pixels)
{
    Pixels wide = pixels_new(PixelFormat::XRGB, pixels.width, pixels.height);
    if (pixels.format == PixelFormat::RGB565) {
        const Pixels rows = aligned(pixels);
        pixman_image_t *from = image_over(PIXMAN_r5g6b5, rows);
        pixman_image_t *to = image_over(PIXMAN_x8r8g8b8, wide);
        pixman_image_composite32(PIXMAN_OP_SRC, from, nullptr, to, 0, 0, 0, 0, 0, 0, pixels.width, pixels.height);
        pixman_image_unref(from);
        pixman_image_unref(to);
    }
    for (int y = 0; y < pixels.height; y++) {
        for (int x = 0; x < pixels.width; x++)
            wide.set(x, y,
                     pixels.format == PixelFormat::RGB565 ? wide.at(x, y) & 0xF8FCF8 : widened_666(pixels.at(x, y)));
    }
    return wide;
}

uint32_t mask_of_depth(int depth)
{
    return depth == 16 ? 0xF8FCF8 : depth == 18 ? 0xFCFCFC : 0xFFFFFF;
}

std::string picture_path(const char *kind)
{
    const ::testing::TestInfo *test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = test != nullptr ? std::string(test->test_suite_name()) + "." + test->name() : "picture";
    std::replace(name.begin(), name.end(), '/', '-');
    const std::string folder = from_build("PFB_TEST_PICTURES");
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    return folder + "/" + name + "-" + kind + ".png";
}

std::string write_picture(const Picture &picture, const char *kind)
{
    const std::string path = picture_path(kind);
    const std::string error = picture_write(picture, path);
    return error.empty() ? path : error;
}

std::string hex(uint32_t word)
{
    char text[16];
    snprintf(text, sizeof text, "%06x", word);
    return text;
}

} // namespace

PictureComposer::PictureComposer(int width, int height, bool alpha)
    : width_(width), height_(height), words_(static_cast<size_t>(width * height), 0),
      canvas_(pixman_image_create_bits_no_clear(alpha ? PIXMAN_a8r8g8b8 : PIXMAN_x8r8g8b8, width, height, words_.data(),
                                                width * 4)),
      clip_{0, 0, width, height}
{
}

PictureComposer::~PictureComposer()
{
    pixman_image_unref(canvas_);
}

void PictureComposer::set_clip(const ComposerRect &clip)
{
    clip_ = {0, 0, width_, height_};
    clip_ = visible(clip);
    pixman_region32_t region;
    pixman_region32_init_rect(&region, clip_.x, clip_.y, static_cast<unsigned>(clip_.width),
                              static_cast<unsigned>(clip_.height));
    pixman_image_set_clip_region32(canvas_, &region);
    pixman_region32_fini(&region);
}

void PictureComposer::clear_clip()
{
    clip_ = {0, 0, width_, height_};
    pixman_image_set_clip_region32(canvas_, nullptr);
}

ComposerRect PictureComposer::visible(const ComposerRect &area) const
{
    const int x1 = std::max(area.x, clip_.x);
    const int y1 = std::max(area.y, clip_.y);
    const int x2 = std::min(area.x + area.width, clip_.x + clip_.width);
    const int y2 = std::min(area.y + area.height, clip_.y + clip_.height);
    return {x1, y1, std::max(0, x2 - x1), std::max(0, y2 - y1)};
}

void PictureComposer::draw(const Pixels &pixels, int x, int y, bool ignore_alpha)
{
    const bool narrow = pixels.format == PixelFormat::RGB565 || pixels.format == PixelFormat::RGB666;
    const Pixels wide = narrow ? widened(pixels) : Pixels{};
    const bool over = pixels.format == PixelFormat::ARGB && !ignore_alpha;
    // Narrow pixels arrive without alpha on a layer, not opaque: their top byte, which is 0, counts as well.
    pixman_image_t *image = image_over(over || narrow ? PIXMAN_a8r8g8b8 : PIXMAN_x8r8g8b8, narrow ? wide : pixels);
    pixman_image_composite32(over ? PIXMAN_OP_OVER : PIXMAN_OP_SRC, image, nullptr, canvas_, 0, 0, 0, 0, x, y,
                             pixels.width, pixels.height);
    pixman_image_unref(image);
}

void PictureComposer::fill(const ComposerRect &area, uint32_t colour)
{
    const auto channel = [colour](int shift) { return static_cast<uint16_t>((colour >> shift & 0xFF) * 0x101); };
    const pixman_color_t wide{channel(16), channel(8), channel(0), 0xFFFF};
    const ComposerRect seen = visible(area);
    const pixman_box32_t box{seen.x, seen.y, seen.x + seen.width, seen.y + seen.height};
    pixman_image_fill_boxes(PIXMAN_OP_SRC, canvas_, &wide, 1, &box);
}

void PictureComposer::veil(const ComposerRect &area, uint32_t strength)
{
    const ComposerRect seen = visible(area);
    for (int y = seen.y; y < seen.y + seen.height; y++) {
        for (int x = seen.x; x < seen.x + seen.width; x++) {
            uint32_t &p = words_[static_cast<size_t>(y * width_ + x)];
            uint32_t dimmed = 0;
            for (int shift : {0, 8, 16})
                dimmed |= ((p >> shift & 0xFF) * strength >> 8) << shift;
            p = dimmed;
        }
    }
}

Picture PictureComposer::picture(int depth) const
{
    Picture picture{width_, height_, words_};
    for (uint32_t &p : picture.pixels)
        p &= mask_of_depth(depth);
    return picture;
}

std::string picture_difference(const Picture &actual, const Picture &expected)
{
    if (actual == expected)
        return "";
    if (actual.width != expected.width || actual.height != expected.height)
        return "the sizes differ";
    Picture difference{actual.width, actual.height, std::vector<uint32_t>(actual.pixels.size(), 0)};
    size_t n = 0;
    size_t first = 0;
    for (size_t i = actual.pixels.size(); i-- > 0;) {
        if (actual.pixels[i] == expected.pixels[i])
            continue;
        difference.pixels[i] = 0xFFFFFF;
        n++;
        first = i;
    }
    const size_t width = static_cast<size_t>(actual.width);
    return std::to_string(n) + " pixels differ, the first at (" + std::to_string(first % width) + ", " +
           std::to_string(first / width) + "): " + hex(actual.pixels[first]) + " instead of " +
           hex(expected.pixels[first]) + "\n" + write_picture(actual, "actual") + "\n" +
           write_picture(expected, "expected") + "\n" + write_picture(difference, "difference");
}

std::string panel_shows(const PanelView &panel, const Picture &expected)
{
    wait_until([&] { return panel.picture() == expected; });
    return picture_difference(panel.picture(), expected);
}
