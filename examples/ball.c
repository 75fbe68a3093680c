/* SPDX-License-Identifier: MIT */
/* ball - a ball that jumps about in a surface of 16-bit pixels; only what changes is locked, drawn and shown. */
#include <pfb.h>
#include <poll.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

enum { WIDTH = 120, HEIGHT = 90, RADIUS = 10, BACK = 0x0008, BALL = 0xffe0 };

static void fill(pfb_client *client, int x, int y, int width, int height, int ball_x, int ball_y)
{
    for (int row = y; row < y + height; row++) {
        uint16_t *pixel = (uint16_t *)((char *)pfb_pixels(client) + (ptrdiff_t)row * pfb_stride(client)) + x;
        for (int column = x; column < x + width; column++) {
            const int dx = column - ball_x, dy = row - ball_y;
            *pixel++ = dx * dx + dy * dy <= RADIUS * RADIUS ? BALL : BACK;
        }
    }
}

/* One step along an axis, turning round at its ends. */
static int step(int *position, int *speed, int size)
{
    if (*position + *speed < RADIUS || *position + *speed >= size - RADIUS)
        *speed = -*speed;
    *position += *speed;
    return *speed;
}

int main(void)
{
    pfb_client *client = pfb_connect("ball");
    if (client == NULL || pfb_create(client, PFB_FORMAT_RGB16, 20, 10, WIDTH, HEIGHT, 5, 0) != PFB_OK) {
        fprintf(stderr, "%s\n", pfb_error_text());
        return 1;
    }
    int x = WIDTH / 2, y = HEIGHT / 2, speed_x = 3, speed_y = 2;
    fill(client, 0, 0, WIDTH, HEIGHT, x, y);
    pfb_show(client);
    struct pollfd server = {pfb_poll_fd(client), POLLIN, 0};
    for (;;) {
        /* Where the ball is and where it is going to be. */
        const int dx = step(&x, &speed_x, WIDTH), dy = step(&y, &speed_y, HEIGHT);
        const int left = x - RADIUS - (dx > 0 ? dx : 0), top = y - RADIUS - (dy > 0 ? dy : 0);
        const int width = 2 * RADIUS + 1 + (dx > 0 ? dx : -dx), height = 2 * RADIUS + 1 + (dy > 0 ? dy : -dy);
        if (pfb_lock(client, left, top, width, height) != PFB_OK)
            break;
        fill(client, left, top, width, height, x, y);
        pfb_unlock(client);
        if (poll(&server, 1, 20) > 0)
            pfb_dispatch(client);
    }
    fprintf(stderr, "%s\n", pfb_error_text());
    return 1;
}
