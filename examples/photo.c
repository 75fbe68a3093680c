/* SPDX-License-Identifier: MIT */
/* A picture file, scaled so that it fills a 32-bit surface; what does not fit is cut off evenly. */
#include "example.h"

#include <gdk-pixbuf/gdk-pixbuf.h>
#include <stdio.h>
#include <stdlib.h>

static char **files;
static const GOptionEntry own_options[] = {
    {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &files, NULL, "FILE"},
    {NULL, 0, 0, G_OPTION_ARG_NONE, NULL, NULL, NULL},
};

/* The picture upright and opaque, on black, at the surface's size. NULL after a message. */
static GdkPixbuf *load(const char *file, int width, int height)
{
    GError *error = NULL;
    GdkPixbuf *raw = gdk_pixbuf_new_from_file(file, &error);
    if (raw == NULL) {
        fprintf(stderr, "%s: %s\n", g_get_prgname(), error->message);
        g_error_free(error);
        return NULL;
    }
    GdkPixbuf *picture = gdk_pixbuf_apply_embedded_orientation(raw);
    GdkPixbuf *scaled = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, width, height);
    const double w = gdk_pixbuf_get_width(picture), h = gdk_pixbuf_get_height(picture);
    const double scale = MAX(width / w, height / h);
    gdk_pixbuf_fill(scaled, 0x000000ff);
    gdk_pixbuf_composite(picture, scaled, 0, 0, width, height, (width - w * scale) / 2, (height - h * scale) / 2, scale,
                         scale, GDK_INTERP_BILINEAR, 255);
    g_object_unref(picture);
    g_object_unref(raw);
    return scaled;
}

/* Three bytes red, green, blue become one word 0xffRRGGBB. */
static void copy(const GdkPixbuf *picture, pfb_client *client)
{
    for (int y = 0; y < pfb_height(client); y++) {
        const uint8_t *from = gdk_pixbuf_read_pixels(picture) + (ptrdiff_t)y * gdk_pixbuf_get_rowstride(picture);
        uint32_t *to = (uint32_t *)((char *)pfb_pixels(client) + (ptrdiff_t)y * pfb_stride(client));
        for (int x = 0; x < pfb_width(client); x++, from += 3)
            to[x] = 0xff000000u | (uint32_t)from[0] << 16 | (uint32_t)from[1] << 8 | from[2];
    }
}

int main(int argc, char **argv)
{
    example_options = (struct example_options){.name = "photo", .width = 800, .height = 480};
    if (!example_start(&argc, &argv, "Shows a PNG, JPEG or other picture.", own_options, PFB_FORMAT_XRGB32))
        return EXIT_FAILURE;
    GdkPixbuf *picture = NULL;
    if (files != NULL && files[0] != NULL)
        picture = load(files[0], example_options.width, example_options.height);
    else
        fprintf(stderr, "%s: which FILE? (see --help)\n", g_get_prgname());
    if (picture == NULL) {
        example_end();
        return EXIT_FAILURE;
    }
    copy(picture, example_client());
    g_object_unref(picture);
    if (example_check(pfb_show(example_client())))
        while (example_next_frame())
            ;
    return example_end();
}
