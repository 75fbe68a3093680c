/* SPDX-License-Identifier: MIT */
/* client PANEL N - shows a surface and updates it N times, each time waiting until the pixels are in the file PANEL. */
#include <fcntl.h>
#include <pfb.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>

enum { PITCH = 480, ROWS = 272, SIZE = 64, PART = 8, LIMIT_S = 30 };

static void wait_for(const volatile uint32_t *pixel, uint32_t colour)
{
    const time_t until = time(NULL) + LIMIT_S;
    while (*pixel != colour) {
        if (time(NULL) > until) {
            fprintf(stderr, "client: the pixel does not come\n");
            exit(1);
        }
        sched_yield();
    }
}

static void fill(pfb_client *client, int size, uint32_t colour)
{
    uint32_t *pixels = pfb_pixels(client);
    for (int y = 0; y < size; y++)
        for (int x = 0; x < size; x++)
            pixels[y * pfb_stride(client) / 4 + x] = colour;
}

int main(int argc, char **argv)
{
    const int fd = argc == 3 ? open(argv[1], O_RDONLY) : -1;
    const volatile uint32_t *panel = mmap(NULL, PITCH * ROWS * 4, PROT_READ, MAP_SHARED, fd, 0);
    pfb_client *client = pfb_connect("count");
    if (fd < 0 || panel == MAP_FAILED || client == NULL ||
        pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, SIZE, SIZE, 0, 0) != PFB_OK) {
        fprintf(stderr, "client: %s\n", pfb_error_text());
        return 1;
    }
    fill(client, SIZE, 1);
    pfb_show(client);
    wait_for(panel + (SIZE - 1) * PITCH + SIZE - 1, 1);
    for (uint32_t i = 0; i < (uint32_t)atoi(argv[2]); i++) {
        fill(client, PART, i + 2);
        if (pfb_dirty(client, 0, 0, PART, PART) != PFB_OK)
            return 1;
        wait_for(panel + (PART - 1) * PITCH + PART - 1, i + 2);
    }
    pfb_disconnect(client);
}
