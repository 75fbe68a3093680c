// SPDX-License-Identifier: MIT
#include "verbs.h"

#include <algorithm>
#include <cmath>

#include "../panelimage/message.h"
#include "surface.h"
#include "values.h"

namespace {

constexpr int BRIGHTNESS_MAX = 254; // of 256: 255 would be white
char *size_text;

const GOptionEntry ENTRIES[] = {
    {"size", 's', 0, G_OPTION_ARG_STRING, &size_text, "Size of the veil in pixels", "WxH"},
    SURFACE_OPTION_ENTRIES,
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "PERCENT",
    "Dims what lies below a rectangle of the screen to PERCENT of its brightness: 0 is black, 99 nearly nothing.\n"
    "It needs a screen of 32 bits, and surfaces below it.",
    SURFACE_TEXT,
    false,
};

bool parse_percent(const char *text, double *percent)
{
    char *end = nullptr;
    *percent = g_ascii_strtod(text, &end);
    if (end != text && *end == '\0')
        return value_percent("veil", *percent);
    complain("veil: %s is no number", text);
    return false;
}

// In 256ths.
uint32_t brightness(double percent)
{
    return static_cast<uint32_t>(std::min<long>(std::lround(percent * 256 / 100), BRIGHTNESS_MAX));
}

} // namespace

int verb_veil(int argc, char **argv)
{
    if (!surface_parse(TEXT, ENTRIES, &argc, &argv))
        return STATUS_USAGE;
    if (argc != 2 || size_text == nullptr) {
        complain("veil takes a percentage, and a --size (see --help)");
        return STATUS_USAGE;
    }
    double percent = 0;
    SurfaceWish wish = {PFB_FORMAT_ARGB32, 0, 0, "it cannot be dimmed", true};
    if (!parse_percent(argv[1], &percent) || !value_size("--size", size_text, &wish.width, &wish.height))
        return STATUS_USAGE;
    return surface_run(wish, [&](pfb_client *client) {
        return pfb_set_color_plane(client, PFB_PLANE_VEIL(brightness(percent))) == PFB_OK;
    });
}
