// SPDX-License-Identifier: MIT
// The records of the server: plain data, shared by everything that composes or drives a display.
//
// Three coordinate spaces occur:
//   surface  pixels of a client's image, (0, 0) its top left one;
//   screen   the logical screen that surfaces are laid out on, fs->w x fs->h, turned with the display;
//   panel    pixels of the framebuffer memory, native_w x native_h, never turned.
// Every rectangle and region below names its space. Rectangles are corner form, x2 and y2 exclusive.
#pragma once

#include <cstdint>

#include "../region/region.h"
#include "xc.h"

struct display_func;

// ImageSurface.flags
enum : uint32_t {
    SURFACE_DIRECT = 1u << 0, // format 3 or 8: copied to the screen without blending
    SURFACE_SHOWN = 1u << 1,
    SURFACE_DIRTY = 1u << 2, // the whole drawing_area is to be redrawn; partial damage is not collected meanwhile
    SURFACE_SYNC = 1u << 3,  // counts in its backend's sync_count while shown
    SURFACE_BLOCK = 1u << 4, // a block-until-unlock is outstanding; holds one extra count in lock_counter
    SURFACE_MANY = 1u << 5,  // its reports were too many once; there is one line about that
};

// Backend.state
enum : int32_t {
    BACKEND_UNUSED = 0,
    BACKEND_CHOSEN = -1, // not initialised, or its initialisation failed
    BACKEND_READY = 1,
};

// A display output. One static record per kind, counted by the surfaces that use it. The null backend has no name,
// table, images or regions.
struct Backend {
    int32_t state;
    int32_t use_count;               // surfaces bound
    int32_t sync_count;              // shown surfaces with SURFACE_SYNC
    int32_t secondary;               // 1 for the second framebuffer layer
    char *name;                      // owned: "fb", "fb2" or null
    const display_func *displayfunc; // static
    xc_image *frame_img;             // owned; over the mapped memory (panel)
    xc_image *work_img;              // owned; composition in the output's format (screen), rows of width x 4 bytes
    Region *clear_region;            // owned; to be presented at this pass (screen)
    Region *damage_region;           // owned; collected since the last pass (screen)
    Region *direct_region;           // owned; drawn straight into frame_img by the pass that is running (screen)
};

// The record of a scaled surface. Two mappings in 16.16 fixed point:
//   destination = source x scale + offset;  source = origin + destination offset x step.
struct ScaleState {
    xc_image *orig_img; // the client's image, kept while img is the scaled one
    Rect src_rect;      // surface space of orig_img
    Rect dst_rect;      // screen space
    int32_t x_offset;
    int32_t x_scale;
    int32_t y_offset;
    int32_t y_scale;
    int32_t src_x_origin;
    int32_t x_step;
    int32_t src_y_origin;
    int32_t y_step;
};

// Damage reports that wait to enter a region all at once: one by one, n scattered rectangles cost n x n steps.
struct ReportBatch {
    int32_t n;
    int32_t capacity;
    Box *boxes; // owned
};

// What every pass looks at of every surface stands first, together, and what only those need that are drawn next: with
// many surfaces a pass costs what it fetches from memory.
struct ImageSurface {
    uint32_t flags;          // SURFACE_*
    int32_t level;           // higher is nearer the viewer
    Backend *backend;        // not owned; null: none could be had
    ScaleState *scale_state; // owned; null: not scaled
    Rect drawing_area;       // screen: area cropped to the screen and to clip
    Region dirty_region;     // surface: client damage, not yet rendered
    ReportBatch reports;     // surface: belongs to dirty_region, see fs_fold_reports

    Region aux_region;  // screen: what the running pass draws of this surface; empty between passes
    Region opaque_area; // surface: covers what lies below
    Rect area;          // screen
    xc_image *img;      // owned; the client's image, or the scaled one while scale_state is set

    int32_t color_plane; // -1: none
    int32_t rotation;    // the display rotation that the client expects
    int32_t lock_counter;
    Rect *clip; // owned, screen; null: not set
    char *name; // owned
};

struct FbServer {
    ImageSurface **surfaces; // owned, with what it refers to; level ascending, index 0 is the bottom
    int32_t n_surface;
    int32_t surface_capacity;
    int32_t rotation; // degrees
    int32_t w;        // logical screen, pixels; -1 x -1 until the device's size is known
    int32_t h;
    int32_t native_w; // panel
    int32_t native_h;
    int32_t rotation_lock; // render-lock counts held for a rotation
    int32_t lock_count;    // render lock: 0 is unlocked
    uint32_t idle_source;  // the pending idle render, 0: none
    int32_t n_backend;
    Backend **backends; // the array is owned, the records are static; order of first use
};

inline bool surface_has(const ImageSurface *surface, uint32_t flag)
{
    return (surface->flags & flag) != 0;
}
inline bool image_has_alpha(const xc_image *image)
{
    return image != nullptr && (image->flags & XC_IMAGE_ALPHA) != 0;
}
// The image that the client draws into, scaled or not. May be null.
inline xc_image *surface_client_image(const ImageSurface *surface)
{
    return surface->scale_state != nullptr ? surface->scale_state->orig_img : surface->img;
}
