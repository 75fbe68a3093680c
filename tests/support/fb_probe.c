/* SPDX-License-Identifier: MIT */
/* A framebuffer program as others write them, in plain C: it opens, asks, maps and draws. It knows nothing of panels;
 * built plain, fortified and with a sanitizer, it is what the panel's tests run. Each command prints what it saw. */
#include "fb_probe.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/fb.h>
#include <linux/kd.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#define LAYER_CONTROL 0x46FF
#define LAYER_WORDS 48

static void print_field(const char *name, const struct fb_bitfield *field)
{
    printf(" %s=%u/%u/%u", name, field->offset, field->length, field->msb_right);
}

static int command_info(char **args)
{
    struct fb_fix_screeninfo fix;
    struct fb_var_screeninfo var;
    memset(&fix, 0xAA, sizeof fix);
    memset(&var, 0xAA, sizeof var);
    const int fd = open_device(args[0]);
    int result = ioctl(fd, FBIOGET_FSCREENINFO, &fix);
    printf("fix %s", error_name(result));
    if (result == 0)
        printf(" id=%s smem_len=%u line_length=%u visual=%u type=%u ypanstep=%u", fix.id, fix.smem_len, fix.line_length,
               fix.visual, fix.type, fix.ypanstep);
    result = ioctl(fd, FBIOGET_VSCREENINFO, &var);
    printf("\nvar %s", error_name(result));
    if (result == 0) {
        printf(" %ux%u virtual=%ux%u bits=%u gray=%u", var.xres, var.yres, var.xres_virtual, var.yres_virtual,
               var.bits_per_pixel, var.grayscale);
        print_field("red", &var.red);
        print_field("green", &var.green);
        print_field("blue", &var.blue);
        print_field("transp", &var.transp);
    }
    const size_t length = fix.smem_len == 0xAAAAAAAA ? 4096 : fix.smem_len;
    printf("\nmmap %s\n", mmap(NULL, length, PROT_READ, MAP_SHARED, fd, 0) == MAP_FAILED ? error_name(-1) : "ok");
    return 0;
}

/* Bytes of memory per pixel, as a program takes them from the bits: 18 stand in words. */
static unsigned pixel_bytes(const struct fb_var_screeninfo *var)
{
    return var->bits_per_pixel == 18 ? 4 : var->bits_per_pixel / 8;
}

/* A different, reproducible value for each pixel and each picture. */
static uint32_t pattern(uint32_t x, uint32_t y, uint32_t picture)
{
    uint32_t value = (x + 1) * 2654435761u ^ (y + 1) * 2246822519u ^ (picture + 1) * 3266489917u;
    value ^= value >> 15;
    return value * 668265263u;
}

/* Fills the rows of the whole virtual screen; row padding stays as it is. */
static void draw(uint8_t *memory, const struct fb_fix_screeninfo *fix, const struct fb_var_screeninfo *var,
                 uint32_t picture)
{
    const unsigned bytes = pixel_bytes(var);
    for (uint32_t y = 0; y < var->yres_virtual; y++)
        for (uint32_t x = 0; x < var->xres; x++) {
            const uint32_t value = pattern(x, y, picture);
            memcpy(memory + (size_t)y * fix->line_length + x * bytes, &value, bytes); /* little-endian */
        }
}

static uint8_t *map(const char *path, struct fb_fix_screeninfo *fix, struct fb_var_screeninfo *var)
{
    const int fd = open_device(path);
    if (ioctl(fd, FBIOGET_FSCREENINFO, fix) != 0 || ioctl(fd, FBIOGET_VSCREENINFO, var) != 0) {
        perror(path);
        exit(1);
    }
    uint8_t *memory = mmap(NULL, fix->smem_len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        perror("mmap");
        exit(1);
    }
    close(fd);
    return memory;
}

static void say_ready(void)
{
    puts("ready");
    fflush(stdout);
}

/* draw PATH PICTURE [wait] */
static int command_draw(char **args)
{
    struct fb_fix_screeninfo fix;
    struct fb_var_screeninfo var;
    uint8_t *memory = map(args[0], &fix, &var);
    memset(memory, 0x5A, fix.smem_len);
    draw(memory, &fix, &var, (uint32_t)atoi(args[1]));
    say_ready();
    if (args[2] != NULL)
        pause();
    return 0;
}

/* Draws whole pictures of one value, one after the other, for ever. */
static int command_animate(char **args)
{
    struct fb_fix_screeninfo fix;
    struct fb_var_screeninfo var;
    uint8_t *memory = map(args[0], &fix, &var);
    say_ready();
    int value = 0;
    while (usleep((useconds_t)atoi(args[1])) == 0)
        memset(memory, value++ & 0xFF, fix.smem_len);
    return 1;
}

