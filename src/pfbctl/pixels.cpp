// SPDX-License-Identifier: MIT
#include "pixels.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>

namespace {

template <typename Word> Word *row_of(pfb_client *client, int y)
{
    char *first = static_cast<char *>(pfb_pixels(client));
    return reinterpret_cast<Word *>(first + std::ptrdiff_t{y} * pfb_stride(client));
}

template <typename Word> void fill(pfb_client *client, Word word)
{
    for (int y = 0; y < pfb_height(client); y++)
        std::fill_n(row_of<Word>(client, y), pfb_width(client), word);
}

} // namespace

uint32_t pixels_premultiply(uint32_t colour)
{
    const uint32_t alpha = colour >> 24;
    uint32_t product = alpha << 24;
    for (const int shift : {0, 8, 16})
        product |= ((colour >> shift & 0xff) * alpha + 127) / 255 << shift;
    return product;
}

uint32_t pixels_word(enum pfb_format format, uint32_t rgb)
{
    if (format == PFB_FORMAT_RGB16)
        return (rgb >> 8 & 0xf800) | (rgb >> 5 & 0x07e0) | (rgb >> 3 & 0x001f);
    if (format == PFB_FORMAT_RGB18)
        return (rgb >> 6 & 0x3f000) | (rgb >> 4 & 0x00fc0) | (rgb >> 2 & 0x0003f);
    return 0xff000000 | rgb;
}

void pixels_fill(pfb_client *client, enum pfb_format format, uint32_t word)
{
    if (format == PFB_FORMAT_RGB16)
        fill(client, static_cast<uint16_t>(word));
    else
        fill(client, word);
}

uint32_t *pixels_row(pfb_client *client, int y)
{
    return row_of<uint32_t>(client, y);
}
