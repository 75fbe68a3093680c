// SPDX-License-Identifier: MIT
#include "picture_file.h"

#include <png.h>

namespace {

png_image png_new()
{
    png_image png = {};
    png.version = PNG_IMAGE_VERSION;
    return png;
}

} // namespace

std::string picture_write(const Picture &picture, const std::string &path)
{
    std::vector<uint8_t> rgb;
    for (uint32_t p : picture.pixels) {
        for (int shift : {16, 8, 0})
            rgb.push_back(static_cast<uint8_t>(p >> shift));
    }
    png_image png = png_new();
    png.width = static_cast<png_uint_32>(picture.width);
    png.height = static_cast<png_uint_32>(picture.height);
    png.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&png, path.c_str(), 0, rgb.data(), 0, nullptr) == 0)
        return path + ": " + png.message;
    return "";
}

std::string picture_read(Picture &picture, const std::string &path)
{
    png_image png = png_new();
    if (png_image_begin_read_from_file(&png, path.c_str()) == 0)
        return path + ": " + png.message;
    png.format = PNG_FORMAT_RGB;
    std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(png));
    if (png_image_finish_read(&png, nullptr, rgb.data(), 0, nullptr) == 0)
        return path + ": " + png.message;
    picture = {static_cast<int>(png.width), static_cast<int>(png.height), {}};
    for (size_t i = 0; i + 2 < rgb.size(); i += 3)
        picture.pixels.push_back(uint32_t{rgb[i]} << 16 | uint32_t{rgb[i + 1]} << 8 | rgb[i + 2]);
    return "";
}
