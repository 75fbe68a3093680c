// SPDX-License-Identifier: MIT
#include "mirror.h"

#include <algorithm>
#include <cstring>

#include "../panelimage/message.h"
#include "../panelimage/picture.h"

namespace {

constexpr uint32_t TILE = 32; // pixels, in both directions

bool differs(const Mirror &mirror, const std::vector<uint8_t> &rows, const MirrorRect &tile)
{
    const size_t pixel = screen_pixel_bytes(*mirror.screen), row = screen_row_bytes(*mirror.screen);
    for (uint32_t y = tile.y1; y < tile.y2; y++) {
        const size_t at = y * row + tile.x1 * pixel;
        if (memcmp(&mirror.rows[at], &rows[at], (tile.x2 - tile.x1) * pixel) != 0)
            return true;
    }
    return false;
}

void decode_row(Mirror *mirror, const std::vector<uint8_t> &rows, const MirrorRect &tile, uint32_t y)
{
    const size_t pixel = screen_pixel_bytes(*mirror->screen);
    const uint8_t *from = &rows[y * screen_row_bytes(*mirror->screen) + tile.x1 * pixel];
    const std::vector<uint8_t> part(from, from + (tile.x2 - tile.x1) * pixel);
    const std::vector<uint8_t> rgb = picture_decode(*mirror->screen, part, false);
    uint8_t *to = &mirror->rgbx[(size_t{y} * mirror->width + tile.x1) * 4];
    for (size_t i = 0; i + 2 < rgb.size(); i += 3, to += 4)
        memcpy(to, &rgb[i], 3);
}

} // namespace

void mirror_init(Mirror *mirror, Screen *screen)
{
    *mirror = {screen, screen->var.xres, screen->var.yres, {}, {}};
    mirror->rows.assign(screen_row_bytes(*screen) * mirror->height, 0);
    mirror->rgbx.assign(size_t{mirror->width} * mirror->height * 4, 0);
}

bool mirror_look(Mirror *mirror, const std::function<void(const MirrorRect &)> &changed)
{
    if (!screen_refresh(mirror->screen))
        return false;
    std::vector<uint8_t> rows;
    screen_copy(*mirror->screen, &rows);
    if (rows.size() != mirror->rows.size() || mirror->screen->var.xres != mirror->width) {
        complain("%s has another size now", mirror->screen->title.c_str());
        return false;
    }
    for (uint32_t y = 0; y < mirror->height; y += TILE) {
        for (uint32_t x = 0; x < mirror->width; x += TILE) {
            const MirrorRect tile = {x, y, std::min(x + TILE, mirror->width), std::min(y + TILE, mirror->height)};
            if (!differs(*mirror, rows, tile))
                continue;
            for (uint32_t row = tile.y1; row < tile.y2; row++)
                decode_row(mirror, rows, tile, row);
            changed(tile);
        }
    }
    mirror->rows.swap(rows);
    return true;
}
