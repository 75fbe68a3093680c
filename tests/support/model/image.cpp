// SPDX-License-Identifier: MIT
#include "image.h"

#include <algorithm>

namespace model {

int depth_of_format(int format)
{
    return format == RGB16 ? 16 : format == RGB18 ? 18 : 32;
}

bool conversion_choose(const Image &src, const Image &dst, int32_t rotation, Conversion &result)
{
    bool plain = rotation == 0 || rotation == 90 || rotation == 270;
    bool turned = rotation == 90;
    int pair = src.depth * 100 + dst.depth;
    switch (pair) {
    case 3232:
    case 3224:
        result = {src.alpha ? Conversion::OVER : dst.alpha ? Conversion::OPAQUE : Conversion::COPY, false, false};
        return true;
    case 3216:
        result = {Conversion::RGB_TO_16, turned, turned};
        return plain;
    case 3218:
        result = {Conversion::RGB_TO_18, false, false};
        return plain;
    case 1632:
        result = {Conversion::P16_TO_32, false, false};
        return true;
    case 1618:
        result = {Conversion::P16_TO_18, false, false};
        return true;
    case 1832:
        result = {Conversion::P18_TO_32, false, false};
        return true;
    case 1816:
        result = {Conversion::P18_TO_16, false, false};
        return true;
    case 1616:
    case 1818:
        result = {Conversion::COPY, turned, false};
        return plain;
    }
    return false;
}

namespace {

// Premultiplied OVER of one byte.
uint32_t over_byte(uint32_t s, uint32_t d, uint32_t alpha)
{
    uint32_t t = d * (255 - alpha) + 128;
    return std::min<uint32_t>(255, s + ((t + (t >> 8)) >> 8));
}

uint32_t over(uint32_t s, uint32_t d)
{
    uint32_t result = 0;
    for (int shift = 0; shift < 32; shift += 8)
        result |= over_byte(s >> shift & 255, d >> shift & 255, s >> 24) << shift;
    return result;
}

uint32_t convert(Conversion::Rule rule, uint32_t p, uint32_t below)
{
    uint32_t r = p >> 16 & 255, g = p >> 8 & 255, b = p & 255;
    switch (rule) {
    case Conversion::COPY:
        return p;
    case Conversion::OPAQUE:
        return p | 0xFF000000u;
    case Conversion::OVER:
        return over(p, below);
    case Conversion::RGB_TO_16:
        return (r >> 3) << 11 | (g >> 2) << 5 | b >> 3;
    case Conversion::RGB_TO_18:
        return (r >> 2) << 12 | (g >> 2) << 6 | b >> 2;
    case Conversion::P16_TO_32:
        return (p & 0xF800) << 8 | (p & 0x07E0) << 5 | (p & 0x001F) << 3;
    case Conversion::P18_TO_32:
        return (p & 0x3F000) << 6 | (p & 0x00FC0) << 4 | (p & 0x0003F) << 2;
    case Conversion::P16_TO_18:
        return (p & 0x07FF) << 1 | (p & 0xF800) << 2;
    case Conversion::P18_TO_16:
        return (p & 0x00FFF) >> 1 | (p & 0x3E000) >> 2;
    }
    return 0;
}

} // namespace

void conversion_run(const Conversion &c, const Image &src, Image &dst, int64_t sx, int64_t sy, int64_t dx, int64_t dy,
                    int64_t w, int64_t h, int64_t native_w)
{
    int sn = pixel_bytes(src), dn = pixel_bytes(dst);
    auto pixel = [&](int64_t i, int64_t j, int64_t to) {
        uint32_t p, below;
        int64_t from = (pitch(src) * (sy + j) + sx + i) * sn;
        // What cannot be written is not looked at either: a look can find a client's memory short.
        if (image_read(dst, to * dn, dn, below) && image_read(src, from, sn, p))
            image_write(dst, to * dn, dn, convert(c.rule, p, below));
    };
    if (c.turned) {
        for (int64_t i = 0; i < w; i++) {
            for (int64_t j = h - 1; j >= 0; j--)
                pixel(i, j, pitch(dst) * (dx + i) + native_w - 1 - dy - j);
        }
        return;
    }
    for (int64_t j = 0; j < h; j++) {
        for (int64_t i = 0; i < w; i++)
            pixel(i, j, pitch(dst) * (dy + j) + dx + i);
    }
}

} // namespace model
