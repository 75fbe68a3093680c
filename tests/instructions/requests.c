/* SPDX-License-Identifier: MIT */
/* requests WORD N - shows a surface and sends N requests: "dirty" or "move". As many as fit into the socket, so that it
 * never waits. */
#include <pfb.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { SIZE = 64, PART = 8 };

static int request(pfb_client *client, const char *word, int i)
{
    if (strcmp(word, "dirty") == 0)
        return pfb_dirty(client, 0, 0, PART, PART);
    return pfb_move(client, i % 2, 0);
}

int main(int argc, char **argv)
{
    int depth;
    pfb_client *client = pfb_connect("count");
    if (argc != 3 || client == NULL || pfb_create(client, PFB_FORMAT_XRGB32, 1, 0, SIZE, SIZE, 0, 0) != PFB_OK ||
        pfb_show(client) != PFB_OK || pfb_get_color_depth(client, &depth) != PFB_OK) {
        fprintf(stderr, "requests: %s\n", pfb_error_text());
        return 1;
    }
    for (int i = 0; i < atoi(argv[2]); i++)
        if (request(client, argv[1], i) != PFB_OK)
            return 1;
    pfb_disconnect(client);
}
