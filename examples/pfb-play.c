/* SPDX-License-Identifier: MIT */
/* pfb-play WIDTH HEIGHT [X Y] - shows raw 32-bit frames from standard input at the pace at which they come:
 *	ffmpeg -re -i FILM -f rawvideo -pix_fmt bgr0 -s 320x240 - | pfb-play 320 240 */
#include <pfb.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The surface's rows may be longer than the film's. */
static void copy(pfb_client *client, const char *frame)
{
    const size_t row = (size_t)pfb_width(client) * 4;
    for (int y = 0; y < pfb_height(client); y++, frame += row)
        memcpy((char *)pfb_pixels(client) + (ptrdiff_t)y * pfb_stride(client), frame, row);
}

/* Frames are read whole before the screen is locked: a slow film must not hold up the others. */
static int play(pfb_client *client, char *frame)
{
    const int width = pfb_width(client), height = pfb_height(client);
    while (fread(frame, (size_t)width * 4, (size_t)height, stdin) == (size_t)height) {
        if (pfb_lock(client, 0, 0, width, height) != PFB_OK)
            return pfb_error();
        copy(client, frame);
        if (pfb_unlock(client) != PFB_OK || pfb_show(client) != PFB_OK)
            return pfb_error();
    }
    return PFB_OK;
}

int main(int argc, char **argv)
{
    if (argc != 3 && argc != 5) {
        fprintf(stderr, "usage: pfb-play WIDTH HEIGHT [X Y]\n");
        return 2;
    }
    const int width = atoi(argv[1]), height = atoi(argv[2]);
    const int x = argc == 5 ? atoi(argv[3]) : 0, y = argc == 5 ? atoi(argv[4]) : 0;
    pfb_client *client = pfb_connect("play");
    int result = client != NULL ? pfb_create(client, PFB_FORMAT_XRGB32, x, y, width, height, 0, 0) : pfb_error();
    if (result == PFB_OK) {
        char *frame = malloc((size_t)width * 4 * (size_t)height);
        result = frame != NULL ? play(client, frame) : PFB_ERROR_MEMORY;
        free(frame);
    }
    if (result != PFB_OK)
        fprintf(stderr, "pfb-play: %s\n", pfb_error_text());
    pfb_disconnect(client);
    return result == PFB_OK ? 0 : 1;
}
