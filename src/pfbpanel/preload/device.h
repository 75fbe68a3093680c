/* SPDX-License-Identifier: MIT */
/* The panel's devices as the preload library acts them: found by path or by descriptor, opened, controlled. A
 * descriptor is recognised by the file behind it, so dup, fork, exec and close need no bookkeeping. */
#ifndef PRELOAD_DEVICE_H
#define PRELOAD_DEVICE_H

#include <limits.h>
#include <stdbool.h>
#include <stdint.h>
#include <stddef.h>
#include <sys/types.h>

/* Learns which files are the devices: once, when the panel is known. */
void device_attach(void);

/* The device whose node `path` is (PANEL_FB0 ...), with the panel's file for it in `file`; -1 for any other path, and
 * always where there is no panel. The file need not exist: then the panel has no such node. */
int device_of_path(const char *path, char file[PATH_MAX]);
/* The device behind a file's identity or an open descriptor; -1: none. errno stays as it was. */
int device_of_file(dev_t dev, uint64_t ino);
int device_of_descriptor(int fd);

/* The major and minor number that the real device has. */
dev_t device_number(int device);

/* As open: a descriptor, or -1 with errno. Flags that would make or cut a regular file do to a device nothing. */
int device_open(int device, const char *file, int flags);
/* Whether the file can be opened at all: 0, or -1 with errno. */
int device_check_open(int device, const char *file);
/* As ioctl. A bad `argument` pointer is EFAULT, a request that the device does not know ENOTTY. */
int device_ioctl(int device, unsigned long request, void *argument);
/* Whether the driver would let this range be mapped: 0, or -1 with errno. */
int device_check_mmap(int device, size_t length, unsigned long long offset);

#endif
