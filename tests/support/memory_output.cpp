// SPDX-License-Identifier: MIT
#include "memory_output.h"

#include <algorithm>
#include <cstring>

MemoryOutput primary_output;
MemoryOutput second_output;

namespace {

uint32_t pixel_bytes(uint32_t depth)
{
    switch (depth) {
    case 8:
        return 1;
    case 16:
        return 2;
    case 24:
        return 3;
    default:
        return 4;
    }
}

void fill_masks(ScreenInfo *info)
{
    const bool is_16 = info->depth == 16;
    const bool is_18 = info->depth == 18;
    info->red_mask = is_16 ? 0xF800 : is_18 ? 0x3F000 : 0xFF0000;
    info->green_mask = is_16 ? 0x07E0 : is_18 ? 0x00FC0 : 0x00FF00;
    info->blue_mask = is_16 ? 0x001F : is_18 ? 0x0003F : 0x0000FF;
}

void *open_output(MemoryOutput &output, ScreenInfo *info, int32_t has_alpha)
{
    output.calls.push_back({OutputCall::INIT, {}});
    output.requested_w = info->width;
    output.requested_h = info->height;
    if (output.refuses)
        return nullptr;
    if (info->width == -1 && info->height == -1) {
        info->width = output.width;
        info->height = output.height;
    }
    info->depth = output.depth;
    fill_masks(info);
    info->alpha_mask = output.alpha_mask;
    info->stride = output.row_bytes();
    info->pixel_unit = info->stride / static_cast<uint32_t>(output.width);
    info->byte_order = output.byte_order;
    info->has_alpha = has_alpha;
    info->memory = output.memory != 0 ? output.memory : info->stride * static_cast<uint32_t>(output.height);
    output.pixels = std::make_unique<GuardedBuffer>(info->memory, GuardedBuffer::AT_END, pixel_gap(info->memory));
    memset(output.pixels->data(), output.content, info->memory);
    return output.pixels->data();
}

void record_update(MemoryOutput &output, const Region *region)
{
    std::vector<Rect> rects;
    for (int i = 0; i < region_num_rects(region); i++) {
        const Box &box = region_rects(region)[i];
        rects.push_back({box.x1, box.y1, box.x2, box.y2});
    }
    output.calls.push_back({OutputCall::UPDATE, rects});
}

void close_output(MemoryOutput &output)
{
    output.calls.push_back({OutputCall::RELEASE, {}});
    output.pixels.reset();
}

} // namespace

const display_func fb_displayfunc = {
    [](FbServer *, ScreenInfo *info) { return open_output(primary_output, info, 0); },
    [](FbServer *, const Region *region) { record_update(primary_output, region); },
    [](FbServer *) {
        primary_output.calls.push_back({OutputCall::FLUSH, {}});
    },
    [](FbServer *) { close_output(primary_output); },
};

const display_func fb2_displayfunc = {
    [](FbServer *, ScreenInfo *info) { return open_output(second_output, info, 1); },
    [](FbServer *, const Region *region) { record_update(second_output, region); },
    [](FbServer *) {
        second_output.calls.push_back({OutputCall::FLUSH, {}});
    },
    [](FbServer *) { close_output(second_output); },
};

int MemoryOutput::count(OutputCall::Kind kind) const
{
    return static_cast<int>(std::count_if(calls.begin(), calls.end(), [&](auto &call) { return call.kind == kind; }));
}

std::vector<std::vector<Rect>> MemoryOutput::updates() const
{
    std::vector<std::vector<Rect>> regions;
    for (const OutputCall &call : calls) {
        if (call.kind == OutputCall::UPDATE)
            regions.push_back(call.region);
    }
    return regions;
}

uint32_t MemoryOutput::pixel(int32_t x, int32_t y) const
{
    const uint32_t size = depth == 16 ? 2 : 4;
    uint32_t word = 0;
    memcpy(&word, pixels->data() + static_cast<size_t>(y) * row_bytes() + static_cast<size_t>(x) * size, size);
    return word;
}

uint32_t MemoryOutput::row_bytes() const
{
    return stride != 0 ? stride : static_cast<uint32_t>(width) * pixel_bytes(depth);
}

void memory_outputs_reset()
{
    primary_output = MemoryOutput();
    second_output = MemoryOutput();
}
