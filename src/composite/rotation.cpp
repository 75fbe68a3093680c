// SPDX-License-Identifier: MIT
// Turning the display: the logical screen changes its shape, and rendering is held until every shown surface has been
// brought to the new turn by its client.
#include "composite.h"

#include "../base/assert.h"
#include "../base/output.h"
#include "../base/wrap.h"

namespace {

void set_logical_size(FbServer *fs, int32_t rot)
{
    if (rot == 90 || rot == 270) {
        fs->w = fs->native_h;
        fs->h = fs->native_w;
    } else if (rot == 0 || rot == 180) { // 180 has no converter: a 16- or 18-bit output refuses it when it renders
        fs->w = fs->native_w;
        fs->h = fs->native_h;
    } else {
        out_printf("rot is not valid = %d\n", rot);
        fs_assert_in("fs_rotate_display", 0);
    }
}

void turn_backend(FbServer *fs, Backend *backend)
{
    if (backend->work_img != nullptr)
        backend->work_img->stride = wrap_mul(4, fs->w);
    Rect screen{0, 0, fs->w, fs->h};
    fs_crop_area(fs, &screen);
    // What was waiting to be presented may lie outside the new screen.
    region_intersect_rect(backend->clear_region, backend->clear_region, &screen);
    if (fs->h <= 0) {
        region_make_empty(backend->damage_region);
        return;
    }
    fs_schedule_render(fs);
    region_reset(backend->damage_region, &screen);
}

bool any_shown(const FbServer *fs)
{
    for (int32_t i = 0; i < fs->n_surface; i++) {
        if (surface_has(fs->surfaces[i], SURFACE_SHOWN))
            return true;
    }
    return false;
}

bool any_shown_of_another_turn(const FbServer *fs)
{
    for (int32_t i = 0; i < fs->n_surface; i++) {
        if (surface_has(fs->surfaces[i], SURFACE_SHOWN) && fs->surfaces[i]->rotation != fs->rotation)
            return true;
    }
    return false;
}

} // namespace

void fs_rotate_display(FbServer *fs, int32_t rot)
{
    set_logical_size(fs, rot);
    for (int32_t i = 0; fs->backends != nullptr && i < fs->n_backend; i++) {
        if (fs->backends[i] != nullptr)
            turn_backend(fs, fs->backends[i]);
    }
    for (int32_t i = 0; i < fs->n_surface; i++)
        fs_update_drawing_area(fs, fs->surfaces[i]);
    if (any_shown(fs)) {
        fs_lock_render(fs);
        fs->rotation_lock++; // a turn within a turn holds once more; the release gives all of them back
    }
    fs->rotation = rot;
}

void fs_release_rotation(FbServer *fs)
{
    if (fs->rotation_lock == 0 || any_shown_of_another_turn(fs))
        return;
    for (; fs->rotation_lock > 0; fs->rotation_lock--)
        fs_unlock_render(fs);
}
