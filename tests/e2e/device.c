/* SPDX-License-Identifier: MIT */
/*
 * device VERB ...: looks at the devices of the machine that it runs on.
 *
 *   console              "graphics" or "text": the mode of the virtual console
 *   text                 sets it to text
 *   info DEVICE          "WIDTH HEIGHT DEPTH STRIDE MEMORY" of a framebuffer
 *   dump DEVICE          its memory, as it lies there, to standard output
 *   fill DEVICE BYTE     fills its memory
 *   black DEVICE         "black" when every byte of it is 0, else the offset of the first that is not
 *   first DEVICE COMMAND...  starts the command; "MILLISECONDS" once the memory has changed, then waits for its end
 */
#include <fcntl.h>
#include <linux/fb.h>
#include <linux/kd.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

struct device {
    struct fb_fix_screeninfo fix;
    struct fb_var_screeninfo var;
    unsigned char *memory;
};

static _Noreturn void die(const char *what)
{
    perror(what);
    exit(1);
}

static int console(void)
{
    int fd = open("/dev/tty0", O_RDONLY | O_CLOEXEC);
    int mode = -1;
    if (fd < 0 || ioctl(fd, KDGETMODE, &mode) < 0)
        die("/dev/tty0");
    puts(mode == KD_GRAPHICS ? "graphics" : mode == KD_TEXT ? "text" : "unknown");
    return 0;
}

static int text(void)
{
    int fd = open("/dev/tty0", O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ioctl(fd, KDSETMODE, KD_TEXT) < 0)
        die("/dev/tty0");
    return 0;
}

static struct device device_open(const char *path)
{
    struct device device;
    int fd = open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0 || ioctl(fd, FBIOGET_FSCREENINFO, &device.fix) < 0 || ioctl(fd, FBIOGET_VSCREENINFO, &device.var) < 0)
        die(path);
    device.memory = mmap(NULL, device.fix.smem_len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (device.memory == MAP_FAILED)
        die("mmap");
    close(fd);
    return device;
}

static int info(const struct device *device)
{
    printf("%u %u %u %u %u\n", device->var.xres, device->var.yres, device->var.bits_per_pixel, device->fix.line_length,
           device->fix.smem_len);
    return 0;
}

static int dump(const struct device *device)
{
    if (fwrite(device->memory, 1, device->fix.smem_len, stdout) != device->fix.smem_len || fflush(stdout) != 0)
        die("standard output");
    return 0;
}

static int fill(const struct device *device, const char *byte)
{
    memset(device->memory, (int)strtol(byte, NULL, 0), device->fix.smem_len);
    return 0;
}

static int black(const struct device *device)
{
    for (uint32_t i = 0; i < device->fix.smem_len; i++) {
        if (device->memory[i] != 0) {
            printf("%u\n", i);
            return 1;
        }
    }
    puts("black");
    return 0;
}

static long long now_us(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

static int first(const struct device *device, char **command)
{
    unsigned char *before = malloc(device->fix.smem_len);
    if (before == NULL)
        die("malloc");
    memcpy(before, device->memory, device->fix.smem_len);
    long long start = now_us();
    pid_t pid = fork();
    if (pid == 0) {
        execv(command[0], command);
        die(command[0]);
    }
    while (memcmp(before, device->memory, device->fix.smem_len) == 0)
        usleep(200);
    printf("%.1f\n", (double)(now_us() - start) / 1000);
    fflush(stdout);
    waitpid(pid, NULL, 0);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc == 2 && strcmp(argv[1], "console") == 0)
        return console();
    if (argc == 2 && strcmp(argv[1], "text") == 0)
        return text();
    if (argc < 3) {
        fprintf(stderr,
                "usage: %s console | text | {info|dump|black} DEVICE | fill DEVICE BYTE | first DEVICE COMMAND...\n",
                argv[0]);
        return 2;
    }
    struct device device = device_open(argv[2]);
    if (strcmp(argv[1], "info") == 0)
        return info(&device);
    if (strcmp(argv[1], "dump") == 0)
        return dump(&device);
    if (strcmp(argv[1], "black") == 0)
        return black(&device);
    if (strcmp(argv[1], "fill") == 0 && argc == 4)
        return fill(&device, argv[3]);
    if (strcmp(argv[1], "first") == 0 && argc > 3)
        return first(&device, argv + 3);
    return 2;
}
