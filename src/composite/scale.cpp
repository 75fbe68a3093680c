// SPDX-License-Identifier: MIT
// A surface shown stretched or shrunk: the client draws into orig_img, the surface shows img, a scaled copy that the
// render pass brings up to date.
#include "composite.h"

#include <algorithm>
#include <cstdlib>

#include "../base/assert.h"
#include "../base/output.h"
#include "../base/wrap.h"
#include "client_limits.h"

namespace {

constexpr double ONE = 65536.0; // 1.0 in 16.16

struct ScaleRequest {
    int32_t src_x, src_y, src_w, src_h; // client's image
    int32_t dst_x, dst_y, dst_w, dst_h; // screen
};

Rect corners(int32_t x, int32_t y, int32_t w, int32_t h)
{
    return Rect{x, y, wrap_add(x, w), wrap_add(y, h)};
}

int32_t to_int(double value) // truncates; a value that no 32-bit integer can hold becomes the nearest that can
{
    return static_cast<int32_t>(std::clamp(value, static_cast<double>(INT32_MIN), static_cast<double>(INT32_MAX)));
}

int32_t offset(int32_t dst_size, int32_t src_origin, int32_t src_size)
{
    return to_int(-(static_cast<double>(dst_size) * src_origin) / src_size * ONE);
}

void fill_mapping(ScaleState *state, const ScaleRequest &r)
{
    state->src_rect = corners(r.src_x, r.src_y, r.src_w, r.src_h);
    state->dst_rect = corners(r.dst_x, r.dst_y, r.dst_w, r.dst_h);
    state->x_offset = offset(r.dst_w, r.src_x, r.src_w);
    state->x_scale = wrap_shl(r.dst_w, 16) / r.src_w;
    state->y_offset = offset(r.dst_h, r.src_y, r.src_h);
    state->y_scale = wrap_shl(r.dst_h, 16) / r.src_h;
    state->src_x_origin = wrap_shl(r.src_x, 16);
    state->x_step = wrap_shl(r.src_w, 16) / r.dst_w;
    state->src_y_origin = wrap_shl(r.src_y, 16);
    state->y_step = wrap_shl(r.src_h, 16) / r.dst_h;
}

void print_refusal(const ScaleRequest &r)
{
    out_printf("%s: invalid size: source %d x %d destination %d x %d\n", "fs_set_scale", r.src_w, r.src_h, r.dst_w,
               r.dst_h);
}

// Of all images of scaled surfaces but this one's.
uint64_t scaled_bytes_beside(const FbServer *fs, const ImageSurface *surface)
{
    uint64_t bytes = 0;
    for (int32_t i = 0; i < fs->n_surface; i++) {
        if (fs->surfaces[i] != surface && fs->surfaces[i]->scale_state != nullptr)
            bytes += fs->surfaces[i]->img->extent;
    }
    return bytes;
}

// A pass fills all of such an image, whatever of it is on the screen.
bool is_within_limit(const FbServer *fs, const ImageSurface *surface, int64_t row, const ScaleRequest &r)
{
    const uint64_t bytes = static_cast<uint64_t>(row) * static_cast<uint64_t>(r.dst_h);
    if (bytes <= client_limits.scaled_bytes && scaled_bytes_beside(fs, surface) + bytes <= client_limits.scaled_bytes)
        return true;
    out_printf("%s: too large: destination %d x %d, while all scaled images may have %d MiB\n", "fs_set_scale", r.dst_w,
               r.dst_h, static_cast<int32_t>(client_limits.scaled_bytes / MIB));
    return false;
}

xc_image *make_scaled_image(const FbServer *fs, const ImageSurface *surface, const ScaleRequest &r)
{
    const xc_image *orig_img = surface_client_image(surface);
    const int64_t row = orig_img != nullptr ? int64_t{(orig_img->depth + 7) >> 3} * r.dst_w : 0;
    const bool can_be = row > 0 && row <= INT32_MAX && row * r.dst_h <= INT32_MAX;
    if (can_be && !is_within_limit(fs, surface, row, r))
        return nullptr;
    xc_image *scaled =
        can_be ? xc_image_new_with_data(r.dst_w, r.dst_h, nullptr, orig_img->format, 0, 0, static_cast<int32_t>(row))
               : nullptr;
    if (scaled == nullptr)
        print_refusal(r);
    return scaled;
}

bool has_sizes(const ScaleRequest &r)
{
    return r.src_w > 0 && r.src_h > 0 && r.dst_w > 0 && r.dst_h > 0;
}

void remove_scale(FbServer *fs, ImageSurface *surface, const ScaleRequest &r)
{
    ScaleState *state = surface->scale_state;
    xc_image_unref(surface->img);
    surface->img = state->orig_img;
    surface->area = corners(r.dst_x, r.dst_y, r.dst_w, r.dst_h);
    if (!image_has_alpha(surface->img)) {
        const Rect whole{0, 0, r.dst_w, r.dst_h};
        region_make_empty(&surface->opaque_area);
        region_union_rect(&surface->opaque_area, &surface->opaque_area, &whole);
    }
    free(state);
    surface->scale_state = nullptr;
    fs_damage_surface(fs, surface);
    fs_update_drawing_area(fs, surface);
    surface->flags |= SURFACE_DIRTY;
}

void set_scale(FbServer *fs, ImageSurface *surface, const ScaleRequest &r)
{
    xc_image *orig_img = surface_client_image(surface);
    xc_image *scaled = make_scaled_image(fs, surface, r);
    if (scaled == nullptr)
        return;
    // The width that is tested is that of the image shown now: for a surface that is scaled already, its last
    // destination. Heights are not tested.
    if (surface->img->width < wrap_add(r.src_x, r.src_w)) {
        out_printf("******WARNING: %s: surface width is invalid(surface offset x = %d height = %d surface dimension = "
                   "%d\n",
                   "fs_set_scale", r.src_x, r.src_w, surface->img->width);
        xc_image_unref(scaled);
        return;
    }
    if (surface->scale_state == nullptr) {
        auto *state = static_cast<ScaleState *>(calloc(1, sizeof(ScaleState)));
        if (state == nullptr) {
            print_refusal(r);
            xc_image_unref(scaled);
            return;
        }
        state->orig_img = surface->img;
        surface->scale_state = state;
    } else {
        xc_image_unref(surface->img);
    }
    surface->img = scaled;
    fs_assert_in("fs_set_scale", surface->img->depth == orig_img->depth);
    fill_mapping(surface->scale_state, r);
    surface->area = surface->scale_state->dst_rect;
    fs_drop_reports(surface);
    region_reset(&surface->dirty_region, &surface->scale_state->src_rect);
    if (!image_has_alpha(orig_img)) {
        const Rect whole{0, 0, r.dst_w, r.dst_h};
        region_reset(&surface->opaque_area, &whole);
    }
    // Neither dirty nor damaged: the new area is painted when the pass meets the dirty region.
    fs_update_drawing_area(fs, surface);
}

} // namespace

void fs_set_scale(FbServer *fs, ImageSurface *surface, int32_t src_x, int32_t src_y, int32_t src_w, int32_t src_h,
                  int32_t dst_x, int32_t dst_y, int32_t dst_w, int32_t dst_h)
{
    const ScaleRequest r{src_x, src_y, src_w, src_h, dst_x, dst_y, dst_w, dst_h};
    fs_damage_surface(fs, surface);
    const bool removes = src_w == dst_w && src_h == dst_h;
    if (removes && surface->scale_state == nullptr)
        return;
    if (!has_sizes(r))
        print_refusal(r);
    else if (removes)
        remove_scale(fs, surface, r);
    else
        set_scale(fs, surface, r);
}
