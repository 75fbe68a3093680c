// SPDX-License-Identifier: MIT
#include "outputs.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "../../../src/backend/backend.h"

MemoryOutput memory_outputs[2];
std::vector<std::string> memory_output_calls;

// The devices' paths belong to the outputs that these stand for.
const char *console_device;
const char *fb_device;

namespace {

constexpr uint8_t AROUND = 0xC5;
constexpr size_t WORD = 4; // real devices are mapped at word boundaries at least

const char *const output_names[] = {"fb", "fb2"};

std::string region_text(const Region *region)
{
    std::string text;
    for (int i = 0; i < region_num_rects(region); i++) {
        const Box &box = region_rects(region)[i];
        text += "[" + std::to_string(box.x1) + "," + std::to_string(box.y1) + " " + std::to_string(box.x2) + "," +
                std::to_string(box.y2) + "]";
    }
    return text;
}

template <int which> void *output_init(FbServer *, ScreenInfo *info)
{
    MemoryOutput &output = memory_outputs[which];
    const model::Device &d = output.device;
    memory_output_calls.push_back(std::string(output_names[which]) + " init " + std::to_string(info->width) + " x " +
                                  std::to_string(info->height));
    if (output.broken)
        return nullptr;
    if (info->width == -1 && info->height == -1) {
        info->width = d.width;
        info->height = d.height;
    }
    info->depth = d.depth;
    info->red_mask = d.red;
    info->green_mask = d.green;
    info->blue_mask = d.blue;
    info->alpha_mask = d.alpha;
    info->pixel_unit = d.stride / static_cast<uint32_t>(d.width);
    info->byte_order = 0;
    info->stride = d.stride;
    info->has_alpha = which == model::SECOND;
    info->memory = d.memory;
    if (which == model::SECOND)
        memset(output.memory, 0, d.memory);
    return output.memory;
}

template <int which> void output_update(FbServer *, const Region *region)
{
    memory_output_calls.push_back(std::string(output_names[which]) + " update " + region_text(region));
}

template <int which> void output_flush(FbServer *)
{
    memory_output_calls.push_back(std::string(output_names[which]) + " flush");
}

template <int which> void output_release(FbServer *)
{
    memory_output_calls.push_back(std::string(output_names[which]) + " release");
    memset(memory_outputs[which].memory, 0, memory_outputs[which].device.memory);
}

} // namespace

const display_func fb_displayfunc = {output_init<0>, output_update<0>, output_flush<0>, output_release<0>};
const display_func fb2_displayfunc = {output_init<1>, output_update<1>, output_flush<1>, output_release<1>};

void memory_output_set(int which, const model::Device &device, const uint8_t *contents)
{
    auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t pages = (device.memory + page - 1) / page * page;
    void *mapped = mmap(nullptr, pages + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto *first = static_cast<uint8_t *>(mapped) + page;
    if (mapped == MAP_FAILED || mprotect(first, pages, PROT_READ | PROT_WRITE) != 0) {
        perror("memory output");
        abort();
    }
    MemoryOutput &output = memory_outputs[which];
    output = {device, false, first + pages - (device.memory + WORD - 1) / WORD * WORD, first, first + pages};
    memset(first, AROUND, pages);
    memcpy(output.memory, contents, device.memory);
}

void memory_output_drop(int which)
{
    auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    MemoryOutput &output = memory_outputs[which];
    auto pages = static_cast<size_t>(output.last - output.first);
    munmap(const_cast<uint8_t *>(output.first) - page, pages + 2 * page);
    output = {};
}

bool memory_outputs_unharmed()
{
    for (const MemoryOutput &output : memory_outputs) {
        const uint8_t *end = output.memory + output.device.memory;
        auto untouched = [](uint8_t byte) { return byte == AROUND; };
        if (!std::all_of<const uint8_t *>(output.first, output.memory, untouched) ||
            !std::all_of<const uint8_t *>(end, output.last, untouched))
            return false;
    }
    return true;
}
