/* SPDX-License-Identifier: MIT */
/*
 * A surface that dims what lies below it, by its colour plane. Its own pixels stay transparent: they show when it is
 * drawn alone. The plane is set before the surface is shown, since it counts from the next drawing on; after
 * that there is nothing to do, the server dims whatever is drawn below.
 */
#include "example.h"

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv)
{
    int brightness = 50;
    const GOptionEntry own_options[] = {
        {"brightness", 'b', 0, G_OPTION_ARG_INT, &brightness, "What is left of it, 0 to 99 (50)", "PERCENT"},
        {NULL, 0, 0, G_OPTION_ARG_NONE, NULL, NULL, NULL},
    };
    example_options = (struct example_options){.name = "veil", .width = 800, .height = 120, .level = 1};
    if (!example_start(&argc, &argv, "Dims a part of the screen.", own_options, PFB_FORMAT_ARGB32))
        return EXIT_FAILURE;
    pfb_client *client = example_client();
    int depth = 0;
    brightness = CLAMP(brightness, 0, 99);
    if (!example_check(pfb_get_color_depth(client, &depth)))
        return example_end();
    if (depth >= 24) {
        example_check(pfb_set_color_plane(client, PFB_PLANE_VEIL(brightness * 256 / 100)));
        example_check(pfb_show(client));
    } else {
        printf("%s: a screen of %d bits cannot be dimmed; the veil stays hidden\n", g_get_prgname(), depth);
    }
    while (example_next_frame())
        ;
    return example_end();
}
