// SPDX-License-Identifier: MIT
// This server, and the floor: both write into the file of a virtual panel.
#include "target.h"

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "floor.h"
#include "pfb.h"

namespace {

const volatile uint32_t *panel;
sockaddr_un floor_address{};

const volatile uint32_t *panel_pixel(int32_t x, int32_t y)
{
    return panel + y * FLOOR_WIDTH + x;
}

// Both listen at a path.
bool accepts_at(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const bool accepted = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return accepted;
}

// ---- this server ----

void pfb_start(const char *place)
{
    panel = map_panel(place, FLOOR_WIDTH, FLOOR_HEIGHT);
}

void pfb_connect_client(Client *client)
{
    static int number;
    const std::string name = "bench" + std::to_string(number++);
    pfb_client *own = pfb_connect(name.c_str());
    const Area &a = client->area;
    if (own == nullptr || pfb_create(own, PFB_FORMAT_XRGB32, a.x, a.y, a.width, a.height, 0, 0) != PFB_OK ||
        pfb_show(own) != PFB_OK)
        fail("%s", pfb_error_text());
    client->own = own;
    client->pixels = static_cast<uint32_t *>(pfb_pixels(own));
    client->pitch = pfb_stride(own) / 4;
}

void pfb_disconnect_client(Client *client)
{
    pfb_disconnect(static_cast<pfb_client *>(client->own));
}

void pfb_update(Client *client, const Area &part)
{
    if (pfb_dirty(static_cast<pfb_client *>(client->own), part.x, part.y, part.width, part.height) != PFB_OK)
        fail("%s", pfb_error_text());
}

// ---- the floor ----

struct FloorClient {
    int fd;
    size_t bytes;
};

void floor_start(const char *place)
{
    const std::string text = place;
    const size_t colon = text.find(':');
    panel = map_panel(text.substr(colon + 1).c_str(), FLOOR_WIDTH, FLOOR_HEIGHT);
    floor_address.sun_family = AF_UNIX;
    text.copy(floor_address.sun_path, std::min(colon, sizeof floor_address.sun_path - 1));
}

uint32_t *floor_memory(const char *name, size_t bytes)
{
    const int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) < 0)
        fail("no shared memory %s", name);
    void *pixels = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (pixels == MAP_FAILED)
        fail("mmap of %s", name);
    close(fd);
    return static_cast<uint32_t *>(pixels);
}

void floor_connect(Client *client)
{
    static int number;
    const Area &a = client->area;
    FloorSurface surface{a.x, a.y, a.width, a.height, ""};
    snprintf(surface.name, sizeof surface.name, "/floor-%d-%d", static_cast<int>(getpid()), number++);
    auto *own = new FloorClient{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0),
                                static_cast<size_t>(a.width) * static_cast<size_t>(a.height) * 4};
    client->pixels = floor_memory(surface.name, own->bytes);
    client->pitch = a.width;
    client->own = own;
    if (connect(own->fd, reinterpret_cast<const sockaddr *>(&floor_address), sizeof floor_address) < 0 ||
        send(own->fd, &surface, sizeof surface, MSG_NOSIGNAL) < 0)
        fail("no floor at %s", floor_address.sun_path);
    const int32_t whole[] = {0, 0, a.width, a.height}; // as a surface that is shown
    send(own->fd, whole, sizeof whole, MSG_NOSIGNAL);
}

void floor_disconnect(Client *client)
{
    auto *own = static_cast<FloorClient *>(client->own);
    close(own->fd);
    munmap(client->pixels, own->bytes);
    delete own;
}

void floor_update(Client *client, const Area &part)
{
    const int32_t rectangle[] = {part.x, part.y, part.width, part.height};
    if (send(static_cast<FloorClient *>(client->own)->fd, rectangle, sizeof rectangle, MSG_NOSIGNAL) < 0)
        fail("the floor is gone");
}

} // namespace

const volatile uint32_t *map_panel(const char *path, int32_t width, int32_t height)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    void *pixels = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
    if (fd < 0 || pixels == MAP_FAILED)
        fail("no panel %s", path);
    close(fd);
    return static_cast<uint32_t *>(pixels);
}

const Target target_pfb{"pfb",      pfb_start,   accepts_at, pfb_connect_client, pfb_disconnect_client,
                        pfb_update, panel_pixel, nullptr};
const Target target_floor{"floor",          floor_start,  accepts_at,  floor_connect,
                          floor_disconnect, floor_update, panel_pixel, nullptr};
