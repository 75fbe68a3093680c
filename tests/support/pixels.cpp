// SPDX-License-Identifier: MIT
#include "pixels.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>

namespace {

int pixel_bytes(PixelFormat format)
{
    return format == PixelFormat::RGB565 ? 2 : 4;
}

// A word of the format with the 8-bit channels r, g, b. Bits that a reader must not look at come from `noise`.
uint32_t pack(PixelFormat format, uint32_t r, uint32_t g, uint32_t b, uint32_t noise)
{
    switch (format) {
    case PixelFormat::RGB565:
        return (r >> 3) << 11 | (g >> 2) << 5 | b >> 3;
    case PixelFormat::RGB666:
        return (r >> 2) << 12 | (g >> 2) << 6 | b >> 2;
    case PixelFormat::XRGB:
        return noise << 24 | r << 16 | g << 8 | b;
    case PixelFormat::ARGB:
        break;
    }
    return 0xFF000000 | r << 16 | g << 8 | b;
}

uint32_t premultiplied(uint32_t word)
{
    const uint32_t a = word >> 24;
    const uint32_t r = (word >> 16 & 0xFF) * a / 255;
    const uint32_t g = (word >> 8 & 0xFF) * a / 255;
    const uint32_t b = (word & 0xFF) * a / 255;
    return a << 24 | r << 16 | g << 8 | b;
}

} // namespace

void Pixels::set(int x, int y, uint32_t word)
{
    uint8_t *at = bytes.data() + static_cast<ptrdiff_t>(y) * stride + x * pixel_bytes(format);
    if (format == PixelFormat::RGB565) {
        const uint16_t half = static_cast<uint16_t>(word);
        memcpy(at, &half, sizeof half);
    } else {
        memcpy(at, &word, sizeof word);
    }
}

uint32_t Pixels::at(int x, int y) const
{
    const uint8_t *from = bytes.data() + static_cast<ptrdiff_t>(y) * stride + x * pixel_bytes(format);
    if (format == PixelFormat::RGB565) {
        uint16_t half;
        memcpy(&half, from, sizeof half);
        return half;
    }
    uint32_t word;
    memcpy(&word, from, sizeof word);
    return word;
}

Pixels pixels_new(PixelFormat format, int width, int height, int padding)
{
    const int stride = width * pixel_bytes(format) + padding;
    return Pixels{format, width, height, stride, std::vector<uint8_t>(static_cast<size_t>(stride * height), 0)};
}

Pixels pixels_photograph(PixelFormat format, int width, int height, uint32_t seed, int padding)
{
    Pixels pixels = pixels_new(format, width, height, padding);
    std::mt19937 random(seed);
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++) {
            const uint32_t noise = static_cast<uint32_t>(random());
            const auto shade = [&](int value, uint32_t grain) {
                return static_cast<uint32_t>(std::clamp(value + static_cast<int>(grain % 17) - 8, 0, 255));
            };
            const uint32_t r = shade(255 * x / width, noise & 0xFF);
            const uint32_t g = shade(255 * y / height, noise >> 8 & 0xFF);
            const uint32_t b = shade(255 * (x + height - y) / (width + height), noise >> 16 & 0xFF);
            pixels.set(x, y, pack(format, r, g, b, noise >> 24));
        }
    }
    return pixels;
}

Pixels pixels_random(PixelFormat format, int width, int height, uint32_t seed, int padding)
{
    Pixels pixels = pixels_new(format, width, height, padding);
    std::mt19937 random(seed);
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++) {
            uint32_t word = static_cast<uint32_t>(random());
            if (format == PixelFormat::ARGB)
                word = premultiplied(word);
            else if (format == PixelFormat::RGB666)
                word &= 0x3FFFF;
            pixels.set(x, y, word);
        }
    }
    return pixels;
}

Pixels pixels_filled(PixelFormat format, int width, int height, uint32_t word)
{
    Pixels pixels = pixels_new(format, width, height);
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++)
            pixels.set(x, y, word);
    }
    return pixels;
}
