// SPDX-License-Identifier: MIT
// Where and whether a surface is seen. Nothing is drawn here: what changed is recorded as screen damage or as the
// surface's dirty flag.
#include "composite.h"

#include <algorithm>
#include <cstdlib>

#include "../base/assert.h"
#include "../base/output.h"
#include "../base/wrap.h"
#include "surface_list.h"

void fs_crop_area(const FbServer *fs, Rect *rect)
{
    fs_assert(rect->x2 >= rect->x1);
    fs_assert(rect->y2 >= rect->y1);
    rect->x1 = std::max(rect->x1, 0);
    rect->x2 = std::min(rect->x2, std::max(fs->w, 0)); // a size that is not known yet counts as nothing
    rect->y1 = std::max(rect->y1, 0);
    rect->y2 = std::min(rect->y2, std::max(fs->h, 0));
}

void fs_update_drawing_area(const FbServer *fs, ImageSurface *surface)
{
    Rect *drawing = &surface->drawing_area;
    *drawing = surface->area;
    fs_crop_area(fs, drawing);
    if (drawing->x1 >= drawing->x2 || drawing->y1 >= drawing->y2)
        *drawing = Rect{0, 0, 0, 0};
    if (surface->clip == nullptr)
        return;
    xg_area_cross(surface->clip, drawing, drawing);
    // Axis by axis: the status dump shows where a surface lies whose clip misses it in one direction only.
    if (drawing->x2 < drawing->x1)
        drawing->x1 = drawing->x2 = 0;
    if (drawing->y2 < drawing->y1)
        drawing->y1 = drawing->y2 = 0;
}

void fs_show_surface(FbServer *fs, ImageSurface *surface)
{
    if (surface_has(surface, SURFACE_SHOWN))
        return;
    surface->flags |= SURFACE_SHOWN | SURFACE_DIRTY;
    if (surface_has(surface, SURFACE_SYNC) && surface->backend != nullptr)
        surface->backend->sync_count++;
    fs_schedule_render(fs);
}

void fs_hide_surface(FbServer *fs, ImageSurface *surface)
{
    if (!surface_has(surface, SURFACE_SHOWN))
        return;
    surface->flags &= ~SURFACE_SHOWN;
    fs_damage_surface(fs, surface);
    if (surface_has(surface, SURFACE_SYNC) && surface->backend != nullptr)
        surface->backend->sync_count--;
}

void fs_move_surface(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y)
{
    Rect *area = &surface->area;
    if (x == area->x1 && y == area->y1)
        return;
    if (surface_has(surface, SURFACE_SHOWN) && !surface_has(surface, SURFACE_DIRTY)) {
        fs_damage_surface(fs, surface);
        surface->flags |= SURFACE_DIRTY;
    }
    const int32_t dx = wrap_sub(x, area->x1);
    const int32_t dy = wrap_sub(y, area->y1);
    *area = Rect{wrap_add(area->x1, dx), wrap_add(area->y1, dy), wrap_add(area->x2, dx), wrap_add(area->y2, dy)};
    fs_update_drawing_area(fs, surface);
}

void fs_resize_surface(FbServer *fs, ImageSurface *surface, int32_t w, int32_t h)
{
    if (surface->img == nullptr || w > surface->img->width || h > surface->img->height)
        return;
    if (surface_has(surface, SURFACE_SHOWN)) {
        fs_damage_surface(fs, surface);
        surface->flags |= SURFACE_DIRTY;
    }
    fs_assert(w > 0);
    fs_assert(h > 0);
    surface->area.x2 = wrap_add(surface->area.x1, w);
    surface->area.y2 = wrap_add(surface->area.y1, h);
    fs_update_drawing_area(fs, surface);
}

void fs_set_level_surface(FbServer *fs, ImageSurface *surface, int32_t level)
{
    const int32_t index = surface_list_find(fs, surface);
    if (index == fs->n_surface) {
        out_printf("%s: invalid surface = %p\n", "fs_set_level_surface", static_cast<void *>(surface));
        fs_dump_status(fs);
        return;
    }
    surface_list_take(fs, index);
    surface->level = level;
    surface_list_add(fs, surface);
    fs_damage_surface(fs, surface);
    surface->flags |= SURFACE_DIRTY;
}

void fs_set_clip(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y, int32_t width, int32_t height)
{
    const Rect clip{x, y, wrap_add(x, width), wrap_add(y, height)};
    const Rect *old = surface->clip;
    if (old != nullptr && old->x1 == clip.x1 && old->y1 == clip.y1 && old->x2 == clip.x2 && old->y2 == clip.y2)
        return;
    fs_damage_surface(fs, surface);
    if (surface->clip == nullptr)
        surface->clip = static_cast<Rect *>(malloc(sizeof(Rect)));
    if (surface->clip != nullptr)
        *surface->clip = clip;
    fs_update_drawing_area(fs, surface);
    surface->flags |= SURFACE_DIRTY;
}

void fs_set_opaque_surface([[maybe_unused]] FbServer *fs, ImageSurface *surface, int32_t x, int32_t y, int32_t width,
                           int32_t height)
{
    const Rect rect{x, y, wrap_add(x, width), wrap_add(y, height)};
    region_reset(&surface->opaque_area, &rect);
}

void fs_set_color_plane([[maybe_unused]] FbServer *fs, ImageSurface *surface, int32_t plane)
{
    surface->color_plane = plane;
}

void fs_set_color_format([[maybe_unused]] FbServer *fs, [[maybe_unused]] int32_t format)
{
    // Clients of devices whose panels switch formats send this; a framebuffer keeps its own.
}
