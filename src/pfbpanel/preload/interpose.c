/* SPDX-License-Identifier: MIT */
/* The C library's functions that name, describe, map or control a device node. Each looks whether a device of the
 * panel is meant and hands everything else on, untouched, to the function that comes after it. */
#include "device.h"
#include "panel.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

/* The fortified variants have no public declaration. */
EXPORT int __open_2(const char *path, int flags);
EXPORT int __open64_2(const char *path, int flags);
EXPORT int __openat_2(int directory, const char *path, int flags);
EXPORT int __openat64_2(int directory, const char *path, int flags);

/* The mode argument of the open family: there only when a file may be made. */
#define TAKE_MODE(flags, mode)                                                                                         \
    mode_t mode = 0;                                                                                                   \
    if (((flags)&O_CREAT) != 0 || ((flags)&O_TMPFILE) == O_TMPFILE) {                                                  \
        va_list arguments;                                                                                             \
        va_start(arguments, flags);                                                                                    \
        mode = (mode_t)va_arg(arguments, int);                                                                         \
        va_end(arguments);                                                                                             \
    }

#define OPEN(name)                                                                                                     \
    EXPORT int name(const char *path, int flags, ...)                                                                  \
    {                                                                                                                  \
        TAKE_MODE(flags, mode)                                                                                         \
        char file[PATH_MAX];                                                                                           \
        const int device = device_of_path(path, file);                                                                 \
        return device >= 0 ? device_open(device, file, flags) : NEXT(name)(path, flags, mode);                         \
    }

#define OPENAT(name)                                                                                                   \
    EXPORT int name(int directory, const char *path, int flags, ...)                                                   \
    {                                                                                                                  \
        TAKE_MODE(flags, mode)                                                                                         \
        char file[PATH_MAX];                                                                                           \
        const int device = device_of_path(path, file);                                                                 \
        return device >= 0 ? device_open(device, file, flags) : NEXT(name)(directory, path, flags, mode);              \
    }

#define OPEN_2(name)                                                                                                   \
    EXPORT int name(const char *path, int flags)                                                                       \
    {                                                                                                                  \
        char file[PATH_MAX];                                                                                           \
        const int device = device_of_path(path, file);                                                                 \
        return device >= 0 ? device_open(device, file, flags) : NEXT(name)(path, flags);                               \
    }

#define OPENAT_2(name)                                                                                                 \
    EXPORT int name(int directory, const char *path, int flags)                                                        \
    {                                                                                                                  \
        char file[PATH_MAX];                                                                                           \
        const int device = device_of_path(path, file);                                                                 \
        return device >= 0 ? device_open(device, file, flags) : NEXT(name)(directory, path, flags);                    \
    }

#define CREAT(name)                                                                                                    \
    EXPORT int name(const char *path, mode_t mode)                                                                     \
    {                                                                                                                  \
        char file[PATH_MAX];                                                                                           \
        const int device = device_of_path(path, file);                                                                 \
        return device >= 0 ? device_open(device, file, O_WRONLY) : NEXT(name)(path, mode);                             \
    }

OPEN(open)
OPEN(open64)
OPEN_2(__open_2)
OPEN_2(__open64_2)
OPENAT(openat)
OPENAT(openat64)
OPENAT_2(__openat_2)
OPENAT_2(__openat64_2)
CREAT(creat)
CREAT(creat64)

/* A stream that would make, cut or append to a regular file opens a device for update and leaves it as it is. */
static const char *stream_mode(const char *mode)
{
    if (mode[0] == 'r')
        return mode;
    return strchr(mode, 'e') != NULL ? "r+e" : "r+";
}

#define FOPEN(name)                                                                                                    \
    EXPORT FILE *name(const char *path, const char *mode)                                                              \
    {                                                                                                                  \
        char file[PATH_MAX];                                                                                           \
        const int device = device_of_path(path, file);                                                                 \
        if (device < 0)                                                                                                \
            return NEXT(name)(path, mode);                                                                             \
        return device_check_open(device, file) == 0 ? NEXT(name)(file, stream_mode(mode)) : NULL;                      \
    }

/* On failure the stream is closed all the same, as freopen does. */
#define FREOPEN(name)                                                                                                  \
    EXPORT FILE *name(const char *path, const char *mode, FILE *stream)                                                \
    {                                                                                                                  \
        char file[PATH_MAX];                                                                                           \
        const int device = device_of_path(path, file);                                                                 \
        if (device < 0)                                                                                                \
            return NEXT(name)(path, mode, stream);                                                                     \
        if (device_check_open(device, file) == 0)                                                                      \
            return NEXT(name)(file, stream_mode(mode), stream);                                                        \
        const int error = errno;                                                                                       \
        fclose(stream);                                                                                                \
        errno = error;                                                                                                 \
        return NULL;                                                                                                   \
    }

