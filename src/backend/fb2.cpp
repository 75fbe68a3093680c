// SPDX-License-Identifier: MIT
// The second layer: a framebuffer with alpha over the primary one, switched on and off through its driver.
#include "fb2.h"

#include <cstring>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../base/assert.h"
#include "../base/output.h"
#include "framebuffer.h"

int32_t fb2_fd = -1;
void *fb2_ptr;
uint32_t fb2_mmap_size;
fb_var_screeninfo fb2_info;
fb_fix_screeninfo fb2_fix;
int32_t width;
int32_t height;

namespace {

constexpr unsigned long LAYER_CONTROL = 0x46FF;
constexpr uint32_t LAYER_APPLY = 3;
constexpr uint32_t LAYER_READ = 4;
constexpr uint32_t LAYER_FLAGS_ON = 0x201C;
constexpr uint32_t LAYER_FLAG_OFF = 0x2000;

// The driver's parameter block, by byte offset: 192 bytes of 32-bit words.
struct LayerControl {
    uint32_t command;    // 0
    uint32_t other1[28]; // 4
    uint32_t flags;      // 116
    uint32_t other2[3];  // 120
    uint32_t word132;
    uint32_t word136;
    uint32_t word140;
    uint32_t other3[10]; // 144
    uint32_t enable;     // 184
    uint32_t other4;     // 188
};
static_assert(sizeof(LayerControl) == 192);
static_assert(offsetof(LayerControl, flags) == 116 && offsetof(LayerControl, word132) == 132 &&
              offsetof(LayerControl, enable) == 184);

void switch_layer_on()
{
    LayerControl block; // the driver reads these six words when it applies a block, and no other
    block.command = LAYER_APPLY;
    block.flags = LAYER_FLAGS_ON;
    block.word132 = 0;
    block.word136 = 2;
    block.word140 = 1;
    block.enable = 1;
    ioctl(fb2_fd, LAYER_CONTROL, &block);
}

void switch_layer_off()
{
    LayerControl block{};
    block.command = LAYER_READ;
    ioctl(fb2_fd, LAYER_CONTROL, &block);
    block.flags |= LAYER_FLAG_OFF;
    block.enable = 0;
    block.command = LAYER_APPLY;
    ioctl(fb2_fd, LAYER_CONTROL, &block);
}

void *qarno_fb2_init([[maybe_unused]] FbServer *fs, ScreenInfo *info)
{
    if (fb2_fd != -1)
        close(fb2_fd); // a release leaves it open
    fb2_fd = framebuffer_open("/dev/fb2", "/dev/fb/2");
    if (fb2_fd == -1) {
        err_perror("can't open fb2 device");
        fs_assert(0);
    }
    fb2_ptr = nullptr;
    if (!framebuffer_read_fixed(fb2_fd, &fb2_fix) || !framebuffer_read_mode(fb2_fd, &fb2_info))
        return nullptr;
    width = static_cast<int32_t>(fb2_info.xres);
    height = static_cast<int32_t>(fb2_info.yres);
    fb2_mmap_size = fb2_fix.smem_len;
    void *pixels = framebuffer_map(fb2_fd, fb2_mmap_size);
    if (pixels == nullptr)
        return nullptr;
    if (info->width == -1 && info->height == -1) {
        info->width = width;
        info->height = height;
    } else {
        width = info->width;
        height = info->height;
    }
    framebuffer_fill_info(info, fb2_fix, fb2_info);
    info->has_alpha = 1;
    fb2_ptr = pixels;
    memset(fb2_ptr, 0, fb2_mmap_size);
    switch_layer_on();
    return fb2_ptr;
}

void fb2_update([[maybe_unused]] FbServer *fs, [[maybe_unused]] const Region *region) {}

void fb2_flush([[maybe_unused]] FbServer *fs) {}

void fb2_release([[maybe_unused]] FbServer *fs)
{
    if (fb2_ptr != nullptr) {
        memset(fb2_ptr, 0, fb2_mmap_size);
        if (munmap(fb2_ptr, fb2_mmap_size) < 0)
            err_perror("fb2 munmap failed");
    }
    switch_layer_off();
}

} // namespace

const display_func fb2_displayfunc{qarno_fb2_init, fb2_update, fb2_flush, fb2_release};
