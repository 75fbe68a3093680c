/* SPDX-License-Identifier: MIT */
/*
 * A pane of tinted glass with text on it, that moves over whatever is below: 32-bit pixels with alpha, drawn once by
 * Cairo and Pango straight into the shared memory, and then only moved. Cairo's ARGB32 is what the server blends.
 */
#include "example.h"

#include <math.h>
#include <pango/pangocairo.h>
#include <stdlib.h>

#define RADIUS 22.0 /* pixels */
#define PERIOD 9.0  /* seconds for one round */

static int travel_x = 60, travel_y = 18;
static char *title = "Espresso", *text = "92.4 °C  ·  9.1 bar  ·  25 s";
static const GOptionEntry own_options[] = {
    {"title", 't', 0, G_OPTION_ARG_STRING, &title, "The large line", "TEXT"},
    {"text", 'T', 0, G_OPTION_ARG_STRING, &text, "The small line", "TEXT"},
    {"travel-x", 0, 0, G_OPTION_ARG_INT, &travel_x, "How far it moves to either side", "PIXELS"},
    {"travel-y", 0, 0, G_OPTION_ARG_INT, &travel_y, "How far it moves up and down", "PIXELS"},
    {NULL, 0, 0, G_OPTION_ARG_NONE, NULL, NULL, NULL},
};

static void rounded_rectangle(cairo_t *cr, double x, double y, double w, double h, double r)
{
    cairo_new_sub_path(cr);
    cairo_arc(cr, x + w - r, y + r, r, -G_PI / 2, 0);
    cairo_arc(cr, x + w - r, y + h - r, r, 0, G_PI / 2);
    cairo_arc(cr, x + r, y + h - r, r, G_PI / 2, G_PI);
    cairo_arc(cr, x + r, y + r, r, G_PI, 3 * G_PI / 2);
    cairo_close_path(cr);
}

/* Tinted, lighter towards its upper edge, with a bright rim. Where nothing shines through it, it fills the rectangle.
 */
static void draw_pane(cairo_t *cr, double w, double h, bool clear)
{
    cairo_pattern_t *tint = cairo_pattern_create_linear(0, 0, 0, h);
    cairo_pattern_add_color_stop_rgba(tint, 0, 0.16, 0.20, 0.30, clear ? 0.62 : 1);
    cairo_pattern_add_color_stop_rgba(tint, 1, 0.05, 0.07, 0.12, clear ? 0.72 : 1);
    rounded_rectangle(cr, 0.75, 0.75, w - 1.5, h - 1.5, clear ? RADIUS : 0);
    cairo_set_source(cr, tint);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(tint);
    cairo_set_source_rgba(cr, 1, 1, 1, 0.45);
    cairo_set_line_width(cr, 1.5);
    cairo_stroke(cr);
}

static void draw_line(cairo_t *cr, const char *font, const char *line, double x, double y)
{
    PangoLayout *layout = pango_cairo_create_layout(cr);
    PangoFontDescription *description = pango_font_description_from_string(font);
    pango_layout_set_font_description(layout, description);
    pango_layout_set_text(layout, line, -1);
    cairo_move_to(cr, x, y);
    pango_cairo_show_layout(cr, layout);
    pango_font_description_free(description);
    g_object_unref(layout);
}

static void draw(pfb_client *client, bool clear)
{
    const int w = pfb_width(client), h = pfb_height(client);
    cairo_surface_t *surface =
        cairo_image_surface_create_for_data(pfb_pixels(client), CAIRO_FORMAT_ARGB32, w, h, pfb_stride(client));
    cairo_t *cr = cairo_create(surface);
    draw_pane(cr, w, h, clear);
    cairo_set_source_rgba(cr, 1, 1, 1, 0.96);
    draw_line(cr, "Sans Bold 30px", title, 26, h / 2.0 - 44);
    cairo_set_source_rgba(cr, 1, 0.86, 0.66, 0.96);
    draw_line(cr, "Sans 17px", text, 27, h / 2.0 + 10);
    cairo_destroy(cr);
    cairo_surface_finish(surface);
    cairo_surface_destroy(surface);
}

int main(int argc, char **argv)
{
    example_options = (struct example_options){
        .name = "glass", .x = 120, .y = 40, .width = 320, .height = 130, .level = 3, .rate = 60};
    if (!example_start(&argc, &argv, "A translucent pane with text, moving.", own_options, PFB_FORMAT_ARGB32))
        return EXIT_FAILURE;
    pfb_client *client = example_client();
    int depth = 0;
    if (!example_check(pfb_get_color_depth(client, &depth)))
        return example_end();
    draw(client, depth >= 24); /* screens of fewer bits ignore alpha */
    example_check(pfb_show(client));
    while (example_next_frame()) {
        const double angle = 2 * G_PI * example_time() / PERIOD;
        const double x = example_options.x + travel_x * sin(angle), y = example_options.y + travel_y * sin(2 * angle);
        if (!example_check(pfb_move(client, (int)lround(x), (int)lround(y))))
            break;
    }
    return example_end();
}
