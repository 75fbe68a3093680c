// SPDX-License-Identifier: MIT
// What both framebuffer outputs do with a Linux framebuffer device.
#pragma once

#include <linux/fb.h>

#include "backend.h"

// Opens `first` read-write, or `second` (may be null) when that fails. -1 when neither can be had; errno is then the
// second one's, but the first one's where the second does not exist.
int framebuffer_open(const char *first, const char *second);

// Read the device's description, its fixed and its variable half. False after a message; a width of 0 is refused.
bool framebuffer_read_fixed(int fd, fb_fix_screeninfo *fix);
bool framebuffer_read_mode(int fd, fb_var_screeninfo *var);

// Maps the whole framebuffer memory, visible or not. Null after a message.
void *framebuffer_map(int fd, uint32_t bytes);

// Fills in everything but the size and has_alpha.
void framebuffer_fill_info(ScreenInfo *info, const fb_fix_screeninfo &fix, const fb_var_screeninfo &var);
