// SPDX-License-Identifier: MIT
// A Wayland compositor: a top-level window over a wl_shm buffer. No client sees its screen, so updates are over when
// the compositor says that their frames have been drawn. The place is the display's name.
#include "target.h"

#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

#include "xdg-shell-client.h"

namespace {

struct WaylandClient {
    wl_display *display;
    wl_compositor *compositor;
    wl_shm *shm;
    xdg_wm_base *shell;
    wl_surface *surface;
    wl_buffer *buffer;
    bool configured;
    int undrawn; // frames that have been asked for
};

std::string display_name;

WaylandClient *own_of(void *data)
{
    return static_cast<WaylandClient *>(data);
}

void ping(void *, xdg_wm_base *shell, uint32_t serial)
{
    xdg_wm_base_pong(shell, serial);
}
const xdg_wm_base_listener shell_listener{ping};

void on_global(void *data, wl_registry *registry, uint32_t name, const char *interface, uint32_t)
{
    WaylandClient *own = own_of(data);
    if (strcmp(interface, "wl_compositor") == 0) {
        own->compositor = static_cast<wl_compositor *>(wl_registry_bind(registry, name, &wl_compositor_interface, 4));
    } else if (strcmp(interface, "wl_shm") == 0) {
        own->shm = static_cast<wl_shm *>(wl_registry_bind(registry, name, &wl_shm_interface, 1));
    } else if (strcmp(interface, "xdg_wm_base") == 0) {
        own->shell = static_cast<xdg_wm_base *>(wl_registry_bind(registry, name, &xdg_wm_base_interface, 1));
        xdg_wm_base_add_listener(own->shell, &shell_listener, nullptr);
    }
}
const wl_registry_listener registry_listener{on_global, [](void *, wl_registry *, uint32_t) {}};

void on_configure(void *data, xdg_surface *surface, uint32_t serial)
{
    xdg_surface_ack_configure(surface, serial);
    own_of(data)->configured = true;
}
const xdg_surface_listener surface_listener{on_configure};
const xdg_toplevel_listener toplevel_listener{[](void *, xdg_toplevel *, int32_t, int32_t, wl_array *) {},
                                              [](void *, xdg_toplevel *) {}, nullptr, nullptr};

void on_drawn(void *data, wl_callback *callback, uint32_t)
{
    wl_callback_destroy(callback);
    own_of(data)->undrawn--;
}
const wl_callback_listener drawn_listener{on_drawn};

void dispatch(WaylandClient *own)
{
    if (wl_display_dispatch(own->display) < 0)
        fail("the Wayland compositor is gone");
}

void make_buffer(WaylandClient *own, Client *client)
{
    const int32_t bytes = client->area.width * client->area.height * 4;
    const int fd = memfd_create("bench", MFD_CLOEXEC);
    void *pixels = MAP_FAILED;
    if (fd >= 0 && ftruncate(fd, bytes) == 0)
        pixels = mmap(nullptr, static_cast<size_t>(bytes), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (pixels == MAP_FAILED)
        fail("no shared memory for Wayland");
    client->pixels = static_cast<uint32_t *>(pixels);
    client->pitch = client->area.width;
    wl_shm_pool *pool = wl_shm_create_pool(own->shm, fd, bytes);
    own->buffer = wl_shm_pool_create_buffer(pool, 0, client->area.width, client->area.height, client->pitch * 4,
                                            WL_SHM_FORMAT_XRGB8888);
    wl_shm_pool_destroy(pool);
    close(fd);
}

void wayland_start(const char *place)
{
    display_name = place;
}

bool wayland_accepts(const char *where)
{
    wl_display *display = wl_display_connect(where);
    const bool accepted = display != nullptr && wl_display_roundtrip(display) >= 0;
    if (display != nullptr)
        wl_display_disconnect(display);
    return accepted;
}

void make_window(WaylandClient *own)
{
    own->surface = wl_compositor_create_surface(own->compositor);
    xdg_surface *surface = xdg_wm_base_get_xdg_surface(own->shell, own->surface);
    xdg_surface_add_listener(surface, &surface_listener, own);
    xdg_toplevel_add_listener(xdg_surface_get_toplevel(surface), &toplevel_listener, own);
    wl_surface_commit(own->surface);
    while (!own->configured)
        dispatch(own);
}

void wayland_connect(Client *client)
{
    auto *own = new WaylandClient{};
    own->display = wl_display_connect(display_name.c_str());
    if (own->display == nullptr)
        fail("no Wayland compositor at %s", display_name.c_str());
    wl_registry_add_listener(wl_display_get_registry(own->display), &registry_listener, own);
    wl_display_roundtrip(own->display);
    if (own->compositor == nullptr || own->shm == nullptr || own->shell == nullptr)
        fail("the Wayland compositor lacks an interface");
    make_window(own);
    make_buffer(own, client);
    client->own = own;
}

void wayland_disconnect(Client *client)
{
    auto *own = own_of(client->own);
    wl_display_disconnect(own->display);
    munmap(client->pixels, static_cast<size_t>(client->area.width * client->area.height) * 4);
    delete own;
}

void wayland_update(Client *client, const Area &part)
{
    auto *own = own_of(client->own);
    own->undrawn++;
    wl_callback_add_listener(wl_surface_frame(own->surface), &drawn_listener, own);
    wl_surface_attach(own->surface, own->buffer, 0, 0);
    wl_surface_damage_buffer(own->surface, part.x, part.y, part.width, part.height);
    wl_surface_commit(own->surface);
    wl_display_flush(own->display);
}

void wayland_finish(Client *client)
{
    auto *own = own_of(client->own);
    while (own->undrawn > 0)
        dispatch(own);
}

} // namespace

const Target target_wayland{"weston",           wayland_start,  wayland_accepts, wayland_connect,
                            wayland_disconnect, wayland_update, nullptr,         wayland_finish};
