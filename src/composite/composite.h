// SPDX-License-Identifier: MIT
// The operations of the surface manager and the compositor. All run on the main loop's thread, between renders.
//
// A surface argument is one that fs_add_surface returned and that has not been removed. "Damages the surface" means
// fs_damage_surface. Requests carry rectangles as origin and size; sums wrap as 32-bit integers unless stated.
#pragma once

#include "records.h"

// ---- server and surfaces (server.cpp, surface.cpp, output.cpp) ----

// width, height: the logical screen in pixels; -1 x -1 takes the device's own size when its backend is opened.
// Null after a message on standard error when there is no memory.
FbServer *fs_new(int32_t width, int32_t height);
// Releases every backend, then everything else. Null is allowed.
void fs_destroy(FbServer *fs);

// Finds, opens on first use, and counts one more user of the backend called `name` ("x", "fb2", anything else: the
// primary framebuffer). Null, after a message on standard error, when the name is null or the output cannot be had;
// the next call tries again.
Backend *fs_add_backend(FbServer *fs, const char *name);
// Releases the backend of that name, whatever its use count. An unknown or null name does nothing.
void fs_remove_backend(FbServer *fs, const char *name);
// Binds surface->backend by the text before the first "." of the surface's name. 1, or -1.
int fs_set_surface_backend(FbServer *fs, ImageSurface *surface);

// A new, hidden surface over `pixels` (stride x height bytes, not owned), above all others of the same or a lower
// level. Turns the display first when `rotation` differs from it. Null without memory. Where only its backend cannot
// be had it is inserted all the same.
ImageSurface *fs_add_surface(FbServer *fs, int32_t x, int32_t y, int32_t width, int32_t height, int32_t stride,
                             int32_t format, int32_t level, int32_t rotation, void *pixels, const char *name);
// Unlinks and frees. Aborts when the surface is in no list, or while a block-until-unlock of it is outstanding.
void fs_remove_surface(FbServer *fs, ImageSurface *surface);

// ---- geometry and stacking (geometry.cpp) ----

void fs_show_surface(FbServer *fs, ImageSurface *surface);
void fs_hide_surface(FbServer *fs, ImageSurface *surface);
void fs_move_surface(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y);
// Never beyond the image's size (ignored); aborts on a size below 1.
void fs_resize_surface(FbServer *fs, ImageSurface *surface, int32_t w, int32_t h);
void fs_set_level_surface(FbServer *fs, ImageSurface *surface, int32_t level);
void fs_set_clip(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y, int32_t width, int32_t height);
// Surface coordinates. Takes effect at the next render that happens for another reason.
void fs_set_opaque_surface(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y, int32_t width, int32_t height);
void fs_set_color_plane(FbServer *fs, ImageSurface *surface, int32_t plane);
// Accepted and ignored.
void fs_set_color_format(FbServer *fs, int32_t format);

// Asserts that rect (screen) is not inverted and clamps it to the screen: x1 and y1 up to 0, x2 and y2 down to the
// screen's size (a negative size counts as 0). The result may be empty or inverted.
void fs_crop_area(const FbServer *fs, Rect *rect);
// drawing_area := area, cropped to the screen and the clip.
void fs_update_drawing_area(const FbServer *fs, ImageSurface *surface);

// ---- damage, render lock, synchronisation (damage.cpp) ----

// Client damage in surface coordinates (of the client's image when scaled).
void fs_add_dirty(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y, int32_t width, int32_t height);
// Brings the reports that still wait into dirty_region; or forgets them, and gives back much room.
void fs_fold_reports(const FbServer *fs, ImageSurface *surface);
void fs_drop_reports(ImageSurface *surface);
// Screen damage of the surface's drawing_area; schedules a render whatever the area.
void fs_damage_surface(FbServer *fs, ImageSurface *surface);
// Adds the idle render unless one is pending or the render lock is held.
void fs_schedule_render(FbServer *fs);
void fs_lock_render(FbServer *fs);
void fs_unlock_render(FbServer *fs);
void fs_set_lock_area(FbServer *fs, ImageSurface *surface, int32_t x, int32_t y, int32_t width, int32_t height);
void fs_set_unlock(FbServer *fs, ImageSurface *surface);
void fs_block_until_unlock(FbServer *fs, ImageSurface *surface);
void fs_set_sync(FbServer *fs, ImageSurface *surface, int32_t on);

// ---- scaling (scale.cpp), rotation (rotation.cpp), status (status.cpp) ----

// Shows the source rectangle (surface) of the client's image in the destination rectangle (screen); equal sizes
// remove the scaling.
void fs_set_scale(FbServer *fs, ImageSurface *surface, int32_t src_x, int32_t src_y, int32_t src_w, int32_t src_h,
                  int32_t dst_x, int32_t dst_y, int32_t dst_w, int32_t dst_h);
// Brings img up to date with orig_img over dirty_region (client's image) and replaces dirty_region by the refreshed
// area in scaled surface coordinates.
void scale_refresh(ImageSurface *surface);
void fs_rotate_display(FbServer *fs, int32_t rot);
// Gives the rotation's render-lock counts back once no shown surface expects another rotation.
void fs_release_rotation(FbServer *fs);
void fs_dump_status(FbServer *fs);

// ---- compositor (render_pass.cpp, render_draw.cpp, color_plane.cpp, image_render.cpp) ----

// One pass; a GLib idle callback (data is the FbServer). Always returns 0, which drops the idle source.
int fs_render(void *data);

// Moves the region (screen) of `src`, whose pixel (0, 0) lies at (x, y) on the screen, into `dst`.
void image_render(FbServer *fs, Backend *backend, xc_image *src, xc_image *dst, const Region *region, int32_t x,
                  int32_t y, int32_t rotation);
// image_render from `src` to `work` and, at (0, 0), from there to `frame`, band by band: what is read again is then
// still in the nearest cache. False, with nothing done, where that pays nothing or could leave other pixels in either.
bool image_render_through(FbServer *fs, xc_image *src, xc_image *work, xc_image *frame, const Region *region, int32_t x,
                          int32_t y, int32_t rotation);
// The most that a band has, counted as words. Tests set their own.
extern int32_t image_band_bytes;
// Paints colour c over the region (screen) of `work`.
void color_plane_paint(xc_image *work, const Region *region, int32_t c);
