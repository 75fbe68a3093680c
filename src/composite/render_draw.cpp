// SPDX-License-Identifier: MIT
// The last phase of a pass: what each surface was assigned moves into the work image or straight into the frame, and
// the work image into the frame. All regions are in screen coordinates.
#include "render_phases.h"

#include "../backend/backend.h"
#include "../base/wrap.h"

namespace {

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

[[gnu::hot]] void finish(FbServer *fs, Backend *backend)
{
    backend->displayfunc->update(fs, backend->clear_region);
    backend->displayfunc->flush(fs);
    region_make_empty(backend->clear_region);
    region_make_empty(backend->damage_region);
}

// The second layer copies words as they are, alpha included, and counts as having alpha from its first present on.
[[gnu::hot]] void present(FbServer *fs, Backend *backend)
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
    finish(fs, backend);
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
    region_make_empty(&surface->aux_region); // all of it has been in clear_region since it was assigned
}

bool is_same_rectangle(const Region *a, const Region *b)
{
    return a->data == nullptr && b->data == nullptr && a->extents.x1 == b->extents.x1 &&
           a->extents.y1 == b->extents.y1 && a->extents.x2 == b->extents.x2 && a->extents.y2 == b->extents.y2;
}

// draw_alone and present at once, where nothing but the surface's rectangle is to be presented.
bool draw_through(FbServer *fs, ImageSurface *surface)
{
    Backend *backend = surface->backend;
    if (backend->secondary != 0 || !is_same_rectangle(backend->clear_region, &surface->aux_region) ||
        !image_render_through(fs, surface->img, backend->work_img, backend->frame_img, &surface->aux_region,
                              surface->area.x1, surface->area.y1, fs->rotation))
        return false;
    region_make_empty(&surface->aux_region);
    finish(fs, backend);
    return true;
}

// What shown surfaces above the one at `index`, up to `highest`, draw near to it on the same output.
void unite_above(const FbServer *fs, int32_t index, int32_t highest, Region *covered)
{
    const ImageSurface *surface = fs->surfaces[index];
    for (int32_t i = index + 1; i <= highest; i++) {
        const ImageSurface *above = fs->surfaces[i];
        if (surface_has(above, SURFACE_SHOWN) && above->backend == surface->backend &&
            !region_is_empty(&above->aux_region) && !are_apart(above->aux_region.extents, surface->aux_region.extents))
            region_add_i(covered, &above->aux_region);
    }
}

// The uncovered part of a direct surface goes straight into the frame; only the rest is left to the work image.
void draw_direct(FbServer *fs, int32_t index, int32_t highest)
{
    ImageSurface *surface = fs->surfaces[index];
    Backend *backend = surface->backend;
    Region covered;
    Region uncovered;
    region_init(&covered, nullptr);
    region_init(&uncovered, nullptr);
    unite_above(fs, index, highest, &covered);
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

void draw_surface(FbServer *fs, int32_t index, const Drawers &drawers)
{
    ImageSurface *surface = fs->surfaces[index];
    Backend *backend = surface->backend;
    if (surface_has(surface, SURFACE_DIRECT) && drawers.may_go_direct)
        draw_direct(fs, index, drawers.highest);
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
    region_make_empty(&surface->aux_region); // all of it has been in clear_region since it was assigned
}

bool any_alpha_output(const FbServer *fs)
{
    for (int32_t i = 0; i < fs->n_backend; i++) {
        const Backend *backend = backend_at(fs, i);
        if (backend != nullptr && image_has_alpha(backend->frame_img))
            return true;
    }
    return false;
}

// Hidden surfaces on an output with alpha are visited although they draw nothing.
void draw_stack(FbServer *fs, const Drawers &drawers)
{
    const bool all = any_alpha_output(fs);
    const int32_t end = all ? fs->n_surface : drawers.highest + 1;
    for (int32_t i = all ? 0 : drawers.lowest; i < end; i++) {
        const ImageSurface *surface = fs->surfaces[i];
        const bool visited =
            surface_has(surface, SURFACE_SHOWN) ? !region_is_empty(&surface->aux_region) : has_alpha_output(surface);
        if (visited)
            draw_surface(fs, i, drawers);
    }
}

} // namespace

// Damage outside every surface stays with its output for a later pass.
[[gnu::hot]] void pass_draw(FbServer *fs, const Drawers &drawers, bool cleared)
{
    if (drawers.count == 0) {
        if (cleared)
            present_all(fs);
    } else if (drawers.count == 1) {
        ImageSurface *surface = fs->surfaces[drawers.lowest];
        if (!cleared && draw_through(fs, surface))
            return;
        draw_alone(fs, surface);
        if (cleared)
            present_all(fs);
        else
            present(fs, surface->backend);
    } else {
        draw_stack(fs, drawers);
        present_all(fs);
    }
}
