// SPDX-License-Identifier: MIT
// Where surfaces lie, what is damaged, and who holds rendering back.
#include "model.h"

#include <algorithm>

namespace model {

bool output_has_alpha(const Model &m, const Surface &s)
{
    return has_screen(s) && m.outputs[s.output].has_images && m.outputs[s.output].frame.alpha;
}

bool takes_part(const Model &m, const Surface &s)
{
    return s.shown || output_has_alpha(m, s);
}

void schedule(Model &m)
{
    if (m.lock_count == 0)
        m.pending = true;
}

void check_rect(const Rect &rect)
{
    require(rect.x2 >= rect.x1, "rect->x2 >= rect->x1", "fs_crop_area");
    require(rect.y2 >= rect.y1, "rect->y2 >= rect->y1", "fs_crop_area");
}

void clamp_to_screen(const Model &m, Rect &rect)
{
    rect.x1 = std::max(rect.x1, 0);
    rect.y1 = std::max(rect.y1, 0);
    rect.x2 = std::min(rect.x2, std::max(m.w, 0));
    rect.y2 = std::min(rect.y2, std::max(m.h, 0));
}

void crop_drawing_area(const Model &m, Surface &s)
{
    Rect &d = s.drawing_area;
    d = s.area;
    check_rect(d);
    clamp_to_screen(m, d);
    if (d.x1 >= d.x2 || d.y1 >= d.y2)
        d = {};
    if (!s.clip)
        return;
    d = {std::max(d.x1, s.clip->x1), std::max(d.y1, s.clip->y1), std::min(d.x2, s.clip->x2),
         std::min(d.y2, s.clip->y2)};
    if (d.x2 < d.x1)
        d.x1 = d.x2 = 0;
    if (d.y2 < d.y1)
        d.y1 = d.y2 = 0;
}

void damage_surface(Model &m, Surface &s)
{
    check_rect(s.drawing_area);
    clamp_to_screen(m, s.drawing_area);
    schedule(m);
    if (!has_screen(s))
        return;
    Region &damage = m.outputs[s.output].damage;
    damage = region_union(damage, region_of(s.drawing_area));
}

void add_dirty(Model &m, Surface &s, int32_t x, int32_t y, int32_t w, int32_t h)
{
    bool collects = (s.shown && !s.dirty) || s.scale;
    if (!collects || s.color_plane != -1)
        return;
    int64_t right = int64_t{x} + w, bottom = int64_t{y} + h;
    bool empty = right <= x || bottom <= y;
    bool beyond =
        (right > INT16_MAX && s.image.width > INT16_MAX) || (bottom > INT16_MAX && s.image.height > INT16_MAX);
    if (beyond && !empty && !s.scale)
        s.dirty = true; // a region cannot tell what of so large a surface is meant
    else
        s.dirty_region = region_union(s.dirty_region, region_of(x, y, right, bottom));
    schedule(m);
}

void lock_render(Model &m)
{
    m.pending = false;
    m.lock_count++;
}

void unlock_render(Model &m)
{
    m.lock_count--;
    if (m.lock_count == 0)
        m.pending = true;
}

void set_lock_area(Model &m, Surface &s, int32_t x, int32_t y, int32_t w, int32_t h)
{
    add_dirty(m, s, x, y, w, h);
    if (s.lock_counter == 0)
        lock_render(m);
    s.lock_counter++;
}

void set_unlock(Model &m, Surface &s)
{
    s.lock_counter -= s.block ? 2 : 1;
    s.block = false;
    require(s.lock_counter >= 0, "surface->lock_counter >= 0", "fs_set_unlock");
    if (s.lock_counter == 0)
        unlock_render(m);
}

void block_until_unlock(Model &m, Surface &s)
{
    if (s.block)
        return;
    s.block = true;
    set_lock_area(m, s, 0, 0, 0, 0);
}

namespace {

void count_sync(Model &m, const Surface &s, int by)
{
    if (s.output != NO_OUTPUT)
        m.outputs[s.output].sync_count += by;
}

} // namespace

void set_sync(Model &m, Surface &s, bool on)
{
    if (s.sync == on)
        return;
    s.sync = on;
    if (s.shown)
        count_sync(m, s, on ? 1 : -1);
}

void show(Model &m, Surface &s)
{
    if (s.shown)
        return;
    s.shown = s.dirty = true;
    if (s.sync)
        count_sync(m, s, 1);
    schedule(m);
}

void hide(Model &m, Surface &s)
{
    if (!s.shown)
        return;
    s.shown = false;
    damage_surface(m, s);
    if (s.sync)
        count_sync(m, s, -1);
}

void move(Model &m, Surface &s, int32_t x, int32_t y)
{
    if (x == s.area.x1 && y == s.area.y1)
        return;
    if (s.shown && !s.dirty) {
        damage_surface(m, s);
        s.dirty = true;
    }
    int64_t dx = int64_t{x} - s.area.x1, dy = int64_t{y} - s.area.y1;
    s.area = {x, y, wrap(s.area.x2 + dx), wrap(s.area.y2 + dy)};
    crop_drawing_area(m, s);
}

void resize(Model &m, Surface &s, int32_t w, int32_t h)
{
    if (w > s.image.width || h > s.image.height)
        return;
    if (s.shown) {
        damage_surface(m, s);
        s.dirty = true;
    }
    require(w > 0, "w > 0", "fs_resize_surface");
    require(h > 0, "h > 0", "fs_resize_surface");
    s.area.x2 = wrap(int64_t{s.area.x1} + w);
    s.area.y2 = wrap(int64_t{s.area.y1} + h);
    crop_drawing_area(m, s);
}

void set_clip(Model &m, Surface &s, int32_t x, int32_t y, int32_t w, int32_t h)
{
    Rect clip = {x, y, wrap(int64_t{x} + w), wrap(int64_t{y} + h)};
    if (s.clip && *s.clip == clip)
        return;
    damage_surface(m, s);
    s.clip = clip;
    crop_drawing_area(m, s);
    s.dirty = true;
}

void rotate_display(Model &m, int32_t rotation)
{
    if (rotation != 0 && rotation != 90 && rotation != 180 && rotation != 270) {
        print(m.out, "rot is not valid = %d\n", rotation);
        throw Aborted{"0", "fs_rotate_display"};
    }
    bool swapped = rotation == 90 || rotation == 270;
    m.w = swapped ? m.native_h : m.native_w;
    m.h = swapped ? m.native_w : m.native_h;
    for (int which : m.in_use) {
        Output &o = m.outputs[which];
        o.work.stride = wrap(int64_t{m.w} * 4);
        Rect screen = {0, 0, m.w, m.h};
        check_rect(screen);
        if (m.h > 0)
            schedule(m);
        o.damage = region_of(screen);
        o.clear = region_intersection(o.clear, region_of(screen));
    }
    for (Surface &s : m.surfaces)
        crop_drawing_area(m, s);
    bool any_shown = std::any_of(m.surfaces.begin(), m.surfaces.end(), [](const Surface &s) { return s.shown; });
    if (any_shown) {
        lock_render(m);
        m.rotation_lock++;
    }
    m.rotation = rotation;
}

} // namespace model
