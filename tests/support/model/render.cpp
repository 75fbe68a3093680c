// SPDX-License-Identifier: MIT
// One pass: collect the damage, share it out from the top of the stack down, clear, draw from the bottom up, present.
#include "model.h"

#include <cstdio>
#include <cstring>

namespace model {

namespace {

const char *output_name(int which)
{
    return which == SECOND ? "fb2" : "fb";
}

// The opaque area where it covers the screen.
Region opaque_on_screen(const Surface &s)
{
    return region_intersection(region_moved(s.opaque, s.area.x1, s.area.y1), region_of(s.drawing_area));
}

void collect(Model &m, Surface &s)
{
    if (s.scale && (s.dirty || !s.dirty_region.empty()))
        refresh_scaled(m, s);
    Region damage;
    if (s.dirty) {
        Rect whole = s.drawing_area;
        check_rect(whole);
        clamp_to_screen(m, whole);
        damage = region_of(whole);
    } else {
        damage = region_intersection(region_moved(s.dirty_region, s.area.x1, s.area.y1), region_of(s.drawing_area));
    }
    if (has_screen(s))
        m.outputs[s.output].damage = region_union(m.outputs[s.output].damage, damage);
    s.dirty = false;
    s.dirty_region.clear();
}

// Gives every surface its part of the damage. Returns how many have one; `last` is the lowest of them.
int assign(Model &m, Surface *&last)
{
    int count = 0;
    for (size_t i = m.surfaces.size(); i-- > 0;) {
        Surface &s = m.surfaces[i];
        if (!takes_part(m, s) || !has_screen(s))
            continue;
        Output &o = m.outputs[s.output];
        s.draw = region_intersection(o.damage, region_of(s.drawing_area));
        if (s.draw.empty())
            continue;
        o.clear = region_union(o.clear, output_has_alpha(m, s) ? o.damage : s.draw);
        count++;
        last = &s;
        o.damage = region_difference(o.damage, opaque_on_screen(s));
    }
    return count;
}

void require_on_screen(const Model &m, const Rect &box, const char *function)
{
    require(box.x1 >= 0, "box->x1 >= 0", function);
    require(box.y1 >= 0, "box->y1 >= 0", function);
    require(box.x2 <= m.w, "box->x2 <= fs->w", function);
    require(box.y2 <= m.h, "box->y2 <= fs->h", function);
}

// Zeroes the areas to be redrawn, in the work image of every output with alpha, 4 bytes to a pixel whatever its depth.
bool clear_outputs(Model &m)
{
    bool cleared = false;
    for (int which : m.in_use) {
        Output &o = m.outputs[which];
        if (!o.has_images || !o.frame.alpha || o.clear.empty())
            continue;
        for (const Rect &box : o.clear) {
            require_on_screen(m, box, "fs_render");
            for (int64_t y = box.y1; m.with_pixels && y < box.y2; y++) {
                for (int64_t x = box.x1; x < box.x2; x++)
                    image_write(o.work, (y * (o.work.stride / 4) + x) * 4, 4, 0);
            }
        }
        cleared = true;
    }
    return cleared;
}

void log_call(Model &m, int which, const std::string &what)
{
    m.calls.push_back(std::string(output_name(which)) + " " + what);
}

void present(Model &m, int which)
{
    Output &o = m.outputs[which];
    if (which == SECOND)
        o.work.alpha = o.frame.alpha = false;
    Region left = region_difference(o.clear, o.straight);
    if (!left.empty())
        render_image(m, o.work, o.frame, left, 0, 0, m.rotation);
    if (which == SECOND)
        o.work.alpha = o.frame.alpha = true;
    log_call(m, which, "update " + region_text(o.clear));
    log_call(m, which, "flush");
    o.clear.clear();
    o.damage.clear();
}

void present_all(Model &m)
{
    for (int which : m.in_use) {
        if (!m.outputs[which].clear.empty())
            present(m, which);
    }
}

void draw_alone(Model &m, Surface &s, bool cleared)
{
    Output &o = m.outputs[s.output];
    bool second = s.output == SECOND;
    if (second)
        s.image.alpha = o.work.alpha = false;
    render_image(m, s.image, o.work, s.draw, s.area.x1, s.area.y1, m.rotation);
    if (second)
        s.image.alpha = o.work.alpha = true;
    o.clear = region_union(o.clear, s.draw);
    s.draw.clear();
    if (cleared)
        present_all(m);
    else
        present(m, s.output);
}

uint32_t veiled(uint32_t p, uint32_t strength)
{
    return ((p & 0x00FF00FF) * strength >> 8 & 0x00FF00FF) | ((p & 0x0000FF00) * strength >> 8 & 0x0000FF00);
}

void paint_plane(Model &m, const Surface &s)
{
    Image &work = m.outputs[s.output].work;
    uint32_t c = static_cast<uint32_t>(s.color_plane);
    bool small = work.format == RGB16;
    bool white = (c & 0xFFFFFF) == 0xFFFFFF;
    bool solid = c >> 24 == 0xFF;
    int n = small ? 2 : 4;
    uint32_t fill = small ? (c >> 19 & 31) << 11 | (c >> 10 & 63) << 5 | (c >> 3 & 31) : c;
    bool paints = white ? !small : solid;
    for (const Rect &box : s.draw) {
        for (int64_t y = box.y1; m.with_pixels && paints && y < box.y2; y++) {
            for (int64_t x = box.x1; x < box.x2; x++) {
                int64_t at = (y * (work.stride / n) + x) * n;
                uint32_t p;
                if (image_read(work, at, n, p))
                    image_write(work, at, n, white ? veiled(p, c >> 24) : fill);
            }
        }
    }
    if (!white && !solid)
        m.out += "unsupported color plane\n";
    m.out += small ? "overlay_color_layer\n" : "overlay_color_layer\noverlay_color_layer\n";
}

// What of a direct surface is not covered by shown surfaces above goes straight into the frame.
void draw_straight(Model &m, size_t index)
{
    Surface &s = m.surfaces[index];
    Output &o = m.outputs[s.output];
    Region covered;
    for (size_t i = index + 1; i < m.surfaces.size(); i++) {
        const Surface &above = m.surfaces[i];
        if (above.shown && above.output == s.output)
            covered = region_union(covered, above.draw);
    }
    covered = region_intersection(covered, s.draw);
    Region bare = region_difference(s.draw, covered);
    if (!bare.empty()) {
        render_image(m, s.image, o.frame, bare, s.area.x1, s.area.y1, m.rotation);
        log_call(m, s.output, "update " + region_text(bare));
        o.straight = region_union(o.straight, bare);
    }
    s.draw = covered;
}

// True when the part to draw lies in the opaque rectangle, which is placed with x for both axes.
bool drawn_part_is_opaque(const Surface &s)
{
    if (!s.image.alpha || s.opaque.empty())
        return false;
    const Rect &first = s.opaque[0];
    int64_t x = s.area.x1;
    Rect box = {saturate16(first.x1 + x), saturate16(first.y1 + x), saturate16(first.x2 + x), saturate16(first.y2 + x)};
    return region_inside(s.draw, box);
}

void draw_among_others(Model &m, size_t index)
{
    Surface &s = m.surfaces[index];
    if (!has_screen(s) || (s.shown ? s.draw.empty() : !output_has_alpha(m, s)))
        return;
    Output &o = m.outputs[s.output];
    if (s.direct)
        draw_straight(m, index);
    bool opaque = drawn_part_is_opaque(s);
    if (opaque)
        s.image.alpha = false;
    if (s.color_plane == -1)
        render_image(m, s.image, o.work, s.draw, s.area.x1, s.area.y1, 0);
    else
        paint_plane(m, s);
    if (opaque)
        s.image.alpha = true;
    o.clear = region_union(o.clear, s.draw);
    s.draw.clear();
}

bool any_damage(const Model &m)
{
    for (int which : m.in_use) {
        if (!m.outputs[which].damage.empty())
            return true;
    }
    return false;
}

} // namespace

void render_image(Model &m, const Image &src, Image &dst, const Region &region, int32_t x, int32_t y, int32_t rotation)
{
    if (region.empty()) {
        m.out += "image_render: render region is null\n";
        return;
    }
    Conversion conversion;
    if (!conversion_choose(src, dst, rotation, conversion)) {
        print(m.err, "No render function: src depth: %d dst depth: %d\n", src.depth, dst.depth);
        throw Aborted{"0", "image_render"};
    }
    for (const Rect &box : region) {
        int64_t sx = int64_t{box.x1} - x, sy = int64_t{box.y1} - y;
        int w = box.x2 - box.x1, h = box.y2 - box.y1;
        require(sx >= 0, "box->x1 - x >= 0", "image_render");
        require(sy >= 0, "box->y1 - y >= 0", "image_render");
        require_on_screen(m, box, "image_render");
        if (conversion.chatty) {
            print(m.out, "render_rgb_to_16_90: %d %d %d %d %d %d sstride = %d, dstride = %d\n", static_cast<int>(sx),
                  static_cast<int>(sy), box.x1, box.y1, w, h, static_cast<int>(pitch(src)),
                  static_cast<int>(pitch(dst)));
            print(m.out, "src0 = %c src = %c\n", ANY_ADDRESS, ANY_ADDRESS);
        }
        if (m.with_pixels)
            conversion_run(conversion, src, dst, sx, sy, box.x1, box.y1, w, h, m.native_w);
    }
}

namespace {

// A client's name as the log may have it.
std::string harmless(const std::string &name)
{
    std::string text;
    for (const char c : name) {
        const bool bad = c < ' ' || c > '~' || strchr("\"\\", c) != nullptr;
        char hex[5];
        snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
        text += bad ? std::string(hex) : std::string(1, c);
    }
    return text;
}

void tell_of_short_memory(Model &m)
{
    for (const Surface &s : m.surfaces) {
        const ClientMemory *memory = s.scale ? s.scale->original.shared : s.image.shared;
        if (memory->state != ClientMemory::FOUND_SHORT)
            continue;
        memory->state = ClientMemory::TOLD;
        m.err += "shared memory of " + harmless(s.name) + " is too short: what is missing shows as zero\n";
    }
}

void run_pass(Model &m)
{
    m.pending = false;
    for (size_t i = m.surfaces.size(); i-- > 0;) {
        if (takes_part(m, m.surfaces[i]))
            collect(m, m.surfaces[i]);
    }
    if (!any_damage(m)) {
        m.err += "dirty region is empty!!!!!!!!!!!!!!!!!!!!\n";
        return;
    }
    for (Output &o : m.outputs)
        o.straight.clear();
    Surface *last = nullptr;
    int count = assign(m, last);
    bool cleared = clear_outputs(m);
    if (count == 1) {
        draw_alone(m, *last, cleared);
        return;
    }
    for (size_t i = 0; count > 1 && i < m.surfaces.size(); i++)
        draw_among_others(m, i);
    if (count > 1 || cleared)
        present_all(m);
}

} // namespace

void render(Model &m)
{
    run_pass(m);
    tell_of_short_memory(m);
}

} // namespace model
