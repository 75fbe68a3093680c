// SPDX-License-Identifier: MIT
// One call turns everything that was damaged since the last one into pixels on every output. Four phases: collect the
// damage, assign to each surface the part that it draws, clear, draw and present. All regions here are in screen
// coordinates unless they say otherwise.
#include "composite.h"

#include <glib.h>

#include <cstring>

#include "../backend/backend.h"
#include "../base/assert.h"
#include "../base/output.h"
#include "../base/wrap.h"
#include "client_memory.h"
#include "extent.h"

namespace {

// The surfaces that draw in this pass.
struct Drawers {
    int32_t count;
    ImageSurface *last; // the one seen last, the lowest
};

Backend *backend_at(const FbServer *fs, int32_t i)
{
    return fs->backends != nullptr ? fs->backends[i] : nullptr;
}

bool has_alpha_output(const ImageSurface *surface)
{
    return surface->backend != nullptr && image_has_alpha(surface->backend->frame_img);
}

// On an output with alpha even hidden surfaces are drawn.
bool takes_part(const ImageSurface *surface)
{
    return surface_has(surface, SURFACE_SHOWN) || has_alpha_output(surface);
}

// Null for a surface whose output shows nothing.
Region *damage_of(const ImageSurface *surface)
{
    return surface->backend != nullptr ? surface->backend->damage_region : nullptr;
}

// ---- collect ----

void collect_whole(const FbServer *fs, ImageSurface *surface, Region *damage)
{
    Rect area = surface->drawing_area;
    fs_crop_area(fs, &area);
    if (damage != nullptr && area.x1 < area.x2 && area.y1 < area.y2)
        region_union_rect(damage, damage, &area);
    surface->flags &= ~SURFACE_DIRTY;
    if (!region_is_empty(&surface->dirty_region))
        region_make_empty(&surface->dirty_region);
}

void collect_parts(ImageSurface *surface, Region *damage)
{
    Region *dirty = &surface->dirty_region;
    if (region_is_empty(dirty))
        return;
    region_translate(dirty, surface->area.x1, surface->area.y1);
    region_intersect_rect(dirty, dirty, &surface->drawing_area);
    if (damage != nullptr)
        region_add_i(damage, dirty);
    region_make_empty(dirty);
}

// What opaque surfaces hide is not taken out here but when it is assigned: all visible damage reaches the outputs.
void collect_surface(const FbServer *fs, ImageSurface *surface)
{
    fs_fold_reports(surface);
    if (surface->scale_state != nullptr) {
        if (surface_has(surface, SURFACE_DIRTY))
            region_union_rect(&surface->dirty_region, &surface->dirty_region, &surface->scale_state->src_rect);
        if (!region_is_empty(&surface->dirty_region))
            scale_refresh(surface);
    }
    if (surface_has(surface, SURFACE_DIRTY))
        collect_whole(fs, surface, damage_of(surface));
    else
        collect_parts(surface, damage_of(surface));
}

bool any_damage(const FbServer *fs)
{
    for (int32_t i = 0; i < fs->n_backend; i++) {
        const Backend *backend = backend_at(fs, i);
        if (backend != nullptr && !region_is_empty(backend->damage_region))
            return true;
    }
    return false;
}

bool collect(const FbServer *fs)
{
    for (int32_t i = fs->n_surface - 1; i >= 0; i--) {
        if (takes_part(fs->surfaces[i]))
            collect_surface(fs, fs->surfaces[i]);
    }
    return any_damage(fs);
}

// ---- assign ----

void subtract_opaque(const ImageSurface *surface, Region *damage)
{
    if (region_is_empty(&surface->opaque_area))
        return;
    Region opaque;
    region_init(&opaque, nullptr);
    region_copy(&opaque, &surface->opaque_area);
    region_translate(&opaque, surface->area.x1, surface->area.y1);
    region_intersect_rect(&opaque, &opaque, &surface->drawing_area);
    region_subtract(damage, damage, &opaque);
    region_uninit(&opaque);
}

// Cheaper than the intersection, and mostly the answer: damage is small, surfaces are many.
bool is_far_from(const Region *damage, const Rect &area)
{
    const Box &extents = damage->extents;
    return area.x1 >= extents.x2 || area.x2 <= extents.x1 || area.y1 >= extents.y2 || area.y2 <= extents.y1;
}

// Top to bottom; surfaces further down never draw what an opaque area above them hides.
Drawers assign(const FbServer *fs)
{
    Drawers drawers{0, nullptr};
    for (int32_t i = fs->n_surface - 1; i >= 0; i--) {
        ImageSurface *surface = fs->surfaces[i];
        Region *damage = damage_of(surface);
        if (damage == nullptr || !takes_part(surface) || is_far_from(damage, surface->drawing_area))
            continue;
        region_intersect_rect(&surface->aux_region, damage, &surface->drawing_area);
        if (region_is_empty(&surface->aux_region))
            continue;
        region_add_i(surface->backend->clear_region, has_alpha_output(surface) ? damage : &surface->aux_region);
        drawers.count++;
        drawers.last = surface;
        subtract_opaque(surface, damage);
    }
    return drawers;
}

// ---- clear ----

void clear_rectangle(xc_image *work, const Box *box)
{
    const PixelGrid grid = converter_grid(work, sizeof(uint32_t));
    for (int32_t y = box->y1; y < box->y2; y++) {
        const int64_t start = grid.offset(box->x1, y);
        const PixelRun run = existing_run(grid, start, grid.size, box->x2 - box->x1);
        memset(static_cast<uint8_t *>(work->pixels) + start + run.first * grid.size, 0,
               static_cast<size_t>(run.count * grid.size));
    }
}

void clear_output(const FbServer *fs, Backend *backend)
{
    const Box *rects = region_rects(backend->clear_region);
    const int n = region_num_rects(backend->clear_region);
    for (int i = 0; i < n; i++) {
        const Box *box = &rects[i];
        fs_assert_in("fs_render", box->x2 > box->x1);
        fs_assert_in("fs_render", box->y2 > box->y1);
        fs_assert_in("fs_render", box->x1 >= 0);
        fs_assert_in("fs_render", box->y1 >= 0);
        fs_assert_in("fs_render", box->x2 <= fs->w);
        fs_assert_in("fs_render", box->y2 <= fs->h);
        if (backend->work_img != nullptr)
            clear_rectangle(backend->work_img, box);
    }
}

// True when something was cleared.
bool clear_outputs(const FbServer *fs)
{
    bool cleared = false;
    for (int32_t i = 0; i < fs->n_backend; i++) {
        Backend *backend = backend_at(fs, i);
        if (backend == nullptr || !image_has_alpha(backend->frame_img) || region_is_empty(backend->clear_region))
            continue;
        clear_output(fs, backend);
        cleared = true;
    }
    return cleared;
}

// ---- present ----

void set_alpha(xc_image *image, bool on)
{
    if (image == nullptr)
        return;
    image->flags = on ? image->flags | XC_IMAGE_ALPHA : image->flags & ~XC_IMAGE_ALPHA;
}

// The work image holds nothing valid where a direct surface went straight into the frame.
void copy_to_frame(FbServer *fs, Backend *backend)
{
    Region *direct = backend->direct_region;
    if (region_is_empty(direct)) {
        image_render(fs, backend, backend->work_img, backend->frame_img, backend->clear_region, 0, 0, fs->rotation);
        return;
    }
    region_subtract(direct, backend->clear_region, direct);
    if (!region_is_empty(direct))
        image_render(fs, backend, backend->work_img, backend->frame_img, direct, 0, 0, fs->rotation);
    region_make_empty(direct);
}

// The second layer copies words as they are, alpha included, and counts as having alpha from its first present on.
void present(FbServer *fs, Backend *backend)
{
    if (backend->secondary != 0) {
        set_alpha(backend->work_img, false);
        set_alpha(backend->frame_img, false);
    }
    copy_to_frame(fs, backend);
    if (backend->secondary != 0) {
        set_alpha(backend->work_img, true);
        set_alpha(backend->frame_img, true);
    }
    backend->displayfunc->update(fs, backend->clear_region);
    backend->displayfunc->flush(fs);
    region_make_empty(backend->clear_region);
    region_make_empty(backend->damage_region);
}

void present_all(FbServer *fs)
{
    for (int32_t i = 0; i < fs->n_backend; i++) {
        Backend *backend = backend_at(fs, i);
        if (backend != nullptr && !region_is_empty(backend->clear_region))
            present(fs, backend);
    }
}

// ---- draw ----

// A surface alone in its pass goes into the work image turned, and without its colour plane. Its client on the second
// layer has stored alpha in every pixel, and finds its image marked so afterwards.
void draw_alone(FbServer *fs, ImageSurface *surface)
{
    Backend *backend = surface->backend;
    if (backend->secondary != 0) {
        set_alpha(surface->img, false);
        set_alpha(backend->work_img, false);
    }
    image_render(fs, backend, surface->img, backend->work_img, &surface->aux_region, surface->area.x1, surface->area.y1,
                 fs->rotation);
    if (backend->secondary != 0) {
        set_alpha(surface->img, true);
        set_alpha(backend->work_img, true);
    }
    region_add_i(backend->clear_region, &surface->aux_region);
    region_make_empty(&surface->aux_region);
}

// What shown surfaces above the one at `index` draw on the same output.
void unite_above(const FbServer *fs, int32_t index, Region *covered)
{
    for (int32_t i = index + 1; i < fs->n_surface; i++) {
        const ImageSurface *above = fs->surfaces[i];
        if (surface_has(above, SURFACE_SHOWN) && above->backend == fs->surfaces[index]->backend &&
            !region_is_empty(&above->aux_region))
            region_add_i(covered, &above->aux_region);
    }
}

// The uncovered part of a direct surface goes straight into the frame; only the rest is left to the work image.
void draw_direct(FbServer *fs, int32_t index)
{
    ImageSurface *surface = fs->surfaces[index];
    Backend *backend = surface->backend;
    Region covered;
    Region uncovered;
    region_init(&covered, nullptr);
    region_init(&uncovered, nullptr);
    unite_above(fs, index, &covered);
    region_intersect(&covered, &covered, &surface->aux_region);
    region_subtract(&uncovered, &surface->aux_region, &covered);
    if (!region_is_empty(&uncovered)) {
        image_render(fs, backend, surface->img, backend->frame_img, &uncovered, surface->area.x1, surface->area.y1,
                     fs->rotation);
        backend->displayfunc->update(fs, &uncovered);
        region_add_i(backend->direct_region, &uncovered);
    }
    region_copy(&surface->aux_region, &covered);
    region_uninit(&covered);
    region_uninit(&uncovered);
}

// True when all that the surface draws lies in the first rectangle that its client declared opaque: it is then copied
// instead of blended. The rectangle is moved down by the surface's x, not its y; clients have tuned their opaque
// areas to which of their pictures that makes fast.
bool is_drawn_opaque(const ImageSurface *surface)
{
    if (!image_has_alpha(surface->img) || region_is_empty(&surface->opaque_area))
        return false;
    const Box *first = region_rects(&surface->opaque_area);
    const int32_t x = surface->area.x1;
    const Box moved = region_box(
        Rect{wrap_add(first->x1, x), wrap_add(first->y1, x), wrap_add(first->x2, x), wrap_add(first->y2, x)});
    return region_contained_in_rectangle(&surface->aux_region, &moved) != 0;
}

void draw_surface(FbServer *fs, int32_t index)
{
    ImageSurface *surface = fs->surfaces[index];
    Backend *backend = surface->backend;
    if (surface_has(surface, SURFACE_DIRECT))
        draw_direct(fs, index);
    const bool copied = is_drawn_opaque(surface);
    if (copied)
        set_alpha(surface->img, false);
    if (surface->color_plane == -1)
        image_render(fs, backend, surface->img, backend->work_img, &surface->aux_region, surface->area.x1,
                     surface->area.y1, 0);
    else
        color_plane_paint(backend->work_img, &surface->aux_region, surface->color_plane);
    if (copied)
        set_alpha(surface->img, true);
    region_add_i(backend->clear_region, &surface->aux_region);
    region_make_empty(&surface->aux_region);
}

void draw_stack(FbServer *fs)
{
    for (int32_t i = 0; i < fs->n_surface; i++) {
        const ImageSurface *surface = fs->surfaces[i];
        const bool visited =
            surface_has(surface, SURFACE_SHOWN) ? !region_is_empty(&surface->aux_region) : has_alpha_output(surface);
        if (visited)
            draw_surface(fs, i);
    }
}

// Damage outside every surface stays with its output for a later pass.
void draw(FbServer *fs, const Drawers &drawers, bool cleared)
{
    if (drawers.count == 0) {
        if (cleared)
            present_all(fs);
    } else if (drawers.count == 1) {
        draw_alone(fs, drawers.last);
        if (cleared)
            present_all(fs);
        else
            present(fs, drawers.last->backend);
    } else {
        draw_stack(fs);
        present_all(fs);
    }
}

// ---- faults ----

void report_truncated(const FbServer *fs)
{
    while (const void *pixels = client_memory_take_truncated()) {
        for (int32_t i = 0; i < fs->n_surface; i++) {
            const ImageSurface *surface = fs->surfaces[i];
            const xc_image *image = surface_client_image(surface);
            if (image != nullptr && image->pixels == pixels)
                err_printf("shared memory of %s is too short: what is missing shows as zero\n",
                           surface->name != nullptr ? surface->name : "(null)");
        }
    }
}

} // namespace

int fs_render(void *data)
{
    auto *fs = static_cast<FbServer *>(data);
    fs->idle_source = 0;
    if (collect(fs)) {
        const Drawers drawers = assign(fs);
        const bool cleared = clear_outputs(fs);
        draw(fs, drawers, cleared);
    } else {
        err_printf("dirty region is empty!!!!!!!!!!!!!!!!!!!!\n");
    }
    report_truncated(fs);
    out_flush();
    return G_SOURCE_REMOVE;
}
