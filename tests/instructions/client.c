/* SPDX-License-Identifier: MIT */
/* client PANEL SERVER SCENE N - shows a surface and updates it N times, each time waiting until the pixels are in the
 * file PANEL. The scenes: one (a tile at a time), adjacent (a block of 16 tiles) and scattered (16 tiles apart). The
 * server, the process SERVER, is stopped while the 16 are reported, so that it always finds all of them. */
#include <fcntl.h>
#include <pfb.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>

enum { PITCH = 480, ROWS = 272, SIZE = 128, TILE = 8, SIDE = 4, LIMIT_S = 30 };

static volatile const uint32_t *panel;

static void fail(const char *what)
{
    fprintf(stderr, "client: %s\n", what);
    exit(1);
}

static void wait_for(int x, int y, uint32_t colour)
{
    const time_t until = time(NULL) + LIMIT_S;
    while (panel[y * PITCH + x] != colour) {
        if (time(NULL) > until)
            fail("the pixel does not come");
        sched_yield();
    }
}

static char state_of(const char *process)
{
    char path[64], line[512] = "";
    snprintf(path, sizeof path, "/proc/%s/stat", process);
    FILE *file = fopen(path, "r");
    if (file == NULL || fgets(line, sizeof line, file) == NULL)
        fail("the server is gone");
    fclose(file);
    const char *name_end = strrchr(line, ')');
    return name_end != NULL ? name_end[2] : '?';
}

static void wait_for_state(const char *process, char state)
{
    const time_t until = time(NULL) + LIMIT_S;
    while (state_of(process) != state) {
        if (time(NULL) > until)
            fail("the server does not come to rest");
        sched_yield();
    }
}

static void fill(pfb_client *client, int x0, int y0, int size, uint32_t colour)
{
    uint32_t *pixels = pfb_pixels(client);
    for (int y = y0; y < y0 + size; y++)
        for (int x = x0; x < x0 + size; x++)
            pixels[y * pfb_stride(client) / 4 + x] = colour;
}

static void update_tile(pfb_client *client, int x, int y, uint32_t colour)
{
    fill(client, x, y, TILE, colour);
    if (pfb_dirty(client, x, y, TILE, TILE) != PFB_OK)
        fail(pfb_error_text());
}

static void update_tiles(pfb_client *client, const char *server, int step, uint32_t colour)
{
    wait_for_state(server, 'S');
    kill(atoi(server), SIGSTOP);
    wait_for_state(server, 'T');
    for (int i = 0; i < SIDE * SIDE; i++)
        update_tile(client, i % SIDE * step, i / SIDE * step, colour);
    kill(atoi(server), SIGCONT);
    for (int i = 0; i < SIDE * SIDE; i++)
        wait_for(i % SIDE * step + TILE - 1, i / SIDE * step + TILE - 1, colour);
}

int main(int argc, char **argv)
{
    const int fd = argc == 5 ? open(argv[1], O_RDONLY) : -1;
    panel = mmap(NULL, PITCH * ROWS * 4, PROT_READ, MAP_SHARED, fd, 0);
    pfb_client *client = pfb_connect("count");
    if (fd < 0 || panel == MAP_FAILED || client == NULL ||
        pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, SIZE, SIZE, 0, 0) != PFB_OK)
        fail(pfb_error_text());
    fill(client, 0, 0, SIZE, 1);
    pfb_show(client);
    wait_for(SIZE - 1, SIZE - 1, 1);
    const int step = strcmp(argv[3], "scattered") == 0 ? 3 * TILE : TILE;
    for (uint32_t i = 0; i < (uint32_t)atoi(argv[4]); i++) {
        if (strcmp(argv[3], "one") != 0) {
            update_tiles(client, argv[2], step, i + 2);
        } else {
            update_tile(client, 0, 0, i + 2);
            wait_for(TILE - 1, TILE - 1, i + 2);
        }
    }
    pfb_disconnect(client);
}
