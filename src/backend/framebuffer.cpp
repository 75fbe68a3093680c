// SPDX-License-Identifier: MIT
#include "framebuffer.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include "../base/output.h"

namespace {

bool device_ioctl(int fd, unsigned long request, void *argument, const char *name)
{
    if (ioctl(fd, request, argument) >= 0)
        return true;
    err_perror(name);
    return false;
}

uint32_t field_mask(const fb_bitfield &field)
{
    if (field.offset >= 32 || field.length > 32)
        return 0;
    return static_cast<uint32_t>(((uint64_t{1} << field.length) - 1) << field.offset);
}

} // namespace

int framebuffer_open(const char *first, const char *second)
{
    int fd = open(first, O_RDWR | O_CLOEXEC);
    if (fd != -1 || second == nullptr)
        return fd;
    const int reason = errno;
    fd = open(second, O_RDWR | O_CLOEXEC);
    if (fd == -1 && errno == ENOENT)
        errno = reason; // that hardly any system has the other name is not why it failed
    return fd;
}

bool framebuffer_read_fixed(int fd, fb_fix_screeninfo *fix)
{
    *fix = fb_fix_screeninfo{};
    return device_ioctl(fd, FBIOGET_FSCREENINFO, fix, "FBIOGET_FSCREENINFO");
}

bool framebuffer_read_mode(int fd, fb_var_screeninfo *var)
{
    *var = fb_var_screeninfo{};
    if (!device_ioctl(fd, FBIOGET_VSCREENINFO, var, "FBIOGET_VSCREENINFO"))
        return false;
    if (var->xres == 0) { // everything divides by it
        errno = ENODEV;
        err_perror("framebuffer width is 0");
        return false;
    }
    return true;
}

void *framebuffer_map(int fd, uint32_t bytes)
{
    void *pixels = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (pixels != MAP_FAILED)
        return pixels;
    err_perror("mmap");
    return nullptr;
}

void framebuffer_fill_info(ScreenInfo *info, const fb_fix_screeninfo &fix, const fb_var_screeninfo &var)
{
    info->depth = var.bits_per_pixel;
    info->red_mask = field_mask(var.red);
    info->green_mask = field_mask(var.green);
    info->blue_mask = field_mask(var.blue);
    info->alpha_mask = field_mask(var.transp);
    info->pixel_unit = fix.line_length / var.xres; // the device's own width, whatever was requested
    info->byte_order = var.red.msb_right;
    info->stride = fix.line_length;
    info->memory = fix.smem_len;
}
