/* SPDX-License-Identifier: MIT */
/* counter - a bar that grows, in a program that is run by a GLib main loop: time and the server are two of its sources.
 */
#include <glib-unix.h>
#include <pfb.h>
#include <stddef.h>
#include <stdio.h>

enum { WIDTH = 100, HEIGHT = 16, PERIOD_MS = 20 };

static gboolean on_server(int fd, GIOCondition condition, void *client)
{
    (void)fd, (void)condition;
    pfb_dispatch(client);
    return G_SOURCE_CONTINUE;
}

static void on_event(pfb_client *client, enum pfb_event event, void *data)
{
    (void)client, (void)data;
    if (event != PFB_EVENT_REDUCED)
        g_print("the server %s\n", event == PFB_EVENT_LOST ? "has ended" : "is back");
}

static gboolean on_time(void *client)
{
    static int length;
    length = (length + 1) % (WIDTH + 1);
    for (int y = 0; y < HEIGHT; y++) {
        guint32 *row = (guint32 *)((char *)pfb_pixels(client) + (ptrdiff_t)y * pfb_stride(client));
        for (int x = 0; x < WIDTH; x++)
            row[x] = x < length ? 0xff30c040 : 0xff202020;
    }
    pfb_dirty(client, 0, 0, WIDTH, HEIGHT);
    return G_SOURCE_CONTINUE;
}

int main(void)
{
    pfb_client *client = pfb_connect("counter");
    if (client == NULL || pfb_create(client, PFB_FORMAT_XRGB32, 30, 100, WIDTH, HEIGHT, 2, 0) != PFB_OK) {
        fprintf(stderr, "%s\n", pfb_error_text());
        return 1;
    }
    GMainLoop *loop = g_main_loop_new(NULL, FALSE);
    pfb_set_event_func(client, on_event, NULL);
    pfb_show(client);
    g_unix_fd_add(pfb_poll_fd(client), G_IO_IN, on_server, client);
    g_timeout_add(PERIOD_MS, on_time, client);
    g_main_loop_run(loop);
    g_main_loop_unref(loop); /* for a program that quits the loop somewhere */
    pfb_disconnect(client);
    return 0;
}
