// SPDX-License-Identifier: MIT
#include "verbs.h"

#include <algorithm>
#include <cairo.h>
#include <cstring>
#include <pango/pangocairo.h>

#include "../panelimage/message.h"
#include "surface.h"
#include "values.h"

namespace {

char *font, *colour_text, *background_text, *align_text;
int wrap_width, padding = -1;
gboolean markup;

const GOptionEntry ENTRIES[] = {
    {"font", 'F', 0, G_OPTION_ARG_STRING, &font, "Font as Pango names it (Sans 24)", "FONT"},
    {"colour", 'c', 0, G_OPTION_ARG_STRING, &colour_text, "Colour of the words (white)", "COLOUR"},
    {"background", 'b', 0, G_OPTION_ARG_STRING, &background_text, "Colour behind them (black; none)", "COLOUR"},
    {"width", 'w', 0, G_OPTION_ARG_INT, &wrap_width, "Break lines at this width (never)", "PIXELS"},
    {"align", 0, 0, G_OPTION_ARG_STRING, &align_text, "left, centre or right (left)", "SIDE"},
    {"padding", 'p', 0, G_OPTION_ARG_INT, &padding, "Room around the words (a third of the font's size)", "PIXELS"},
    {"markup", 'm', 0, G_OPTION_ARG_NONE, &markup, "The words hold Pango's markup: <b>bold</b>", nullptr},
    SURFACE_OPTION_ENTRIES,
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "WORDS",
    "Shows words, on a surface of their size.",
    "A background of \"none\" is transparent, on screens of 32 bits.\n" SURFACE_TEXT,
    false,
};

const char *font_name()
{
    return font != nullptr ? font : "Sans 24";
}

int default_padding()
{
    PangoFontDescription *description = pango_font_description_from_string(font_name());
    const int size = PANGO_PIXELS(pango_font_description_get_size(description));
    pango_font_description_free(description);
    return size / 3;
}

struct Look {
    uint32_t colour, background; // 0xAARRGGBB
    PangoAlignment align;
    int padding; // pixels
};

bool parse_align(PangoAlignment *align)
{
    static const struct {
        const char *word;
        PangoAlignment align;
    } SIDES[] = {{"left", PANGO_ALIGN_LEFT},
                 {"centre", PANGO_ALIGN_CENTER},
                 {"center", PANGO_ALIGN_CENTER},
                 {"right", PANGO_ALIGN_RIGHT}};
    for (const auto &side : SIDES) {
        if (align_text == nullptr || strcmp(align_text, side.word) == 0) {
            *align = side.align;
            return true;
        }
    }
    complain("--align: %s is neither left, centre nor right", align_text);
    return false;
}

bool parse_look(Look *look)
{
    const char *background = background_text != nullptr ? background_text : "black";
    if (!value_colour("--colour", colour_text != nullptr ? colour_text : "white", &look->colour))
        return false;
    look->background = 0;
    return (strcmp(background, "none") == 0 || value_colour("--background", background, &look->background)) &&
           parse_align(&look->align);
}

// The words go in unchanged, or by markup. False after a message.
bool set_words(PangoLayout *layout, const char *words)
{
    GError *error = nullptr;
    if (!g_utf8_validate(words, -1, nullptr)) {
        complain("the words are not UTF-8");
        return false;
    }
    if (!markup) {
        pango_layout_set_text(layout, words, -1);
        return true;
    }
    if (!pango_parse_markup(words, -1, 0, nullptr, nullptr, nullptr, &error)) {
        complain("%s", error->message);
        g_error_free(error);
        return false;
    }
    pango_layout_set_markup(layout, words, -1);
    return true;
}

// Null after a message.
PangoLayout *lay_out(const char *words, const Look &look)
{
    PangoContext *context = pango_font_map_create_context(pango_cairo_font_map_get_default());
    PangoLayout *layout = pango_layout_new(context);
    PangoFontDescription *description = pango_font_description_from_string(font_name());
    pango_layout_set_font_description(layout, description);
    pango_layout_set_alignment(layout, look.align);
    if (wrap_width > 0)
        pango_layout_set_width(layout, std::max(wrap_width - 2 * look.padding, 1) * PANGO_SCALE);
    pango_font_description_free(description);
    g_object_unref(context);
    if (set_words(layout, words))
        return layout;
    g_object_unref(layout);
    return nullptr;
}

void set_source(cairo_t *cairo, uint32_t colour)
{
    const auto channel = [colour](int shift) { return (colour >> shift & 0xff) / 255.0; };
    cairo_set_source_rgba(cairo, channel(16), channel(8), channel(0), channel(24));
}

void draw(pfb_client *client, PangoLayout *layout, const PangoRectangle &extents, const Look &look)
{
    cairo_surface_t *surface =
        cairo_image_surface_create_for_data(static_cast<unsigned char *>(pfb_pixels(client)), CAIRO_FORMAT_ARGB32,
                                            pfb_width(client), pfb_height(client), pfb_stride(client));
    cairo_t *cairo = cairo_create(surface);
    cairo_set_operator(cairo, CAIRO_OPERATOR_SOURCE);
    set_source(cairo, look.background);
    cairo_paint(cairo);
    cairo_set_operator(cairo, CAIRO_OPERATOR_OVER);
    set_source(cairo, look.colour);
    cairo_move_to(cairo, look.padding - extents.x, look.padding - extents.y);
    pango_cairo_show_layout(cairo, layout);
    cairo_destroy(cairo);
    cairo_surface_destroy(surface);
}

// What the words cover, with room for strokes that reach beyond their line.
PangoRectangle extents_of(PangoLayout *layout)
{
    PangoRectangle ink, logical;
    pango_layout_get_pixel_extents(layout, &ink, &logical);
    const int x2 = std::max(ink.x + ink.width, logical.x + logical.width);
    const int y2 = std::max(ink.y + ink.height, logical.y + logical.height);
    const int x1 = std::min(ink.x, logical.x), y1 = std::min(ink.y, logical.y);
    return {x1, y1, std::max(x2 - x1, 1), std::max(y2 - y1, 1)};
}

int show(PangoLayout *layout, Look look)
{
    const PangoRectangle extents = extents_of(layout);
    SurfaceWish wish = {PFB_FORMAT_ARGB32, extents.width + 2 * look.padding, extents.height + 2 * look.padding,
                        nullptr};
    if (look.background >> 24 == 0xff)
        wish.format = PFB_FORMAT_XRGB32;
    else
        wish.alpha_use = "give an opaque --background";
    return surface_run(wish, [&](pfb_client *client) {
        draw(client, layout, extents, look);
        return true;
    });
}

} // namespace

int verb_text(int argc, char **argv)
{
    Look look;
    if (!surface_parse(TEXT, ENTRIES, &argc, &argv) || !parse_look(&look))
        return STATUS_USAGE;
    if (argc != 2 || padding < -1 || padding > 10000) {
        complain("text takes its words as one argument, and a --padding up to 10000 (see --help)");
        return STATUS_USAGE;
    }
    look.padding = padding >= 0 ? padding : default_padding();
    PangoLayout *layout = lay_out(argv[1], look);
    if (layout == nullptr)
        return STATUS_USAGE;
    const int status = show(layout, look);
    g_object_unref(layout);
    return status;
}