/* Asks with the same request through four kinds of pointers that cannot serve. */
static int command_efault(char **args)
{
    const int fd = open_device(args[0]);
    const unsigned long request = strtoul(args[1], NULL, 0);
    char *pages = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *(uint32_t *)(void *)pages = 4; /* a layer control that reads */
    mprotect(pages, 4096, PROT_READ);
    mprotect(pages + 4096, 4096, PROT_NONE);
    void *const bad[] = {NULL, (void *)1, pages + 4096, pages + 4096 - 8, pages};
    for (size_t i = 0; i < sizeof bad / sizeof bad[0]; i++)
        printf("%s ", error_name(ioctl(fd, request, bad[i])));
    puts("");
    return 0;
}

static int command_ioctl(char **args)
{
    uint8_t block[4096] = {0};
    const int fd = open_device(args[0]);
    puts(error_name(ioctl(fd, strtoul(args[1], NULL, 0), block)));
    return 0;
}

/* An ioctl with a number for its argument: KDSETMODE, FBIOBLANK. */
static int command_set(char **args)
{
    int mode = -1;
    const int fd = open_device(args[0]);
    printf("%s", error_name(ioctl(fd, strtoul(args[1], NULL, 0), strtoul(args[2], NULL, 0))));
    if (ioctl(fd, KDGETMODE, &mode) == 0)
        printf(" mode=%d", mode);
    puts("");
    return 0;
}

static int command_duplicates(char **args)
{
    const int fd = open_device(args[0]);
    print_device(dup(fd));
    print_device(dup2(fd, 77));
    print_device(fcntl(fd, F_DUPFD_CLOEXEC, 100));
    fflush(stdout);
    if (fork() == 0) {
        print_device(fd);
        exit(0);
    }
    wait(NULL);
    close(fd);
    print_device(open("/dev/null", O_RDONLY)); /* the same number again, and another file */
    return 0;
}

/* put PATH REQUEST YOFFSET [XRES]: FBIOPUT_VSCREENINFO or FBIOPAN_DISPLAY, and what holds afterwards. */
static int command_put(char **args)
{
    struct fb_var_screeninfo var, after;
    const int fd = open_device(args[0]);
    ioctl(fd, FBIOGET_VSCREENINFO, &var);
    var.yoffset = (uint32_t)strtoul(args[2], NULL, 0);
    var.activate = FB_ACTIVATE_VBL;
    if (args[3] != NULL)
        var.xres = (uint32_t)strtoul(args[3], NULL, 0);
    const int result = ioctl(fd, strtoul(args[1], NULL, 0), &var);
    printf("%s", error_name(result));
    ioctl(fd, FBIOGET_VSCREENINFO, &after);
    printf(" yoffset=%u activate=%u\n", after.yoffset, after.activate);
    return 0;
}

static int command_map(char **args)
{
    const int fd = open_device(args[0]);
    void *memory = mmap(NULL, strtoul(args[1], NULL, 0), PROT_READ, MAP_SHARED, fd, (off_t)strtoul(args[2], NULL, 0));
    printf("%s ", memory == MAP_FAILED ? error_name(-1) : "ok");
    memory = mmap64(NULL, strtoul(args[1], NULL, 0), PROT_READ, MAP_SHARED, fd, (off_t)strtoul(args[2], NULL, 0));
    printf("%s\n", memory == MAP_FAILED ? error_name(-1) : "ok");
    return 0;
}

static void print_block(const uint32_t *block)
{
    for (int i = 0; i < LAYER_WORDS; i++)
        printf("%s%08x", i > 0 ? " " : "", block[i]);
    puts("");
}

/* Reads, applies a change of two words, applies a whole block of its own, reads again, and tries an unknown one. */
static int command_layer(char **args)
{
    const int fd = open_device(args[0]);
    uint32_t block[LAYER_WORDS];
    memset(block, 0, sizeof block);
    block[0] = 4;
    printf("%s\n", error_name(ioctl(fd, LAYER_CONTROL, block)));
    print_block(block);
    block[0] = 3;
    block[116 / 4] |= 0x2000;
    printf("%s\n", error_name(ioctl(fd, LAYER_CONTROL, block)));
    for (uint32_t i = 1; i < LAYER_WORDS; i++)
        block[i] = 0x1000 + i;
    printf("%s\n", error_name(ioctl(fd, LAYER_CONTROL, block)));
    memset(block, 0, sizeof block);
    block[0] = 4;
    printf("%s\n", error_name(ioctl(fd, LAYER_CONTROL, block)));
    print_block(block);
    block[0] = 7;
    printf("%s\n", error_name(ioctl(fd, LAYER_CONTROL, block)));
    return 0;
}

