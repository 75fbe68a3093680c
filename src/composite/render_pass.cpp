// SPDX-License-Identifier: MIT
// One call turns everything that was damaged since the last one into pixels on every output. Four phases: collect the
// damage, assign to each surface the part that it draws, clear, draw and present. All regions here are in screen
// coordinates unless they say otherwise.
#include "render_phases.h"

#include <glib.h>

#include <algorithm>
#include <cstring>
#include <sys/statvfs.h>

#include "../base/assert.h"
#include "../base/escape.h"
#include "../base/output.h"
#include "client_memory.h"
#include "extent.h"
#include "client_limits.h"

namespace {

// Some region of the last pass could not be had, and what it drew may be wrong.
bool was_short_of_memory;

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

// Few rectangles, as almost always, are not too many for any number of surfaces: that takes no division.
void bound_damage(const FbServer *fs, Region *damage)
{
    if (region_num_rects(damage) > DAMAGE_RECTS_LEAST)
        region_bound(damage, damage_rects(fs->n_surface));
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
        region_move_into(damage, dirty);
    else
        region_make_empty(dirty);
}

// Nothing was reported since the last pass: true of most surfaces in most passes.
bool is_unchanged(const ImageSurface *surface)
{
    return !surface_has(surface, SURFACE_DIRTY) && region_is_empty(&surface->dirty_region) && surface->reports.n == 0;
}

// What opaque surfaces hide is not taken out here but when it is assigned: all visible damage reaches the outputs.
void collect_surface(const FbServer *fs, ImageSurface *surface)
{
    if (surface->reports.n > 0) {
        fs_fold_reports(fs, surface);
        fs_drop_reports(surface);
    }
    if (surface->scale_state != nullptr) {
        if (surface_has(surface, SURFACE_DIRTY))
            region_union_rect(&surface->dirty_region, &surface->dirty_region, &surface->scale_state->src_rect);
        if (!region_is_empty(&surface->dirty_region))
            scale_refresh(surface);
    }
    Region *damage = damage_of(surface);
    if (surface_has(surface, SURFACE_DIRTY))
        collect_whole(fs, surface, damage);
    else
        collect_parts(surface, damage);
    if (damage != nullptr)
        bound_damage(fs, damage);
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

void bound_all_damage(const FbServer *fs)
{
    for (int32_t i = 0; i < fs->n_backend; i++) {
        if (const Backend *backend = backend_at(fs, i))
            bound_damage(fs, backend->damage_region);
    }
}

bool collect(const FbServer *fs)
{
    for (int32_t i = fs->n_surface - 1; i >= 0; i--) {
        ImageSurface *surface = fs->surfaces[i];
        if (!is_unchanged(surface) && takes_part(surface))
            collect_surface(fs, surface);
    }
    bound_all_damage(fs); // what hidden and moved surfaces have left, too
    return any_damage(fs);
}

// ---- assign ----

// True when the opaque rectangle of the surface hides all of the damage; false also where that takes more to find out.
bool hides_all(const ImageSurface *surface, const Region *damage)
{
    if (region_num_rects(&surface->opaque_area) != 1)
        return false;
    const Box *opaque = region_rects(&surface->opaque_area);
    const Rect &seen = surface->drawing_area;
    const int64_t x = surface->area.x1;
    const int64_t y = surface->area.y1;
    const Box &hidden = damage->extents;
    return hidden.x1 >= seen.x1 && hidden.y1 >= seen.y1 && hidden.x2 <= seen.x2 && hidden.y2 <= seen.y2 &&
           hidden.x1 >= opaque->x1 + x && hidden.y1 >= opaque->y1 + y && hidden.x2 <= opaque->x2 + x &&
           hidden.y2 <= opaque->y2 + y;
}

// Where too many rectangles were left nothing is taken out: what is hidden is then drawn, and drawn over.
void subtract_opaque(const FbServer *fs, const ImageSurface *surface, Region *damage)
{
    if (region_is_empty(&surface->opaque_area))
        return;
    if (hides_all(surface, damage)) {
        region_make_empty(damage);
        return;
    }
    Region opaque;
    region_init(&opaque, nullptr);
    region_copy(&opaque, &surface->opaque_area);
    region_translate(&opaque, surface->area.x1, surface->area.y1);
    region_intersect_rect(&opaque, &opaque, &surface->drawing_area);
    region_subtract(&opaque, damage, &opaque);
    if (region_num_rects(&opaque) <= damage_rects(fs->n_surface))
        region_copy(damage, &opaque);
    region_uninit(&opaque);
}

// Cheaper than the intersection, and mostly the answer: damage is small, surfaces are many. Where two clients have
// drawn, what lies between them is far from both.
bool is_far_from(const Region *damage, const Rect &area)
{
    if (are_apart(damage->extents, area))
        return true;
    const int n = region_num_rects(damage);
    if (n == 1)
        return false;
    const Box *box = region_rects(damage);
    const Box *end = box + n;
    while (box < end && box->y1 < area.y2 && are_apart(*box, area)) // they begin further and further down
        box++;
    return box == end || box->y1 >= area.y2;
}

// True when the surface draws something.
bool assign_surface(const FbServer *fs, ImageSurface *surface, Region *damage)
{
    if (region_is_empty(damage) || is_far_from(damage, surface->drawing_area) || !takes_part(surface))
        return false;
    region_intersect_rect(&surface->aux_region, damage, &surface->drawing_area);
    if (region_is_empty(&surface->aux_region))
        return false;
    region_add_i(surface->backend->clear_region, has_alpha_output(surface) ? damage : &surface->aux_region);
    subtract_opaque(fs, surface, damage);
    return true;
}

// Top to bottom; surfaces further down never draw what an opaque area above them hides, and none is looked at when all
// is hidden.
Drawers assign(const FbServer *fs)
{
    Drawers drawers{0, 0, -1, !was_short_of_memory};
    for (int32_t i = fs->n_surface - 1; i >= 0; i--) {
        Region *damage = damage_of(fs->surfaces[i]);
        if (damage == nullptr || !assign_surface(fs, fs->surfaces[i], damage))
            continue;
        drawers.count++;
        drawers.lowest = i;
        drawers.highest = std::max(drawers.highest, i);
        if (region_is_empty(damage) && !any_damage(fs))
            break;
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

// ---- faults ----

// All is drawn once more, in a pass that needs no memory: the damage is one rectangle, and nothing goes
// straight into the frame. Not without end: that pass is the last one.
void start_over(FbServer *fs)
{
    const Rect screen{0, 0, fs->w, fs->h};
    for (int32_t i = 0; i < fs->n_backend; i++) {
        const Backend *backend = backend_at(fs, i);
        if (backend != nullptr && backend->damage_region != nullptr)
            region_reset(backend->damage_region, &screen);
    }
    was_short_of_memory = true;
    fs_schedule_render(fs);
}

// Then a page of a sparse object cannot be had, whoever touches it.
bool shared_memory_is_full()
{
    struct statvfs space {};
    return statvfs("/dev/shm", &space) == 0 && space.f_blocks > 0 && space.f_bavail == 0;
}

void report_short_memory(const FbServer *fs, const void *first)
{
    for (const void *pixels = first; pixels != nullptr; pixels = client_memory_take_short()) {
        const char *fault = shared_memory_is_full() ? "is not all there and /dev/shm is full" : "is too short";
        for (int32_t i = 0; i < fs->n_surface; i++) {
            const ImageSurface *surface = fs->surfaces[i];
            const xc_image *image = surface_client_image(surface);
            if (image == nullptr || image->pixels != pixels)
                continue;
            char name[1024]; // the longest name that libmc lets in, with every byte escaped
            err_printf("shared memory of %s %s: what is missing shows as zero\n",
                       escape_text(surface->name != nullptr ? surface->name : "(null)", name, sizeof name), fault);
        }
    }
}

} // namespace

[[gnu::hot]] int fs_render(void *data)
{
    auto *fs = static_cast<FbServer *>(data);
    fs->idle_source = 0;
    const unsigned failures = region_failures();
    if (collect(fs)) {
        const Drawers drawers = assign(fs);
        const bool cleared = clear_outputs(fs);
        pass_draw(fs, drawers, cleared);
    } else {
        err_printf("dirty region is empty!!!!!!!!!!!!!!!!!!!!\n");
    }
    if (region_failures() != failures && !was_short_of_memory)
        start_over(fs);
    else
        was_short_of_memory = false;
    if (const void *pixels = client_memory_take_short())
        report_short_memory(fs, pixels);
    out_flush();
    return G_SOURCE_REMOVE;
}
