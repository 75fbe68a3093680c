// SPDX-License-Identifier: MIT
#include "verbs.h"

#include <cmath>
#include <cstddef>
#include <gdk-pixbuf/gdk-pixbuf.h>

#include "../panelimage/message.h"
#include "pixels.h"
#include "surface.h"
#include "values.h"

namespace {

char *size_text, *scale_text;
double opacity = 100;

const GOptionEntry ENTRIES[] = {
    {"size", 's', 0, G_OPTION_ARG_STRING, &size_text, "Resample the picture to this size, smoothly", "WxH"},
    {"scale", 'S', 0, G_OPTION_ARG_STRING, &scale_text, "Let the server stretch the surface to this size", "WxH"},
    {"alpha", 'A', 0, G_OPTION_ARG_DOUBLE, &opacity, "Opacity of the whole picture (100)", "PERCENT"},
    SURFACE_OPTION_ENTRIES,
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "FILE",
    "Shows a picture file: PNG, JPEG, or whatever else this system's gdk-pixbuf reads. What is translucent in the "
    "file\n"
    "is translucent on the screen.",
    SURFACE_TEXT,
    false,
};

// What was asked for; 0 x 0: nothing was.
struct Size {
    int width, height;
};

bool parse_size(const char *option, const char *text, Size *size)
{
    return text == nullptr || value_size(option, text, &size->width, &size->height);
}

GdkPixbuf *complain_of(GError *error)
{
    complain("%s", error->message);
    g_error_free(error);
    return nullptr;
}

// Takes over the picture.
GdkPixbuf *resample(GdkPixbuf *picture, const Size &size)
{
    GdkPixbuf *sized = gdk_pixbuf_scale_simple(picture, size.width, size.height, GDK_INTERP_BILINEAR);
    g_object_unref(picture);
    if (sized == nullptr)
        complain("no memory for %d x %d pixels", size.width, size.height);
    return sized;
}

// Upright, as a camera's note in the file says, and of the size. Null after a message.
GdkPixbuf *load(const char *file, const Size &size)
{
    GError *error = nullptr;
    GdkPixbuf *raw = gdk_pixbuf_new_from_file(file, &error);
    if (raw == nullptr)
        return complain_of(error);
    GdkPixbuf *picture = gdk_pixbuf_apply_embedded_orientation(raw);
    g_object_unref(raw);
    return size.width == 0 ? picture : resample(picture, size);
}

bool is_translucent(const GdkPixbuf *picture)
{
    return opacity < 100 || gdk_pixbuf_get_has_alpha(picture);
}

void copy_row(const uint8_t *from, int channels, int width, uint32_t *to)
{
    for (int x = 0; x < width; x++, from += channels) {
        const double alpha = channels == 4 ? from[3] : 255;
        const auto scaled = static_cast<uint32_t>(std::lround(alpha * opacity / 100));
        to[x] = pixels_premultiply(scaled << 24 | uint32_t{from[0]} << 16 | uint32_t{from[1]} << 8 | from[2]);
    }
}

void copy(const GdkPixbuf *picture, pfb_client *client)
{
    for (int y = 0; y < pfb_height(client); y++) {
        const uint8_t *row = gdk_pixbuf_read_pixels(picture) + std::ptrdiff_t{y} * gdk_pixbuf_get_rowstride(picture);
        copy_row(row, gdk_pixbuf_get_n_channels(picture), pfb_width(client), pixels_row(client, y));
    }
}

bool apply(const Size &scale, pfb_client *client)
{
    const SurfaceOptions &o = surface_options;
    return scale.width == 0 || pfb_set_scale(client, 0, 0, pfb_width(client), pfb_height(client), o.x, o.y, scale.width,
                                             scale.height) == PFB_OK;
}

int show(const GdkPixbuf *picture, const Size &scale)
{
    SurfaceWish wish = {PFB_FORMAT_XRGB32, gdk_pixbuf_get_width(picture), gdk_pixbuf_get_height(picture), nullptr};
    if (is_translucent(picture)) {
        wish.format = PFB_FORMAT_ARGB32;
        wish.alpha_use = "what is translucent in the picture comes out dark";
    }
    return surface_run(wish, [&](pfb_client *client) {
        copy(picture, client);
        return apply(scale, client);
    });
}

} // namespace

int verb_show(int argc, char **argv)
{
    if (!surface_parse(TEXT, ENTRIES, &argc, &argv) || !value_percent("--alpha", opacity))
        return STATUS_USAGE;
    Size size = {0, 0}, scale = {0, 0};
    if (argc != 2) {
        complain("show takes one picture file (see --help)");
        return STATUS_USAGE;
    }
    if (!parse_size("--size", size_text, &size) || !parse_size("--scale", scale_text, &scale))
        return STATUS_USAGE;
    GdkPixbuf *picture = load(argv[1], size);
    if (picture == nullptr)
        return STATUS_FAILED;
    const int status = show(picture, scale);
    g_object_unref(picture);
    return status;
}
