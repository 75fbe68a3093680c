// SPDX-License-Identifier: MIT
#include "verbs.h"

#include "../panelimage/message.h"
#include "pixels.h"
#include "surface.h"
#include "values.h"

namespace {

char *size_text;

const GOptionEntry ENTRIES[] = {
    {"size", 's', 0, G_OPTION_ARG_STRING, &size_text, "Size of the surface in pixels", "WxH"},
    SURFACE_OPTION_ENTRIES,
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "COLOUR",
    "Shows a rectangle of one colour: a name (red), #rgb, #rrggbb, or with alpha #rgba, #rrggbbaa.",
    SURFACE_TEXT,
    false,
};

} // namespace

int verb_fill(int argc, char **argv)
{
    if (!surface_parse(TEXT, ENTRIES, &argc, &argv))
        return STATUS_USAGE;
    if (argc != 2 || size_text == nullptr) {
        complain("fill takes one colour, and a --size (see --help)");
        return STATUS_USAGE;
    }
    SurfaceWish wish = {PFB_FORMAT_XRGB32, 0, 0, nullptr};
    uint32_t colour = 0;
    if (!value_colour("fill", argv[1], &colour) || !value_size("--size", size_text, &wish.width, &wish.height))
        return STATUS_USAGE;
    if (colour >> 24 != 0xff) {
        wish.format = PFB_FORMAT_ARGB32;
        wish.alpha_use = "the colour comes out darker and opaque";
    }
    return surface_run(wish, [&](pfb_client *client) {
        pixels_fill(client, wish.format, pixels_premultiply(colour));
        return true;
    });
}
