/* SPDX-License-Identifier: MIT */
/*
 * A trace that runs through a 16-bit surface: drawn anew for each frame between pfb_lock and pfb_unlock, so that no
 * half-drawn one is ever seen. Cairo draws 16-bit pixels straight into the shared memory.
 */
#include "example.h"

#include <cairo.h>
#include <math.h>
#include <stdlib.h>

#define MARGIN 14.0 /* pixels around the graph */
#define SPAN 6.0    /* seconds that it is wide */
#define CYCLE 8.0   /* seconds from one rise to the next */

/* Something to look at: a pressure, 0 to 1, that builds up, holds with a ripple, and falls. */
static double pressure(double t)
{
    const double phase = t - floor(t / CYCLE) * CYCLE;
    const double rise = 1 / (1 + exp(-5 * (phase - 1.3)));
    const double fall = 1 / (1 + exp(4 * (phase - 6.4)));
    const double ripple = 0.035 * sin(9 * t) + 0.02 * sin(23 * t + 1);
    return 0.06 + 0.76 * rise * fall + ripple * rise * fall;
}

static void draw_background(cairo_t *cr, double w, double h)
{
    cairo_set_source_rgb(cr, 0.055, 0.075, 0.10);
    cairo_paint(cr);
    cairo_set_line_width(cr, 1);
    cairo_set_source_rgb(cr, 0.13, 0.18, 0.22);
    for (int i = 0; i <= 8; i++) {
        const double x = floor(MARGIN + i * (w - 2 * MARGIN) / 8) + 0.5;
        cairo_move_to(cr, x, MARGIN);
        cairo_line_to(cr, x, h - MARGIN);
    }
    for (int i = 0; i <= 4; i++) {
        const double y = floor(MARGIN + i * (h - 2 * MARGIN) / 4) + 0.5;
        cairo_move_to(cr, MARGIN, y);
        cairo_line_to(cr, w - MARGIN, y);
    }
    cairo_stroke(cr);
}

static void trace(cairo_t *cr, double w, double h, double t)
{
    const int length = (int)(w - 2 * MARGIN);
    for (int i = 0; i <= length; i++) {
        const double when = t - SPAN * (length - i) / length;
        cairo_line_to(cr, MARGIN + i, h - MARGIN - pressure(when) * (h - 2 * MARGIN));
    }
}

/* A glow below the line, the line itself, and a dot at its end. */
static void draw_trace(cairo_t *cr, double w, double h, double t)
{
    cairo_pattern_t *glow = cairo_pattern_create_linear(0, MARGIN, 0, h - MARGIN);
    cairo_pattern_add_color_stop_rgba(glow, 0, 0.20, 0.85, 0.75, 0.55);
    cairo_pattern_add_color_stop_rgba(glow, 1, 0.20, 0.85, 0.75, 0.04);
    trace(cr, w, h, t);
    cairo_line_to(cr, w - MARGIN, h - MARGIN);
    cairo_line_to(cr, MARGIN, h - MARGIN);
    cairo_close_path(cr);
    cairo_set_source(cr, glow);
    cairo_fill(cr);
    cairo_pattern_destroy(glow);

    trace(cr, w, h, t);
    cairo_set_source_rgb(cr, 0.35, 0.95, 0.82);
    cairo_set_line_width(cr, 2.5);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_stroke(cr);

    cairo_arc(cr, w - MARGIN, h - MARGIN - pressure(t) * (h - 2 * MARGIN), 5, 0, 2 * G_PI);
    cairo_set_source_rgb(cr, 1, 0.75, 0.3);
    cairo_fill(cr);
}

static void draw(cairo_t *cr, double w, double h)
{
    draw_background(cr, w, h);
    draw_trace(cr, w, h, example_time() + CYCLE / 2);
    cairo_surface_flush(cairo_get_target(cr));
}

int main(int argc, char **argv)
{
    example_options = (struct example_options){.name = "scope", .width = 360, .height = 200, .level = 2, .rate = 30};
    if (!example_start(&argc, &argv, "A running trace in a 16-bit surface.", NULL, PFB_FORMAT_RGB16))
        return EXIT_FAILURE;
    pfb_client *client = example_client();
    const int w = pfb_width(client), h = pfb_height(client);
    cairo_surface_t *surface =
        cairo_image_surface_create_for_data(pfb_pixels(client), CAIRO_FORMAT_RGB16_565, w, h, pfb_stride(client));
    cairo_t *cr = cairo_create(surface);
    draw(cr, w, h);
    example_check(pfb_show(client));
    while (example_next_frame() && example_check(pfb_lock(client, 0, 0, w, h))) {
        draw(cr, w, h);
        example_check(pfb_unlock(client));
    }
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    return example_end();
}