/* enable PATH VALUE: applies the layer's settings with another word at 184, the one that shows it. */
static int command_enable(char **args)
{
    const int fd = open_device(args[0]);
    uint32_t block[LAYER_WORDS] = {4};
    int result = ioctl(fd, LAYER_CONTROL, block);
    block[0] = 3;
    block[184 / 4] = (uint32_t)strtoul(args[1], NULL, 0);
    if (result == 0)
        result = ioctl(fd, LAYER_CONTROL, block);
    puts(error_name(result));
    return 0;
}

static int command_stat(char **args)
{
    struct stat by_path, by_fd;
    struct statx extended;
    if (stat(args[0], &by_path) != 0 || lstat(args[0], &by_fd) != 0 || fstatat(AT_FDCWD, args[0], &by_fd, 0) != 0 ||
        statx(AT_FDCWD, args[0], 0, STATX_BASIC_STATS, &extended) != 0) {
        printf("%s access %s\n", error_name(-1), error_name(access(args[0], R_OK)));
        return 0;
    }
    fstat(open_device(args[0]), &by_fd);
    printf("%d %d %d %u:%u %u:%u %ld access %s\n", S_ISCHR(by_path.st_mode), S_ISCHR(by_fd.st_mode),
           S_ISCHR(extended.stx_mode), major(by_path.st_rdev), minor(by_path.st_rdev), extended.stx_rdev_major,
           extended.stx_rdev_minor, (long)by_path.st_size,
           error_name(access(args[0], R_OK | W_OK) | faccessat(AT_FDCWD, args[0], W_OK, AT_EACCESS) |
                      euidaccess(args[0], R_OK)));
    return 0;
}

/* With every descriptor in use an ioctl still works. */
static int command_full(char **args)
{
    const int fd = open_device(args[0]);
    while (dup(fd) >= 0)
        ;
    printf("%s ", error_name(-1));
    print_device(fd);
    close_range((unsigned)fd + 1, ~0u, 0); /* a sanitizer's last words need some */
    return 0;
}

static int command_env(char **args)
{
    for (; *args != NULL; args++)
        printf("%s\n", getenv(*args) != NULL ? getenv(*args) : "(unset)");
    return 0;
}

static volatile sig_atomic_t caught;

static void catch (int number)
{
    caught = number;
}

/* Ends with the number of the first signal that comes in. */
static int command_signals(char **args)
{
    sigset_t none, all;
    (void)args;
    sigemptyset(&none);
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, NULL);
    for (int number = 1; number < 32; number++)
        signal(number, catch);
    say_ready();
    while (caught == 0)
        sigsuspend(&none);
    return caught;
}

static int command_wait(char **args)
{
    (void)args;
    say_ready();
    pause();
    return 0;
}

static int command_exit(char **args)
{
    return atoi(args[0]);
}

static int command_kill(char **args)
{
    signal(atoi(args[0]), SIG_DFL); /* a sanitizer's handler would end the program in its own way */
    raise(atoi(args[0]));
    return 0;
}

static const struct {
    const char *word;
    int (*run)(char **args);
    int args;
} commands[] = {
    {"open", command_open, 3},   {"info", command_info, 1},       {"draw", command_draw, 2},
    {"map", command_map, 3},     {"animate", command_animate, 2}, {"efault", command_efault, 2},
    {"ioctl", command_ioctl, 2}, {"set", command_set, 3},         {"duplicates", command_duplicates, 1},
    {"put", command_put, 3},     {"layer", command_layer, 1},     {"enable", command_enable, 2},
    {"stat", command_stat, 1},   {"full", command_full, 1},       {"constructor", command_constructor, 0},
    {"env", command_env, 1},     {"wait", command_wait, 0},       {"signals", command_signals, 0},
    {"exit", command_exit, 1},   {"kill", command_kill, 1},
};

int main(int argc, char **argv)
{
    for (size_t i = 0; i < sizeof commands / sizeof commands[0]; i++)
        if (argc > 1 && strcmp(argv[1], commands[i].word) == 0 && argc - 2 >= commands[i].args)
            return commands[i].run(argv + 2);
    fprintf(stderr, "fb_probe: no such command\n");
    return 3;
}
