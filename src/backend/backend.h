// SPDX-License-Identifier: MIT
// A display output as the rest of the server sees it: four functions and the description of a screen.
#pragma once

#include "../composite/records.h"

// Filled in by init. Sizes in pixels, strides and memory in bytes.
struct ScreenInfo {
    int32_t width; // in: requested, -1 for none; out: replaced by the device's when both were -1
    int32_t height;
    uint32_t depth; // bits per pixel as the device reports it
    uint32_t red_mask;
    uint32_t green_mask;
    uint32_t blue_mask;
    uint32_t alpha_mask;
    uint32_t pixel_unit; // bytes per pixel: line length / the device's own width
    uint32_t byte_order; // non-zero: most significant byte first
    uint32_t stride;     // bytes per row
    int32_t has_alpha;   // 1: the frame image carries alpha
    uint32_t memory;     // bytes mapped behind the returned address: nothing beyond them may be touched
};

struct display_func {
    // Opens the output and returns its mapped pixel memory, or null after a message.
    void *(*init)(FbServer *fs, ScreenInfo *info);
    // The screen area just rendered; after each render of this output.
    void (*update)(FbServer *fs, const Region *region);
    void (*flush)(FbServer *fs);
    void (*release)(FbServer *fs);
};

extern const display_func fb_displayfunc;  // the primary framebuffer
extern const display_func fb2_displayfunc; // the second layer

// Device paths of the primary framebuffer, set by the command line; null: the usual ones. Not owned.
extern const char *console_device;
extern const char *fb_device;

// Belonging to the primary framebuffer but used by nobody: page flip on a double-height virtual screen, and a marker.
int fb_flip(int page);
void fb_sync();
