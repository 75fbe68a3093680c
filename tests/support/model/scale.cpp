// SPDX-License-Identifier: MIT
#include "model.h"

#include <algorithm>

namespace model {

namespace {

// -(target size x source origin) / source size, in 16.16.
int32_t fixed_offset(int32_t target_size, int32_t source_origin, int32_t source_size)
{
    double value = -(static_cast<double>(target_size) * source_origin) / source_size * 65536.0;
    return static_cast<int32_t>(std::clamp(value, -2147483648.0, 2147483647.0));
}

int32_t fixed(int64_t value)
{
    return wrap(value * 65536);
}

void set_area(Model &m, Surface &s, const Rect &target)
{
    s.area = target;
    crop_drawing_area(m, s);
}

void remove_scale(Model &m, Surface &s, const Rect &target, int32_t w, int32_t h)
{
    Image original = s.scale->original;
    s.image = original;
    s.area = target;
    if (!original.alpha)
        s.opaque = region_of(0, 0, w, h);
    s.scale.reset();
    damage_surface(m, s);
    crop_drawing_area(m, s);
    s.dirty = true;
}

constexpr int64_t MOST_SCALED_BYTES = 128 << 20;

int64_t scaled_bytes_beside(const Model &m, const Surface &surface)
{
    int64_t bytes = 0;
    for (const Surface &s : m.surfaces) {
        if (s.scale && s.id != surface.id)
            bytes += s.image.extent;
    }
    return bytes;
}

Image scaled_image(const Model &m, const Image &original, int32_t w, int32_t h)
{
    Image image;
    image.width = w;
    image.height = h;
    image.format = original.format;
    image.depth = original.depth;
    image.alpha = original.format == ARGB32;
    image.stride = ((original.depth + 7) >> 3) * w;
    image.extent = int64_t{image.stride} * h;
    image.bytes.assign(m.with_pixels ? static_cast<size_t>(image.extent) : 0, 0);
    return image;
}

} // namespace

void set_scale(Model &m, Surface &s, const int32_t v[8])
{
    int32_t sx = v[0], sy = v[1], sw = v[2], sh = v[3], dx = v[4], dy = v[5], dw = v[6], dh = v[7];
    damage_surface(m, s);
    bool same = sw == dw && sh == dh;
    if (same && !s.scale)
        return;
    const Image &client = s.scale ? s.scale->original : s.image;
    bool positive = sw > 0 && sh > 0 && dw > 0 && dh > 0;
    bool fits = same || int64_t{dw} * dh <= INT32_MAX / ((client.depth + 7) >> 3);
    if (!positive || !fits) {
        print(m.out, "fs_set_scale: invalid size: source %d x %d destination %d x %d\n", sw, sh, dw, dh);
        return;
    }
    if (!same && scaled_bytes_beside(m, s) + int64_t{dw} * dh * ((client.depth + 7) >> 3) > MOST_SCALED_BYTES) {
        print(m.out, "fs_set_scale: too large: destination %d x %d, while all scaled images may have 128 MiB\n", dw,
              dh);
        return;
    }
    Rect target = {dx, dy, wrap(int64_t{dx} + dw), wrap(int64_t{dy} + dh)};
    if (same) {
        remove_scale(m, s, target, dw, dh);
        return;
    }
    if (s.image.width < wrap(int64_t{sx} + sw)) {
        print(m.out,
              "******WARNING: fs_set_scale: surface width is invalid(surface offset x = %d height = %d "
              "surface dimension = %d\n",
              sx, sw, s.image.width);
        return;
    }
    Scale scale;
    scale.original = client;
    s.image = scaled_image(m, scale.original, dw, dh);
    scale.source = {sx, sy, wrap(int64_t{sx} + sw), wrap(int64_t{sy} + sh)};
    scale.target = target;
    scale.x_offset = fixed_offset(dw, sx, sw);
    scale.x_factor = fixed(dw) / sw;
    scale.y_offset = fixed_offset(dh, sy, sh);
    scale.y_factor = fixed(dh) / sh;
    scale.x_start = fixed(sx);
    scale.x_step = fixed(sw) / dw;
    scale.y_start = fixed(sy);
    scale.y_step = fixed(sh) / dh;
    s.scale = scale;
    s.dirty_region = region_of(scale.source);
    if (!scale.original.alpha)
        s.opaque = region_of(0, 0, dw, dh);
    set_area(m, s, target);
}

namespace {

// One row of a rectangle: a running fraction that steps the source pixel when it passes the limit.
void refresh_row(Surface &s, int64_t x1, int64_t x2, int64_t y)
{
    const Scale &k = *s.scale;
    int n = k.original.depth == 32 ? 4 : 2;
    int64_t limit = n == 4 ? 0x10000 : 0xFFFF;
    int64_t source_row = (y * k.y_step + k.y_start) >> 16;
    int64_t start = x1 * k.x_step + k.x_start;
    int64_t source_x = start >> 16;
    int64_t fraction = start & 0xFFFF;
    for (int64_t x = x1; x < x2; x++) {
        uint32_t p;
        if (image_read(k.original, source_row * k.original.stride + source_x * n, n, p))
            image_write(s.image, y * s.image.stride + x * n, n, p);
        for (fraction += k.x_step; fraction > limit; fraction -= 0x10000)
            source_x++;
    }
}

} // namespace

void refresh_scaled(Model &m, Surface &s)
{
    const Scale &k = *s.scale;
    if (s.dirty)
        s.dirty_region = region_union(s.dirty_region, region_of(k.source));
    int64_t w = int64_t{s.area.x2} - s.area.x1, h = int64_t{s.area.y2} - s.area.y1;
    Region refreshed;
    for (const Rect &r : s.dirty_region) {
        int64_t x1 = std::max<int64_t>(0, (int64_t{r.x1} * k.x_factor + k.x_offset) >> 16);
        int64_t y1 = std::max<int64_t>(0, (int64_t{r.y1} * k.y_factor + k.y_offset) >> 16);
        int64_t x2 = std::min(w, (int64_t{r.x2} * k.x_factor + k.x_offset + 0xFFFF) >> 16);
        int64_t y2 = std::min(h, (int64_t{r.y2} * k.y_factor + k.y_offset + 0xFFFF) >> 16);
        refreshed = region_union(refreshed, region_of(x1, y1, x2, y2));
        for (int64_t y = y1; m.with_pixels && y < y2; y++)
            refresh_row(s, x1, x2, y);
    }
    s.dirty_region = refreshed;
}

} // namespace model
