// SPDX-License-Identifier: MIT
// Surfaces: made, stacked by level, removed.
#include "composite.h"

#include <cstdlib>
#include <cstring>

#include "../base/assert.h"
#include "../base/output.h"
#include "../base/wrap.h"
#include "client_memory.h"
#include "surface_list.h"

namespace {

xc_image *client_image(int32_t width, int32_t height, int32_t stride, int32_t format, void *pixels)
{
    xc_image *image = xc_image_new_with_data(width, height, pixels, format, 0, 1, stride);
    if (image == nullptr)
        return nullptr;
    image->flags |= XC_IMAGE_SHARED;
    // Exactly what was mapped for the client, which may be less than its rows need.
    const int32_t mapped = wrap_mul(stride, height);
    image->extent = mapped > 0 ? static_cast<size_t>(mapped) : 0;
    return image;
}

} // namespace

void surface_free(ImageSurface *surface)
{
    free(surface->reports.boxes);
    region_uninit(&surface->opaque_area);
    region_uninit(&surface->dirty_region); // aux_region is empty between passes and holds nothing
    if (surface->scale_state != nullptr)
        xc_image_unref(surface->scale_state->orig_img);
    free(surface->scale_state);
    xc_image_unref(surface->img);
    free(surface->clip);
    free(surface->name);
    free(surface);
}

ImageSurface *fs_add_surface(FbServer *fs, int32_t x, int32_t y, int32_t width, int32_t height, int32_t stride,
                             int32_t format, int32_t level, int32_t rotation, void *pixels, const char *name)
{
    auto *surface = static_cast<ImageSurface *>(calloc(1, sizeof(ImageSurface)));
    if (surface == nullptr) {
        err_printf("ImageSurface malloc error\n");
        return nullptr;
    }
    surface->name = name != nullptr ? strdup(name) : nullptr;
    surface->img = client_image(width, height, stride, format, pixels);
    surface->level = level;
    surface->rotation = rotation;
    surface->color_plane = -1;
    surface->area = Rect{x, y, wrap_add(x, width), wrap_add(y, height)};

    // The screen's size depends on the turn, and the drawing area on the screen's size.
    if (rotation != fs->rotation)
        fs_rotate_display(fs, rotation);
    fs_update_drawing_area(fs, surface);

    region_init(&surface->opaque_area, nullptr);
    region_init(&surface->dirty_region, nullptr);
    region_init(&surface->aux_region, nullptr);
    if (format == XC_FORMAT_RGB16 || format == XC_FORMAT_RGB18)
        surface->flags |= SURFACE_DIRECT;
    if (format != XC_FORMAT_ARGB32) {
        const Rect whole{0, 0, width, height};
        region_reset(&surface->opaque_area, &whole);
    }

    fs_set_surface_backend(fs, surface);
    fs_update_drawing_area(fs, surface); // opening the backend may have told the screen's size
    surface_list_add(fs, surface);
    return surface;
}

void fs_remove_surface(FbServer *fs, ImageSurface *surface)
{
    if (surface->lock_counter != 0) {
        // The outstanding requests go as one. With a block-until-unlock among them the unlock below drops two and
        // the assertion in it ends the server: supervisors of such devices rely on the restart.
        if (surface_has(surface, SURFACE_BLOCK))
            surface->lock_counter--;
        surface->lock_counter = 1;
        fs_set_unlock(fs, surface);
    }
    if (surface_has(surface, SURFACE_SYNC))
        fs_set_sync(fs, surface, 0);

    int32_t i = surface_list_find(fs, surface);
    fs_assert(i < fs->n_surface);
    surface_list_take(fs, i);

    Backend *backend = surface->backend;
    if (surface_has(surface, SURFACE_SHOWN)) {
        fs_damage_surface(fs, surface);
        if (backend != nullptr && image_has_alpha(backend->frame_img))
            region_union_rect(backend->clear_region, backend->clear_region, &surface->drawing_area);
    }
    const xc_image *client = surface_client_image(surface);
    void *pixels = client != nullptr ? client->pixels : nullptr;
    surface_free(surface);
    client_memory_retire(pixels);
    if (backend != nullptr && --backend->use_count == 0)
        fs_remove_backend(fs, backend->name);
    fs_release_rotation(fs);
}
