// SPDX-License-Identifier: MIT
// The primary output: the Linux framebuffer. A render writes straight into its mapped memory.
#include "framebuffer.h"

#include <cstring>
#include <linux/kd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../base/assert.h"
#include "../base/output.h"

const char *console_device;
const char *fb_device;

namespace {

int fb_fd = -1;
fb_fix_screeninfo fix;
fb_var_screeninfo var;
uint32_t mapped_bytes;
void *mapped;

// Keeps the kernel's text console from drawing over the picture. It is never switched back: the display stays ours
// when the server is restarted, without text flashing up in between.
void switch_console_to_graphics()
{
    const int fd = console_device != nullptr ? framebuffer_open(console_device, nullptr)
                                             : framebuffer_open("/dev/tty0", "/dev/vc/0");
    if (fd == -1) {
        err_perror("can't open virtual console device");
        fs_assert_in("fb_init", 0);
    }
    ioctl(fd, KDSETMODE, KD_GRAPHICS);
    close(fd);
}

void open_device()
{
    if (fb_fd != -1)
        close(fb_fd); // a release leaves it open
    fb_fd = fb_device != nullptr ? framebuffer_open(fb_device, nullptr) : framebuffer_open("/dev/fb0", "/dev/fb/0");
    if (fb_fd == -1) {
        err_perror("can't open fb device");
        fs_assert_in("fb_init", 0);
    }
}

void *fb_init([[maybe_unused]] FbServer *fs, ScreenInfo *info)
{
    switch_console_to_graphics();
    open_device();
    mapped = nullptr;
    // The mode is read twice: some drivers settle it on the first question.
    if (!framebuffer_read_fixed(fb_fd, &fix) || !framebuffer_read_mode(fb_fd, &var) ||
        !framebuffer_read_mode(fb_fd, &var))
        return nullptr;
    mapped_bytes = fix.smem_len;
    void *pixels = framebuffer_map(fb_fd, mapped_bytes);
    if (pixels == nullptr)
        return nullptr;
    if (info->width == -1 && info->height == -1) {
        info->width = static_cast<int32_t>(var.xres);
        info->height = static_cast<int32_t>(var.yres);
    }
    framebuffer_fill_info(info, fix, var);
    info->has_alpha = 0;
    mapped = pixels; // what the screen showed before stays until something is drawn
    return mapped;
}

[[gnu::hot]] void fb_update([[maybe_unused]] FbServer *fs, [[maybe_unused]] const Region *region) {}

[[gnu::hot]] void fb_flush([[maybe_unused]] FbServer *fs) {}

void fb_release([[maybe_unused]] FbServer *fs)
{
    if (mapped == nullptr)
        return;
    memset(mapped, 0, mapped_bytes);
    if (munmap(mapped, mapped_bytes) < 0)
        err_perror("fb munmap failed");
}

} // namespace

const display_func fb_displayfunc{fb_init, fb_update, fb_flush, fb_release};

int fb_flip(int page)
{
    var.activate = FB_ACTIVATE_VBL;
    var.yoffset = page != 0 ? var.yres : 0;
    return ioctl(fb_fd, FBIOPUT_VSCREENINFO, &var);
}

void fb_sync()
{
    out_puts("fb_sync");
}
