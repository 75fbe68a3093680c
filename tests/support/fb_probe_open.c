/* SPDX-License-Identifier: MIT */
/* The ways in which programs open a device. */
#include "fb_probe.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fb.h>
#include <linux/kd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

/* What a fortified program calls, with or without fortification in this build. */
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
int __openat_2(int directory, const char *path, int flags);
int __openat64_2(int directory, const char *path, int flags);

static int early_fd = -1;
static int early_result = -1;

/* A program's static constructors may use the device before main. */
__attribute__((constructor)) static void open_early(void)
{
    struct fb_fix_screeninfo fix;
    early_fd = open("/dev/fb0", O_RDWR | O_CLOEXEC);
    early_result = early_fd < 0 ? -1 : ioctl(early_fd, FBIOGET_FSCREENINFO, &fix);
}

const char *error_name(int result)
{
    return result >= 0 ? "ok" : strerrorname_np(errno);
}

/* Says which device a descriptor is by what it answers. */
void print_device(int fd)
{
    struct fb_fix_screeninfo fix;
    int mode;
    if (fd < 0)
        printf("%s\n", error_name(fd));
    else if (ioctl(fd, FBIOGET_FSCREENINFO, &fix) == 0)
        printf("%s\n", fix.id);
    else if (ioctl(fd, KDGETMODE, &mode) == 0)
        printf("console\n");
    else
        printf("other\n");
}

static int stream_fd(FILE *stream)
{
    return stream == NULL ? -1 : fileno(stream);
}

/* `flags` is not known when this is compiled, so that a fortified build really calls the checking functions. */
static int open_by(const char *call, const char *path, int flags)
{
    if (strcmp(call, "open") == 0)
        return open(path, flags);
    if (strcmp(call, "open64") == 0)
        return open64(path, flags);
    if (strcmp(call, "openat") == 0)
        return openat(AT_FDCWD, path, flags);
    if (strcmp(call, "openat64") == 0)
        return openat64(AT_FDCWD, path, flags);
    if (strcmp(call, "__open_2") == 0)
        return __open_2(path, flags);
    if (strcmp(call, "__open64_2") == 0)
        return __open64_2(path, flags);
    if (strcmp(call, "__openat_2") == 0)
        return __openat_2(AT_FDCWD, path, flags);
    if (strcmp(call, "__openat64_2") == 0)
        return __openat64_2(AT_FDCWD, path, flags);
    if (strcmp(call, "creat") == 0)
        return creat(path, 0666);
    if (strcmp(call, "creat64") == 0)
        return creat64(path, 0666);
    if (strcmp(call, "open-create") == 0)
        return open(path, flags | O_CREAT | O_TRUNC | O_APPEND, 0666);
    if (strcmp(call, "open-exclusive") == 0)
        return open(path, flags | O_CREAT | O_EXCL, 0666);
    if (strcmp(call, "fopen") == 0)
        return stream_fd(fopen(path, "r+"));
    if (strcmp(call, "fopen-write") == 0)
        return stream_fd(fopen(path, "w"));
    if (strcmp(call, "fopen-append") == 0)
        return stream_fd(fopen(path, "ae"));
    if (strcmp(call, "fopen64") == 0)
        return stream_fd(fopen64(path, "r"));
    if (strcmp(call, "freopen") == 0)
        return stream_fd(freopen(path, "w", stdin));
    if (strcmp(call, "freopen64") == 0)
        return stream_fd(freopen64(path, "r+", stdin));
    exit(3);
}

int open_device(const char *path)
{
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        perror(path);
        exit(1);
    }
    return fd;
}

int command_open(char **args)
{
    print_device(open_by(args[0], args[1], atoi(args[2])));
    return 0;
}

int command_constructor(char **args)
{
    (void)args;
    printf("%s\n", early_result == 0 ? "ok" : "failed");
    print_device(early_fd);
    return 0;
}
