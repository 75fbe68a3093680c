// SPDX-License-Identifier: MIT
#include "format.h"

#include <cstdio>
#include <unistd.h>

namespace {

// Little-endian pixels; bit fields are {offset, length, msb_right}.
constexpr PanelFormat FORMATS[] = {
    {"rgb565", 16, 2, FB_VISUAL_TRUECOLOR, {11, 5, 0}, {5, 6, 0}, {0, 5, 0}, {0, 0, 0}},
    {"bgr565", 16, 2, FB_VISUAL_TRUECOLOR, {0, 5, 0}, {5, 6, 0}, {11, 5, 0}, {0, 0, 0}},
    {"rgb666", 18, 4, FB_VISUAL_TRUECOLOR, {12, 6, 0}, {6, 6, 0}, {0, 6, 0}, {0, 0, 0}},
    {"rgb888", 24, 3, FB_VISUAL_TRUECOLOR, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}, {0, 0, 0}},
    {"xrgb8888", 32, 4, FB_VISUAL_TRUECOLOR, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}, {0, 0, 0}},
    {"argb8888", 32, 4, FB_VISUAL_TRUECOLOR, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}, {24, 8, 0}},
    {"xbgr8888", 32, 4, FB_VISUAL_TRUECOLOR, {0, 8, 0}, {8, 8, 0}, {16, 8, 0}, {0, 0, 0}},
    {"c8", 8, 1, FB_VISUAL_STATIC_PSEUDOCOLOR, {0, 8, 0}, {0, 8, 0}, {0, 8, 0}, {0, 0, 0}},
};

constexpr uint32_t SIZE_MAX_PIXELS = 32767;
constexpr uint64_t MEMORY_MAX = 1u << 30;

uint64_t round_up_to_page(uint64_t bytes)
{
    const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

void describe_mode(const DeviceWish &wish, uint32_t virtual_height, fb_var_screeninfo *var)
{
    const PanelFormat &format = *wish.format;
    *var = {};
    var->xres = var->xres_virtual = wish.width;
    var->yres = wish.height;
    var->yres_virtual = virtual_height;
    var->bits_per_pixel = format.bits;
    var->grayscale = format.bits == 8 ? 1 : 0;
    var->red = format.red;
    var->green = format.green;
    var->blue = format.blue;
    var->transp = format.transparency;
    var->width = var->height = UINT32_MAX; // millimetres: unknown
}

} // namespace

const PanelFormat *format_find(const std::string &name)
{
    for (const PanelFormat &format : FORMATS) {
        if (name == format.name)
            return &format;
    }
    return nullptr;
}

std::string format_names()
{
    std::string names;
    for (const PanelFormat &format : FORMATS)
        names += (names.empty() ? "" : ", ") + std::string(format.name);
    return names;
}

std::string format_describe(const DeviceWish &wish, const char *id, PanelDevice *device)
{
    if (wish.width == 0 || wish.height == 0 || wish.width > SIZE_MAX_PIXELS || wish.height > SIZE_MAX_PIXELS)
        return "the size must be 1x1 to 32767x32767";
    const uint64_t row = uint64_t{wish.width} * wish.format->bytes;
    const uint64_t stride = wish.stride != 0 ? wish.stride : row;
    if (stride < row)
        return "the stride is shorter than a row of " + std::to_string(row) + " bytes";
    const uint32_t virtual_height = wish.virtual_height != 0 ? wish.virtual_height : wish.height;
    if (virtual_height < wish.height)
        return "the virtual height is less than the height";
    if (wish.memory == 0 && stride > MEMORY_MAX / virtual_height)
        return "a panel has at most 1 GiB of memory";
    const uint64_t memory = wish.memory != 0 ? wish.memory : round_up_to_page(stride * virtual_height);
    if (memory > MEMORY_MAX)
        return "a panel has at most 1 GiB of memory";
    *device = {};
    snprintf(device->id, sizeof device->id, "%s", id);
    snprintf(device->format, sizeof device->format, "%s", wish.format->name);
    device->memory = static_cast<uint32_t>(memory);
    device->stride = static_cast<uint32_t>(stride);
    device->visual = wish.format->visual;
    device->pan_step = virtual_height > wish.height ? 1 : 0;
    describe_mode(wish, virtual_height, &device->var);
    return "";
}
