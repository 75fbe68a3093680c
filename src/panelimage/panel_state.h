/* SPDX-License-Identifier: MIT */
/* What stands in a panel's folder: the one description that the program pfbpanel and its preload library share. C, and
 * of fixed width throughout, so that a 32-bit program can run on a panel that a 64-bit pfbpanel made.
 *
 *   lock           held (as an open file description lock) by pfbpanel for as long as the panel lives
 *   state          one PanelState, mapped shared by everybody
 *   dev/...        one regular file for each device node that the panel has, at the node's own path; that of a
 *                  framebuffer is its memory
 *   layer2.log     the blocks of every applied layer control, PANEL_LAYER_BLOCK bytes each, in order
 */
#ifndef PANEL_STATE_H
#define PANEL_STATE_H

#include <linux/fb.h>
#include <stdint.h>

#define PANEL_LOCK "/lock"
#define PANEL_STATE "/state"
#define PANEL_LAYER_LOG "/layer2.log"

enum { PANEL_FB0, PANEL_FB2, PANEL_CONSOLE, PANEL_DEVICES };

/* Each device's usual node and the other name that some systems give it. A panel has one of the two, or none. */
static const char *const panel_nodes[PANEL_DEVICES][2] = {
    {"/dev/fb0", "/dev/fb/0"},
    {"/dev/fb2", "/dev/fb/2"},
    {"/dev/tty0", "/dev/vc/0"},
};

/* Faults of a device, as bits of PanelDevice.faults; the error number that each brings. */
enum {
    PANEL_FAULT_OPEN = 1,        /* opening it: ENODEV */
    PANEL_FAULT_FIX = 2,         /* FBIOGET_FSCREENINFO: EIO */
    PANEL_FAULT_VAR = 4,         /* FBIOGET_VSCREENINFO: EIO */
    PANEL_FAULT_MMAP = 8,        /* mapping it: ENODEV */
    PANEL_FAULT_ZERO_WIDTH = 16, /* xres is reported as 0 */
    PANEL_FAULT_CONTROL = 32,    /* layer control, or setting the console's mode: EINVAL */
};

/* The second layer's private request and its block. */
#define PANEL_LAYER_REQUEST 0x46FFu
#define PANEL_LAYER_BLOCK 192
enum { PANEL_LAYER_APPLY = 3, PANEL_LAYER_READ = 4 };
#define PANEL_LAYER_ENABLE 184 /* the byte offset of the word that shows the layer, or with 0 does not */

/* Before anything was applied, the word at byte offset N of the layer's settings is PANEL_LAYER_PATTERN + N. Word 0 is
 * the sub-command: a read leaves it as the caller wrote it. */
#define PANEL_LAYER_PATTERN 0x5EED0000u

typedef struct PanelDevice {
    char id[16];     /* zero-terminated, as the fixed screen information has it */
    char format[16]; /* the pixel format's name on the command line */
    uint32_t memory; /* bytes; 0: the panel has no such framebuffer */
    uint32_t stride; /* bytes per row */
    uint32_t visual; /* FB_VISUAL_... */
    uint32_t pan_step;
    uint32_t faults;
    uint32_t blank;               /* the last FBIOBLANK */
    struct fb_var_screeninfo var; /* offsets and `activate` change, the rest does not */
} PanelDevice;

#define PANEL_MAGIC 0x31626650u /* the layout's version is its last byte */

typedef struct PanelState {
    uint32_t magic;
    uint32_t size;    /* of this record */
    int32_t program;  /* process id, 0 until it runs */
    uint32_t console; /* KD_TEXT or KD_GRAPHICS */
    uint32_t layer[PANEL_LAYER_BLOCK / 4];
    PanelDevice device[PANEL_DEVICES];
} PanelState;

#endif