FOPEN(fopen)
FOPEN(fopen64)
FREOPEN(freopen)
FREOPEN(freopen64)

#define ACCESS(name)                                                                                                   \
    EXPORT int name(const char *path, int wanted)                                                                      \
    {                                                                                                                  \
        char file[PATH_MAX];                                                                                           \
        return NEXT(name)(device_of_path(path, file) >= 0 ? file : path, wanted);                                      \
    }

ACCESS(access)
ACCESS(euidaccess)
ACCESS(eaccess)

EXPORT int faccessat(int directory, const char *path, int wanted, int flags)
{
    char file[PATH_MAX];
    return NEXT(faccessat)(directory, device_of_path(path, file) >= 0 ? file : path, wanted, flags);
}

/* Makes what was found out about a panel's file look like the device: a character device with the driver's number. */
#define SHOW_DEVICE(info)                                                                                              \
    do {                                                                                                               \
        const int device = device_of_file((info)->st_dev, (uint64_t)(info)->st_ino);                                   \
        if (device >= 0) {                                                                                             \
            (info)->st_mode = ((info)->st_mode & ~(mode_t)S_IFMT) | S_IFCHR;                                           \
            (info)->st_rdev = device_number(device);                                                                   \
            (info)->st_size = 0;                                                                                       \
            (info)->st_blocks = 0;                                                                                     \
        }                                                                                                              \
    } while (0)

#define STAT(name, record)                                                                                             \
    EXPORT int name(const char *path, struct record *info)                                                             \
    {                                                                                                                  \
        char file[PATH_MAX];                                                                                           \
        const int result = NEXT(name)(device_of_path(path, file) >= 0 ? file : path, info);                            \
        if (result == 0)                                                                                               \
            SHOW_DEVICE(info);                                                                                         \
        return result;                                                                                                 \
    }

#define FSTAT(name, record)                                                                                            \
    EXPORT int name(int fd, struct record *info)                                                                       \
    {                                                                                                                  \
        const int result = NEXT(name)(fd, info);                                                                       \
        if (result == 0)                                                                                               \
            SHOW_DEVICE(info);                                                                                         \
        return result;                                                                                                 \
    }

#define FSTATAT(name, record)                                                                                          \
    EXPORT int name(int directory, const char *path, struct record *info, int flags)                                   \
    {                                                                                                                  \
        char file[PATH_MAX];                                                                                           \
        const int result = NEXT(name)(directory, device_of_path(path, file) >= 0 ? file : path, info, flags);          \
        if (result == 0)                                                                                               \
            SHOW_DEVICE(info);                                                                                         \
        return result;                                                                                                 \
    }

STAT(stat, stat)
STAT(stat64, stat64)
STAT(lstat, stat)
STAT(lstat64, stat64)
FSTAT(fstat, stat)
FSTAT(fstat64, stat64)
FSTATAT(fstatat, stat)
FSTATAT(fstatat64, stat64)

EXPORT int statx(int directory, const char *path, int flags, unsigned mask, struct statx *info)
{
    char file[PATH_MAX];
    const int result = NEXT(statx)(directory, device_of_path(path, file) >= 0 ? file : path, flags, mask, info);
    const int device =
        result != 0 ? -1 : device_of_file(makedev(info->stx_dev_major, info->stx_dev_minor), info->stx_ino);
    if (device >= 0) {
        info->stx_mode = (uint16_t)((info->stx_mode & ~S_IFMT) | S_IFCHR);
        info->stx_rdev_major = major(device_number(device));
        info->stx_rdev_minor = minor(device_number(device));
        info->stx_size = 0;
        info->stx_blocks = 0;
    }
    return result;
}

EXPORT int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    const int device = device_of_descriptor(fd);
    return device >= 0 ? device_ioctl(device, request, argument) : NEXT(ioctl)(fd, request, argument);
}

#define MMAP(name, offset_type)                                                                                        \
    EXPORT void *name(void *address, size_t length, int protection, int flags, int fd, offset_type offset)             \
    {                                                                                                                  \
        const int device = (flags & MAP_ANONYMOUS) != 0 ? -1 : device_of_descriptor(fd);                               \
        if (device >= 0 && device_check_mmap(device, length, (unsigned long long)offset) != 0)                         \
            return MAP_FAILED;                                                                                         \
        return NEXT(name)(address, length, protection, flags, fd, offset);                                             \
    }

MMAP(mmap, off_t)
MMAP(mmap64, off64_t)
