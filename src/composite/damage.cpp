// SPDX-License-Identifier: MIT
// What has to be drawn again, and when: damage is only collected here, and at most one idle render is pending. The
// render lock holds it back while clients draw into their shared memory.
#include "composite.h"

#include <glib.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <sys/time.h>

#include "../base/assert.h"
#include "../base/escape.h"
#include "../base/output.h"
#include "../base/wrap.h"
#include "client_limits.h"

namespace {

timeval schedule_time; // when a render was last scheduled; a record for debuggers, nothing reads it back

void add_idle_render(FbServer *fs)
{
    gettimeofday(&schedule_time, nullptr);
    fs->idle_source = g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, fs_render, fs, nullptr);
}

// Origin plus size, saturated: a report of INT_MAX pixels is the whole surface, never nothing.
int32_t end_of(int32_t origin, int32_t size)
{
    const int64_t end = static_cast<int64_t>(origin) + size;
    return static_cast<int32_t>(std::clamp<int64_t>(end, INT32_MIN, INT32_MAX));
}

// So many reports wait at least before they enter the region, and room for so many is kept from pass to pass.
constexpr int32_t BATCH_LEAST = 64;
constexpr int32_t BATCH_KEPT = 256;

bool make_room(ReportBatch *batch, int32_t capacity)
{
    if (batch->n < batch->capacity)
        return true;
    auto *boxes = static_cast<Box *>(realloc(batch->boxes, sizeof(Box) * static_cast<size_t>(capacity)));
    if (boxes == nullptr)
        return false;
    batch->boxes = boxes;
    batch->capacity = capacity;
    return true;
}

// The batch is folded when it is as large as the region, so each report is looked at a few times only.
void batch_report(const FbServer *fs, ImageSurface *surface, const Rect &rect)
{
    ReportBatch *batch = &surface->reports;
    if (batch->n >= std::max(region_num_rects(&surface->dirty_region), BATCH_LEAST))
        fs_fold_reports(fs, surface);
    if (make_room(batch, std::max(2 * batch->capacity, BATCH_LEAST)))
        batch->boxes[batch->n++] = region_box(rect);
    else
        region_union_rect(&surface->dirty_region, &surface->dirty_region, &rect);
}

// As long as all reports are one rectangle, that takes no memory.
void add_report(const FbServer *fs, ImageSurface *surface, const Rect &rect)
{
    if (surface->reports.n > 0 || !region_union_single(&surface->dirty_region, &rect))
        batch_report(fs, surface, rect);
}

// Of an unscaled surface larger than regions can be, a report that reaches beyond them stands for all of it.
bool is_beyond_regions(const ImageSurface *surface, const Rect &rect)
{
    const xc_image *image = surface->img;
    if (surface->scale_state != nullptr || image == nullptr || rect.x1 >= rect.x2 || rect.y1 >= rect.y2)
        return false;
    return (rect.x2 > SHRT_MAX && image->width > SHRT_MAX) || (rect.y2 > SHRT_MAX && image->height > SHRT_MAX);
}

void bound_reports(const FbServer *fs, ImageSurface *surface)
{
    const int most = damage_rects(fs->n_surface);
    if (!region_bound(&surface->dirty_region, most) || surface_has(surface, SURFACE_MANY))
        return;
    surface->flags |= SURFACE_MANY;
    char name[1024]; // the longest name that libmc lets in, with every byte escaped
    out_printf("%s: reports of %s are more than %d rectangles: drawn as one\n", "fs_add_dirty",
               escape_text(surface->name != nullptr ? surface->name : "(null)", name, sizeof name), most);
}

// So many boxes more make the region no larger, for a moment, than twice what it is and a million rectangles: lines may
// cross all its rows of rectangles.
int boxes_at_once(const Region *region)
{
    return std::max(64, (1 << 20) / (region_num_rows(region) + 1024));
}

} // namespace

