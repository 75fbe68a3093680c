/* SPDX-License-Identifier: MIT */
/*
 * floor SOCKET PANEL COPIES [tuned|draining] - the least that a server on a GLib loop can do: it takes one request for
 * each wake-up and copies the rectangle that it names, once (to the panel) or twice (to a work image, then to the
 * panel). It knows one kind of pixel, composes nothing, checks nothing and reports nothing; what a display server costs
 * more than this is what its work costs.
 *
 * As GLib is commonly used, it takes a descriptor out of its poll while the descriptor's source runs, and puts it back:
 * that is four system calls more for each request. The tuned floor avoids them. The draining floor does, too, and takes
 * all requests that wait (up to 16) by one system call for each wake-up.
 *
 * A client sends a FloorSurface first, then four integers for each update. PANEL is a file of the panel's pixels.
 */
#include "floor.h"

#include <fcntl.h>
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

enum { AT_ONCE = 16 }; /* requests that the draining floor takes for each wake-up */

typedef union Request {
    FloorSurface surface; /* the first one of a connection */
    int32_t rectangle[4];
} Request;

typedef struct Connection {
    GSource base;
    int fd;
    FloorSurface surface;
    uint32_t *pixels; /* null until the surface is known */
} Connection;

static int copies;
static int tuned;
static int draining;
static uint32_t *panel;
static uint32_t *work;
static Request requests[AT_ONCE];
static struct iovec parts[AT_ONCE];
static struct mmsghdr messages[AT_ONCE];

static void check(int holds, const char *what)
{
    if (holds)
        return;
    perror(what);
    exit(1);
}

static void *map_file(int fd, size_t bytes)
{
    void *pixels = mmap(NULL, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    check(pixels != MAP_FAILED, "floor: mmap");
    close(fd);
    return pixels;
}

static void copy(const uint32_t *src, int32_t src_pitch, uint32_t *dst, const int32_t *size)
{
    for (int32_t y = 0; y < size[1]; y++)
        memcpy(dst + y * FLOOR_WIDTH, src + y * src_pitch, (size_t)size[0] * sizeof *src);
}

static void update(const Connection *connection, const int32_t *r)
{
    const FloorSurface *s = &connection->surface;
    const uint32_t *src = connection->pixels + r[1] * s->width + r[0];
    const int32_t at = (s->y + r[1]) * FLOOR_WIDTH + s->x + r[0];
    if (copies == 1) {
        copy(src, s->width, panel + at, r + 2);
    } else {
        copy(src, s->width, work + at, r + 2);
        copy(work + at, FLOOR_WIDTH, panel + at, r + 2);
    }
}

static size_t surface_bytes(const FloorSurface *surface)
{
    return (size_t)surface->width * (size_t)surface->height * sizeof(uint32_t);
}

static void take_surface(Connection *connection, const FloorSurface *surface)
{
    connection->surface = *surface;
    const int fd = shm_open(surface->name, O_RDWR, 0);
    check(fd >= 0, "floor: shm_open");
    shm_unlink(surface->name);
    connection->pixels = map_file(fd, surface_bytes(surface));
}

static void handle(Connection *connection, const Request *request)
{
    if (connection->pixels)
        update(connection, request->rectangle);
    else
        take_surface(connection, &request->surface);
}

/* How many requests there are; 0 at the end of the connection. */
static int receive(int fd)
{
    if (!draining)
        return recv(fd, requests, sizeof *requests, MSG_DONTWAIT) > 0;
    const int n = recvmmsg(fd, messages, AT_ONCE, MSG_DONTWAIT, NULL);
    int i = 0;
    while (i < n && messages[i].msg_len > 0)
        i++;
    return i;
}

static gboolean serve(GSource *source, GSourceFunc callback, gpointer data)
{
    (void)callback;
    (void)data;
    Connection *connection = (Connection *)source;
    const int n = receive(connection->fd);
    for (int i = 0; i < n; i++)
        handle(connection, &requests[i]);
    if (n > 0)
        return G_SOURCE_CONTINUE;
    close(connection->fd);
    if (connection->pixels)
        munmap(connection->pixels, surface_bytes(&connection->surface));
    return G_SOURCE_REMOVE;
}

static GSourceFuncs serving = {.dispatch = serve};

static Connection *attach(GSourceFuncs *functions, int fd)
{
    GSource *source = g_source_new(functions, sizeof(Connection));
    Connection *connection = (Connection *)source;
    connection->fd = fd;
    connection->pixels = NULL;
    g_source_set_can_recurse(source, tuned);
    g_source_add_unix_fd(source, fd, G_IO_IN);
    g_source_attach(source, NULL);
    g_source_unref(source);
    return connection;
}

static gboolean take_client(GSource *source, GSourceFunc callback, gpointer data)
{
    (void)callback;
    (void)data;
    const int fd = accept4(((Connection *)source)->fd, NULL, NULL, SOCK_CLOEXEC);
    check(fd >= 0, "floor: accept");
    attach(&serving, fd);
    return G_SOURCE_CONTINUE;
}

static GSourceFuncs listening = {.dispatch = take_client};

static int listen_at(const char *path)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    unlink(path);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    check(fd >= 0 && bind(fd, (struct sockaddr *)&address, sizeof address) == 0 && listen(fd, 64) == 0,
          "floor: socket");
    return fd;
}

static void lay_out_messages(void)
{
    for (int i = 0; i < AT_ONCE; i++) {
        parts[i] = (struct iovec){&requests[i], sizeof requests[i]};
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
}

int main(int argc, char **argv)
{
    if (argc < 4)
        return 2;
    const size_t bytes = FLOOR_WIDTH * FLOOR_HEIGHT * sizeof(uint32_t);
    const int fd = open(argv[2], O_RDWR);
    check(fd >= 0, "floor: panel");
    panel = map_file(fd, bytes);
    work = calloc(1, bytes);
    copies = atoi(argv[3]);
    tuned = argc > 4;
    draining = tuned && strcmp(argv[4], "draining") == 0;
    lay_out_messages();
    attach(&listening, listen_at(argv[1]));
    g_main_loop_run(g_main_loop_new(NULL, FALSE));
}
