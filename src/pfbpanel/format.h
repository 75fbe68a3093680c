// SPDX-License-Identifier: MIT
// The pixel formats that a panel can have, and how such a framebuffer describes itself.
#pragma once

#include <cstdint>
#include <string>

#include "../panelimage/panel_state.h"

struct PanelFormat {
    const char *name;
    uint32_t bits;  // as bits_per_pixel reports them
    uint32_t bytes; // of memory per pixel
    uint32_t visual;
    fb_bitfield red, green, blue, transparency;
};

// Null for a name that no format has.
const PanelFormat *format_find(const std::string &name);
std::string format_names(); // "a, b, c"

// A framebuffer as the command line asks for it. Pixels and bytes; 0: the default.
struct DeviceWish {
    const PanelFormat *format;
    uint32_t width;
    uint32_t height;
    uint32_t stride;         // width x bytes per pixel
    uint32_t virtual_height; // height
    uint32_t memory;         // stride x virtual height, rounded up to whole pages
};

// Describes the framebuffer that was asked for. An empty string, or what is wrong with the wish.
std::string format_describe(const DeviceWish &wish, const char *id, PanelDevice *device);