[[gnu::hot]] void fs_fold_reports(const FbServer *fs, ImageSurface *surface)
{
    ReportBatch *batch = &surface->reports;
    for (int32_t done = 0; done < batch->n;) {
        const int n = std::min(batch->n - done, boxes_at_once(&surface->dirty_region));
        region_add_boxes(&surface->dirty_region, batch->boxes + done, n);
        bound_reports(fs, surface);
        done += n;
    }
    batch->n = 0;
}

[[gnu::hot]] void fs_drop_reports(ImageSurface *surface)
{
    ReportBatch *batch = &surface->reports;
    batch->n = 0;
    if (batch->capacity <= BATCH_KEPT)
        return;
    free(batch->boxes);
    *batch = ReportBatch{};
}

[[gnu::hot]] void fs_schedule_render(FbServer *fs)
{
    if (fs->lock_count == 0 && fs->idle_source == 0)
        add_idle_render(fs);
}

[[gnu::hot]] void fs_add_dirty(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y, int32_t width, int32_t height)
{
    const bool seen_in_part = surface_has(surface, SURFACE_SHOWN) && !surface_has(surface, SURFACE_DIRTY);
    if (!seen_in_part && surface->scale_state == nullptr)
        return;
    if (surface->color_plane != -1)
        return;
    const Rect rect{x, y, end_of(x, width), end_of(y, height)};
    if (is_beyond_regions(surface, rect))
        surface->flags |= SURFACE_DIRTY;
    else
        add_report(fs, surface, rect);
    fs_schedule_render(fs);
}

void fs_damage_surface(FbServer *fs, ImageSurface *surface)
{
    Rect *area = &surface->drawing_area;
    fs_crop_area(fs, area);
    if (area->x2 >= area->x1 && area->y1 < area->y2 && surface->backend != nullptr &&
        surface->backend->damage_region != nullptr) {
        fs_schedule_render(fs);
        region_union_rect(surface->backend->damage_region, surface->backend->damage_region, area);
        region_bound(surface->backend->damage_region, SINGLE_RECTS);
    }
    fs_schedule_render(fs);
}

void fs_lock_render(FbServer *fs)
{
    if (fs->idle_source != 0) {
        g_source_remove(fs->idle_source);
        fs->idle_source = 0;
    }
    fs->lock_count = wrap_add(fs->lock_count, 1);
}

void fs_unlock_render(FbServer *fs)
{
    if (--fs->lock_count == 0)
        add_idle_render(fs);
}

void fs_set_lock_area(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y, int32_t width, int32_t height)
{
    fs_add_dirty(fs, surface, x, y, width, height);
    if (surface->lock_counter == 0)
        fs_lock_render(fs);
    surface->lock_counter = wrap_add(surface->lock_counter, 1);
}

void fs_set_unlock(FbServer *fs, ImageSurface *surface)
{
    surface->lock_counter--;
    if (surface_has(surface, SURFACE_BLOCK)) {
        surface->lock_counter--;
        surface->flags &= ~SURFACE_BLOCK;
    }
    fs_assert(surface->lock_counter >= 0);
    if (surface->lock_counter == 0)
        fs_unlock_render(fs);
}

void fs_block_until_unlock(FbServer *fs, ImageSurface *surface)
{
    if (surface_has(surface, SURFACE_BLOCK))
        return;
    surface->flags |= SURFACE_BLOCK;
    fs_set_lock_area(fs, surface, 0, 0, 0, 0);
}

void fs_set_sync([[maybe_unused]] FbServer *fs, ImageSurface *surface, int32_t on)
{
    const bool wanted = on != 0;
    if (wanted == surface_has(surface, SURFACE_SYNC))
        return;
    surface->flags ^= SURFACE_SYNC;
    if (surface_has(surface, SURFACE_SHOWN) && surface->backend != nullptr)
        surface->backend->sync_count += wanted ? 1 : -1;
}
