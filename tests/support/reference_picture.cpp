// SPDX-License-Identifier: MIT
#include "reference_picture.h"

#include <cstring>

namespace {

struct Colour {
    uint32_t red, green, blue, alpha; // 0 to 255
};

bool inside(const Rect &rect, int32_t x, int32_t y)
{
    return x >= rect.x1 && x < rect.x2 && y >= rect.y1 && y < rect.y2;
}

Colour decode(int format, uint32_t word)
{
    switch (format) {
    case 3:
        return {word / 2048 * 8, word / 32 % 64 * 4, word % 32 * 8, 0};
    case 8:
        return {word / 4096 % 64 * 4, word / 64 % 64 * 4, word % 64 * 4, 0};
    default:
        return {word >> 16 & 255, word >> 8 & 255, word & 255, word >> 24};
    }
}

uint32_t encode(int format, Colour c)
{
    switch (format) {
    case 3:
        return c.red / 8 * 2048 + c.green / 4 * 32 + c.blue / 8;
    case 8:
        return c.red / 4 * 4096 + c.green / 4 * 64 + c.blue / 4;
    default:
        return c.alpha * 16777216 + c.red * 65536 + c.green * 256 + c.blue;
    }
}

uint32_t over(uint32_t above, uint32_t alpha, uint32_t below)
{
    const uint32_t through = (below * (255 - alpha) * 2 + 255) / 510; // rounded to the nearest
    return above + through > 255 ? 255 : above + through;
}

Colour blend(Colour above, Colour below)
{
    return {over(above.red, above.alpha, below.red), over(above.green, above.alpha, below.green),
            over(above.blue, above.alpha, below.blue), over(above.alpha, above.alpha, below.alpha)};
}

uint32_t word_at(const xc_image *image, int32_t x, int32_t y)
{
    uint32_t word = 0;
    const int32_t size = image->format == 3 ? 2 : 4;
    memcpy(&word, static_cast<const uint8_t *>(image->pixels) + y * image->stride + x * size,
           static_cast<size_t>(size));
    return word;
}

uint32_t draw(const ImageSurface *surface, int32_t output_format, int32_t x, int32_t y, uint32_t below)
{
    const xc_image *image = surface->img;
    const uint32_t word = word_at(image, x - surface->area.x1, y - surface->area.y1);
    Colour colour = decode(image->format, word);
    const bool onto_words = output_format == 0 || output_format == 1;
    if (onto_words && image->format == 0)
        return encode(output_format, blend(colour, decode(output_format, below)));
    if (onto_words && image->format == 1 && output_format == 0)
        colour.alpha = 255;
    return encode(output_format, colour);
}

} // namespace

uint32_t reference_pixel(std::span<ImageSurface *const> surfaces, int32_t output_format, bool only_shown, int32_t x,
                         int32_t y, uint32_t below)
{
    uint32_t word = below;
    for (const ImageSurface *surface : surfaces) {
        const bool visible = surface_has(surface, SURFACE_SHOWN) || !only_shown;
        const bool unclipped = surface->clip == nullptr || inside(*surface->clip, x, y);
        if (visible && unclipped && inside(surface->area, x, y))
            word = draw(surface, output_format, x, y, word);
    }
    return word;
}

std::string picture_difference(const FbServer *fs, const Backend *backend, const MemoryOutput &output)
{
    std::vector<ImageSurface *> surfaces;
    for (int32_t i = 0; i < fs->n_surface; i++) {
        if (fs->surfaces[i]->backend == backend)
            surfaces.push_back(fs->surfaces[i]);
    }
    const int32_t format = backend->frame_img->format;
    const uint32_t counted = format == 1 ? 0x00FFFFFF : 0xFFFFFFFF; // without alpha the top byte means nothing
    std::string text;
    int differing = 0;
    for (int32_t y = 0; y < fs->h; y++) {
        for (int32_t x = 0; x < fs->w; x++) {
            const uint32_t expected = reference_pixel(surfaces, format, format != 0, x, y, 0) & counted;
            const uint32_t shown = output.pixel(x, y) & counted;
            if (shown == expected || differing++ >= 8)
                continue;
            char line[80];
            snprintf(line, sizeof line, "(%d,%d) shows %08x instead of %08x\n", x, y, shown, expected);
            text += line;
        }
    }
    return differing == 0 ? "" : text + std::to_string(differing) + " pixels differ";
}
