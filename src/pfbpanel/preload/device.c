/* SPDX-License-Identifier: MIT */
#include "device.h"

#include "panel.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/kd.h>
#include <linux/major.h>
#include <linux/stat.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

/* One atomic piece of a pipe: a block of this size is written and read without waiting. */
_Static_assert(sizeof(struct fb_var_screeninfo) <= PIPE_BUF, "fits into a pipe");

typedef struct Identity {
    bool present;
    dev_t dev;
    uint64_t ino;
} Identity;

static Identity identities[PANEL_DEVICES];

static int fail(int error)
{
    errno = error;
    return -1;
}

/* statx by the kernel's own door: the same on every architecture, and none of our own functions in between. */
static bool identify(int directory, const char *path, int flags, Identity *identity)
{
    const int saved_errno = errno;
    struct statx info;
    identity->present = syscall(SYS_statx, directory, path, flags, STATX_INO, &info) == 0;
    errno = saved_errno;
    if (!identity->present)
        return false;
    identity->dev = makedev(info.stx_dev_major, info.stx_dev_minor);
    identity->ino = info.stx_ino;
    return true;
}

static bool file_of_node(const char *node, char file[PATH_MAX])
{
    const size_t length = strlen(panel_folder());
    if (length + strlen(node) >= PATH_MAX)
        return false;
    memcpy(file, panel_folder(), length);
    strcpy(file + length, node);
    return true;
}

void device_attach(void)
{
    for (int device = 0; device < PANEL_DEVICES; device++)
        for (int i = 0; i < 2 && !identities[device].present; i++) {
            char file[PATH_MAX];
            if (file_of_node(panel_nodes[device][i], file))
                identify(AT_FDCWD, file, 0, &identities[device]);
        }
}

int device_of_path(const char *path, char file[PATH_MAX])
{
    if (path == NULL || strncmp(path, "/dev/", 5) != 0 || panel_state() == NULL)
        return -1;
    for (int device = 0; device < PANEL_DEVICES; device++)
        for (int i = 0; i < 2; i++)
            if (strcmp(path, panel_nodes[device][i]) == 0 && file_of_node(path, file))
                return device;
    return -1;
}

int device_of_file(dev_t dev, uint64_t ino)
{
    if (panel_state() == NULL)
        return -1;
    for (int device = 0; device < PANEL_DEVICES; device++) {
        const Identity *identity = &identities[device];
        if (identity->present && identity->ino == ino && identity->dev == dev)
            return device;
    }
    return -1;
}

int device_of_descriptor(int fd)
{
    Identity identity;
    if (fd < 0 || panel_state() == NULL || !identify(fd, "", AT_EMPTY_PATH, &identity))
        return -1;
    return device_of_file(identity.dev, identity.ino);
}

dev_t device_number(int device)
{
    if (device == PANEL_CONSOLE)
        return makedev(TTY_MAJOR, 0);
    return makedev(FB_MAJOR, device == PANEL_FB2 ? 2 : 0);
}

static bool has_fault(int device, uint32_t fault)
{
    return (panel_state()->device[device].faults & fault) != 0;
}

int device_check_open(int device, const char *file)
{
    if (syscall(SYS_faccessat, AT_FDCWD, file, F_OK) != 0)
        return -1;
    return has_fault(device, PANEL_FAULT_OPEN) ? fail(ENODEV) : 0;
}

int device_open(int device, const char *file, int flags)
{
    if (device_check_open(device, file) != 0)
        return -1;
    if ((flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL))
        return fail(EEXIST);
    flags &= ~(O_CREAT | O_EXCL | O_TRUNC | O_APPEND);
    return (int)syscall(SYS_openat, AT_FDCWD, file, flags | O_LARGEFILE, 0);
}

/* The kernel itself copies, so that a bad pointer is an error number and no crash. With every descriptor in use there
 * is no pipe to be had: then the pointer is trusted. */
static int copy_checked(void *to, const void *from, size_t size)
{
    const int saved_errno = errno;
    int ends[2];
    if (syscall(SYS_pipe2, ends, O_CLOEXEC) != 0) {
        errno = saved_errno;
        memcpy(to, from, size);
        return 0;
    }
    const bool copied =
        syscall(SYS_write, ends[1], from, size) == (long)size && syscall(SYS_read, ends[0], to, size) == (long)size;
    close(ends[0]);
    close(ends[1]);
    errno = saved_errno;
    return copied ? 0 : fail(EFAULT);
}

static int get_fix(int device, void *argument)
{
    const PanelDevice *panel = &panel_state()->device[device];
    if (has_fault(device, PANEL_FAULT_FIX))
        return fail(EIO);
    struct fb_fix_screeninfo fix;
    memset(&fix, 0, sizeof fix);
    memcpy(fix.id, panel->id, sizeof fix.id);
    fix.smem_len = panel->memory;
    fix.type = FB_TYPE_PACKED_PIXELS;
    fix.visual = panel->visual;
    fix.ypanstep = (uint16_t)panel->pan_step;
    fix.line_length = panel->stride;
    fix.accel = FB_ACCEL_NONE;
    return copy_checked(argument, &fix, sizeof fix);
}

static int get_var(int device, void *argument)
{
    if (has_fault(device, PANEL_FAULT_VAR))
        return fail(EIO);
    struct fb_var_screeninfo var = panel_state()->device[device].var;
    if (has_fault(device, PANEL_FAULT_ZERO_WIDTH))
        var.xres = 0;
    return copy_checked(argument, &var, sizeof var);
}

