/* SPDX-License-Identifier: MIT */
/* hello [SECONDS] - a blue rectangle with an orange edge, until the time is over or Ctrl-C. */
#include <pfb.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { WIDTH = 200, HEIGHT = 120, EDGE = 4 };

int main(int argc, char **argv)
{
    pfb_client *client = pfb_connect("hello");
    if (client == NULL || pfb_create(client, PFB_FORMAT_XRGB32, 60, 40, WIDTH, HEIGHT, 0, 0) != PFB_OK) {
        fprintf(stderr, "%s\n", pfb_error_text());
        pfb_disconnect(client);
        return 1;
    }
    for (int y = 0; y < HEIGHT; y++) {
        uint32_t *row = (uint32_t *)((char *)pfb_pixels(client) + (ptrdiff_t)y * pfb_stride(client));
        for (int x = 0; x < WIDTH; x++) {
            const int inside = x >= EDGE && y >= EDGE && x < WIDTH - EDGE && y < HEIGHT - EDGE;
            row[x] = inside ? 0xff2060c0 : 0xffff8000;
        }
    }
    pfb_show(client);
    /* When the server ends meanwhile, the library finds the next one. */
    struct pollfd server = {pfb_poll_fd(client), POLLIN, 0};
    const time_t end = time(NULL) + (argc > 1 ? atoi(argv[1]) : 5);
    while (time(NULL) < end) {
        if (poll(&server, 1, 1000) > 0)
            pfb_dispatch(client);
    }
    pfb_disconnect(client);
    return 0;
}
