/* SPDX-License-Identifier: MIT */
/* clock [X Y] - a translucent clock over whatever is below, drawn by Cairo straight into the surface once a second. */
#include <cairo.h>
#include <math.h>
#include <pfb.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { SIZE = 100, CENTRE = SIZE / 2 };

static void draw_hand(cairo_t *cr, double turn, double length, double width)
{
    cairo_set_line_width(cr, width);
    cairo_move_to(cr, CENTRE, CENTRE);
    cairo_line_to(cr, CENTRE + length * sin(2 * M_PI * turn), CENTRE - length * cos(2 * M_PI * turn));
    cairo_stroke(cr);
}

static void draw(cairo_t *cr)
{
    const time_t now = time(NULL);
    const struct tm *t = localtime(&now);
    cairo_set_operator(cr, CAIRO_OPERATOR_CLEAR);
    cairo_paint(cr);
    cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
    cairo_set_source_rgba(cr, 1, 1, 1, 0.5);
    cairo_arc(cr, CENTRE, CENTRE, CENTRE - 1, 0, 2 * M_PI);
    cairo_fill(cr);
    cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    draw_hand(cr, (t->tm_hour % 12 + t->tm_min / 60.0) / 12, 24, 5);
    draw_hand(cr, t->tm_min / 60.0, 36, 3);
    draw_hand(cr, t->tm_sec / 60.0, 42, 1);
}

int main(int argc, char **argv)
{
    const int x = argc > 2 ? atoi(argv[1]) : 20, y = argc > 2 ? atoi(argv[2]) : 20;
    pfb_client *client = pfb_connect("clock");
    if (client == NULL || pfb_create(client, PFB_FORMAT_ARGB32, x, y, SIZE, SIZE, 10, 0) != PFB_OK) {
        fprintf(stderr, "%s\n", pfb_error_text());
        return 1;
    }
    cairo_surface_t *surface =
        cairo_image_surface_create_for_data(pfb_pixels(client), CAIRO_FORMAT_ARGB32, SIZE, SIZE, pfb_stride(client));
    cairo_t *cr = cairo_create(surface);
    pfb_show(client);
    struct pollfd server = {pfb_poll_fd(client), POLLIN, 0};
    while (pfb_lock(client, 0, 0, SIZE, SIZE) == PFB_OK) { /* nobody sees a clock without hands */
        draw(cr);
        pfb_unlock(client);
        if (poll(&server, 1, 1000) > 0)
            pfb_dispatch(client); /* the server has ended: the library finds the next one */
    }
    fprintf(stderr, "%s\n", pfb_error_text());
    return 1;
}