static bool can_pan_to(const PanelDevice *panel, const struct fb_var_screeninfo *wanted)
{
    const struct fb_var_screeninfo *var = &panel->var;
    if (wanted->xoffset != 0 || (wanted->yoffset != 0 && panel->pan_step == 0))
        return false;
    return wanted->yoffset <= var->yres_virtual - var->yres;
}

static void pan(PanelDevice *panel, const struct fb_var_screeninfo *wanted)
{
    __atomic_store_n(&panel->var.yoffset, wanted->yoffset, __ATOMIC_RELEASE);
}

static int pan_display(int device, void *argument)
{
    PanelDevice *panel = &panel_state()->device[device];
    struct fb_var_screeninfo wanted;
    if (copy_checked(&wanted, argument, sizeof wanted) != 0)
        return -1;
    if (!can_pan_to(panel, &wanted))
        return fail(EINVAL);
    pan(panel, &wanted);
    return copy_checked(argument, &wanted, sizeof wanted);
}

static bool is_same_mode(const struct fb_var_screeninfo *a, const struct fb_var_screeninfo *b)
{
    return a->xres == b->xres && a->yres == b->yres && a->xres_virtual == b->xres_virtual &&
           a->yres_virtual == b->yres_virtual && a->bits_per_pixel == b->bits_per_pixel;
}

/* A panel has one mode: what can be set is the part of the memory that is shown. */
static int put_var(int device, void *argument)
{
    PanelDevice *panel = &panel_state()->device[device];
    struct fb_var_screeninfo wanted;
    if (copy_checked(&wanted, argument, sizeof wanted) != 0)
        return -1;
    if (!is_same_mode(&wanted, &panel->var) || !can_pan_to(panel, &wanted))
        return fail(EINVAL);
    if ((wanted.activate & FB_ACTIVATE_MASK) == FB_ACTIVATE_NOW) {
        pan(panel, &wanted);
        panel->var.activate = wanted.activate;
    }
    struct fb_var_screeninfo result = panel->var;
    result.yoffset = wanted.yoffset;
    result.activate = wanted.activate;
    return copy_checked(argument, &result, sizeof result);
}

static int log_layer(const uint32_t *block)
{
    char file[PATH_MAX];
    if (!file_of_node(PANEL_LAYER_LOG, file))
        return fail(EIO);
    const int fd = (int)syscall(SYS_openat, AT_FDCWD, file, O_WRONLY | O_APPEND | O_CLOEXEC, 0);
    if (fd < 0)
        return fail(EIO);
    const long written = syscall(SYS_write, fd, block, PANEL_LAYER_BLOCK);
    close(fd);
    return written == PANEL_LAYER_BLOCK ? 0 : fail(EIO);
}

static int control_layer(void *argument)
{
    PanelState *state = panel_state();
    uint32_t block[PANEL_LAYER_BLOCK / 4];
    if (has_fault(PANEL_FB2, PANEL_FAULT_CONTROL))
        return fail(EINVAL);
    if (copy_checked(block, argument, sizeof block[0]) != 0)
        return -1;
    if (block[0] == PANEL_LAYER_READ) {
        memcpy(block + 1, state->layer + 1, sizeof block - sizeof block[0]);
        return copy_checked(argument, block, sizeof block);
    }
    if (block[0] != PANEL_LAYER_APPLY)
        return fail(EINVAL);
    if (copy_checked(block, argument, sizeof block) != 0 || log_layer(block) != 0)
        return -1;
    memcpy(state->layer, block, sizeof block);
    return 0;
}

static int control_framebuffer(int device, unsigned request, void *argument)
{
    switch (request) {
    case FBIOGET_FSCREENINFO:
        return get_fix(device, argument);
    case FBIOGET_VSCREENINFO:
        return get_var(device, argument);
    case FBIOPUT_VSCREENINFO:
        return put_var(device, argument);
    case FBIOPAN_DISPLAY:
        return pan_display(device, argument);
    case FBIOBLANK:
        panel_state()->device[device].blank = (uint32_t)(uintptr_t)argument;
        return 0;
    case PANEL_LAYER_REQUEST:
        return device == PANEL_FB2 ? control_layer(argument) : fail(ENOTTY);
    default:
        return fail(ENOTTY);
    }
}

static int control_console(unsigned request, void *argument)
{
    PanelState *state = panel_state();
    const uintptr_t mode = (uintptr_t)argument;
    switch (request) {
    case KDSETMODE:
        if ((mode != KD_TEXT && mode != KD_GRAPHICS) || has_fault(PANEL_CONSOLE, PANEL_FAULT_CONTROL))
            return fail(EINVAL);
        state->console = (uint32_t)mode;
        return 0;
    case KDGETMODE:
        return copy_checked(argument, &state->console, sizeof state->console);
    default:
        return fail(ENOTTY);
    }
}

int device_ioctl(int device, unsigned long request, void *argument)
{
    /* The kernel takes 32 bits; a request kept in an int arrives with its sign extended. */
    const unsigned number = (unsigned)request;
    return device == PANEL_CONSOLE ? control_console(number, argument) : control_framebuffer(device, number, argument);
}

int device_check_mmap(int device, size_t length, unsigned long long offset)
{
    const unsigned long long page = (unsigned long long)sysconf(_SC_PAGESIZE);
    const unsigned long long end = (panel_state()->device[device].memory + page - 1) / page * page;
    if (device == PANEL_CONSOLE || has_fault(device, PANEL_FAULT_MMAP))
        return fail(ENODEV);
    if (offset > end || length > end - offset)
        return fail(EINVAL);
    return 0;
}
