// SPDX-License-Identifier: MIT
#include "picture.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include "message.h"

namespace {

uint32_t load_pixel(const uint8_t *bytes, uint32_t count)
{
    uint32_t pixel = 0;
    for (uint32_t i = 0; i < count; i++)
        pixel |= uint32_t{bytes[i]} << (8 * i);
    return pixel;
}

uint8_t widen(uint32_t value, uint32_t bits)
{
    if (bits == 0)
        return 0;
    if (bits >= 8)
        return static_cast<uint8_t>(value >> (bits - 8));
    uint32_t wide = value << (8 - bits);
    for (uint32_t known = bits; known < 8; known *= 2)
        wide |= wide >> known;
    return static_cast<uint8_t>(wide);
}

uint8_t channel(uint32_t pixel, const fb_bitfield &field)
{
    if (field.offset >= 32 || field.length >= 32)
        return 0;
    return widen(pixel >> field.offset & ((1u << field.length) - 1), field.length);
}

// The two layers' share of a channel: OVER of premultiplied colours, rounded to the nearest. Colours above their alpha,
// which are not premultiplied, stop at white.
uint8_t mix(uint8_t above, uint8_t alpha, uint8_t below)
{
    const uint32_t sum = above + (below * (255u - alpha) + 127) / 255;
    return static_cast<uint8_t>(std::min(sum, 255u));
}

// A file to be filled beside `path`; null after a message.
FILE *open_beside(const std::string &path, std::string *temporary)
{
    *temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary->data());
    if (fd < 0) {
        complain_errno(path.c_str());
        return nullptr;
    }
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    return fdopen(fd, "wb");
}

bool finish(FILE *file, bool written, const std::string &temporary, const std::string &path)
{
    written = fclose(file) == 0 && written;
    if (written && rename(temporary.c_str(), path.c_str()) == 0)
        return true;
    complain_errno(path.c_str());
    unlink(temporary.c_str());
    return false;
}

} // namespace

std::vector<uint8_t> picture_decode(const Screen &screen, const std::vector<uint8_t> &rows, bool alpha)
{
    const uint32_t bytes = screen_pixel_bytes(screen);
    std::vector<uint8_t> pixels;
    pixels.reserve(rows.size() / bytes * 4);
    for (size_t at = 0; at + bytes <= rows.size(); at += bytes) {
        const uint32_t pixel = load_pixel(rows.data() + at, bytes);
        pixels.push_back(channel(pixel, screen.var.red));
        pixels.push_back(channel(pixel, screen.var.green));
        pixels.push_back(channel(pixel, screen.var.blue));
        if (alpha)
            pixels.push_back(screen.var.transp.length > 0 ? channel(pixel, screen.var.transp) : 255);
    }
    return pixels;
}

void picture_lay_over(const Screen &screen_above, const std::vector<uint8_t> &above, const Screen &screen_below,
                      std::vector<uint8_t> *below)
{
    const uint32_t width = std::min(screen_above.var.xres, screen_below.var.xres);
    const uint32_t height = std::min(screen_above.var.yres, screen_below.var.yres);
    for (uint32_t y = 0; y < height; y++) {
        const uint8_t *from = above.data() + size_t{y} * screen_above.var.xres * 4;
        uint8_t *to = below->data() + size_t{y} * screen_below.var.xres * 3;
        for (uint32_t x = 0; x < width; x++, from += 4, to += 3) {
            for (int i = 0; i < 3; i++)
                to[i] = mix(from[i], from[3], to[i]);
        }
    }
}

std::vector<uint8_t> picture_upright(const std::vector<uint8_t> &pixels, PictureSize *size, bool alpha, int rotation)
{
    const size_t bytes = alpha ? 4 : 3;
    const PictureSize from = *size, to = {from.height, from.width};
    std::vector<uint8_t> upright(pixels.size());
    for (uint32_t y = 0; y < to.height; y++) {
        for (uint32_t x = 0; x < to.width; x++) {
            const uint32_t from_x = rotation == 90 ? from.width - 1 - y : y;
            const uint32_t from_y = rotation == 90 ? x : from.height - 1 - x;
            memcpy(&upright[(size_t{y} * to.width + x) * bytes],
                   &pixels[(size_t{from_y} * from.width + from_x) * bytes], bytes);
        }
    }
    *size = to;
    return upright;
}

bool picture_write_png(const std::string &path, const Screen &screen, const std::vector<uint8_t> &pixels, bool alpha)
{
    return picture_write_png_size(path, {screen.var.xres, screen.var.yres}, pixels, alpha);
}

bool picture_write_png_size(const std::string &path, const PictureSize &size, const std::vector<uint8_t> &pixels,
                            bool alpha)
{
    std::string temporary;
    FILE *file = open_beside(path, &temporary);
    if (file == nullptr)
        return false;
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    image.width = size.width;
    image.height = size.height;
    image.format = alpha ? PNG_FORMAT_RGBA : PNG_FORMAT_RGB;
    const bool written = png_image_write_to_stdio(&image, file, 0, pixels.data(), 0, nullptr) != 0;
    return finish(file, written, temporary, path);
}

bool picture_write_raw(const std::string &path, const std::vector<uint8_t> &rows)
{
    std::string temporary;
    FILE *file = open_beside(path, &temporary);
    if (file == nullptr)
        return false;
    const bool written = fwrite(rows.data(), 1, rows.size(), file) == rows.size();
    return finish(file, written, temporary, path);
}
