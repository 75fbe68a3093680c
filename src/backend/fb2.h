// SPDX-License-Identifier: MIT
// The second layer's state, for diagnosis.
#pragma once

#include <cstdint>
#include <linux/fb.h>

extern int32_t fb2_fd;
extern void *fb2_ptr; // null until mapped
extern uint32_t fb2_mmap_size;
extern fb_var_screeninfo fb2_info;
extern fb_fix_screeninfo fb2_fix;
extern int32_t width; // of the second screen, as finally used
extern int32_t height;
