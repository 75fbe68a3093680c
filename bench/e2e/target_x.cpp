// SPDX-License-Identifier: MIT
// An X server: pixels in shared memory, put into a window by the shared-memory extension. The place is its display and
// the shared memory of its screen, as "Xvfb -shmem" prints it.
#include "target.h"

#include <cstdlib>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>

#include "floor.h"

namespace {

struct XClient {
    xcb_connection_t *connection;
    xcb_window_t window;
    xcb_gcontext_t context;
    xcb_shm_seg_t segment;
    uint8_t depth;
};

std::string display;
const volatile uint32_t *screen;
int32_t screen_pitch;

// The screen's memory is a window dump: a header, in big-endian words, a table of colours, then the pixels.
uint32_t header_word(const volatile uint32_t *header, int i)
{
    return __builtin_bswap32(header[i]);
}

void x_start(const char *place)
{
    const std::string text = place;
    const size_t slash = text.find('/');
    display = text.substr(0, slash);
    void *memory = shmat(atoi(text.c_str() + slash + 1), nullptr, SHM_RDONLY);
    if (memory == reinterpret_cast<void *>(-1))
        fail("no screen memory %s", place);
    const auto *header = static_cast<const volatile uint32_t *>(memory);
    const uint32_t colour_bytes = 12;
    const uint32_t offset = header_word(header, 0) + header_word(header, 19) * colour_bytes;
    screen = header + offset / 4;
    screen_pitch = static_cast<int32_t>(header_word(header, 12) / 4);
}

const volatile uint32_t *x_pixel(int32_t x, int32_t y)
{
    return screen + y * screen_pitch + x;
}

void attach_memory(XClient *own, Client *client)
{
    const size_t bytes = static_cast<size_t>(client->area.width) * static_cast<size_t>(client->area.height) * 4;
    const int id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
    void *pixels = id >= 0 ? shmat(id, nullptr, 0) : reinterpret_cast<void *>(-1);
    if (pixels == reinterpret_cast<void *>(-1))
        fail("no shared memory for X");
    own->segment = xcb_generate_id(own->connection);
    free(xcb_request_check(own->connection, xcb_shm_attach_checked(own->connection, own->segment,
                                                                   static_cast<uint32_t>(id), 0))); // it has it now
    shmctl(id, IPC_RMID, nullptr);
    client->pixels = static_cast<uint32_t *>(pixels);
    client->pitch = client->area.width;
}

bool x_accepts(const char *where)
{
    xcb_connection_t *connection = xcb_connect(where, nullptr);
    const bool accepted = xcb_connection_has_error(connection) == 0;
    xcb_disconnect(connection);
    return accepted;
}

void x_connect(Client *client)
{
    auto *own = new XClient{};
    own->connection = xcb_connect(display.c_str(), nullptr);
    if (xcb_connection_has_error(own->connection) != 0)
        fail("no X server at %s", display.c_str());
    const xcb_screen_t *root = xcb_setup_roots_iterator(xcb_get_setup(own->connection)).data;
    const Area &a = client->area;
    own->depth = root->root_depth;
    own->window = xcb_generate_id(own->connection);
    own->context = xcb_generate_id(own->connection);
    const uint32_t override_redirect = 1;
    xcb_create_window(own->connection, XCB_COPY_FROM_PARENT, own->window, root->root, static_cast<int16_t>(a.x),
                      static_cast<int16_t>(a.y), static_cast<uint16_t>(a.width), static_cast<uint16_t>(a.height), 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, root->root_visual, XCB_CW_OVERRIDE_REDIRECT, &override_redirect);
    const uint32_t no_exposures = 0;
    xcb_create_gc(own->connection, own->context, own->window, XCB_GC_GRAPHICS_EXPOSURES, &no_exposures);
    xcb_map_window(own->connection, own->window);
    client->own = own;
    attach_memory(own, client);
}

void x_disconnect(Client *client)
{
    auto *own = static_cast<XClient *>(client->own);
    xcb_disconnect(own->connection);
    shmdt(client->pixels);
    delete own;
}

void x_update(Client *client, const Area &part)
{
    auto *own = static_cast<XClient *>(client->own);
    const auto width = static_cast<uint16_t>(client->area.width);
    const auto height = static_cast<uint16_t>(client->area.height);
    const auto x = static_cast<int16_t>(part.x);
    const auto y = static_cast<int16_t>(part.y);
    xcb_shm_put_image(own->connection, own->window, own->context, width, height, static_cast<uint16_t>(part.x),
                      static_cast<uint16_t>(part.y), static_cast<uint16_t>(part.width),
                      static_cast<uint16_t>(part.height), x, y, own->depth, XCB_IMAGE_FORMAT_Z_PIXMAP, 0, own->segment,
                      0);
    if (xcb_flush(own->connection) <= 0)
        fail("the X server is gone");
}

} // namespace

const Target target_x{"xvfb", x_start, x_accepts, x_connect, x_disconnect, x_update, x_pixel, nullptr};
