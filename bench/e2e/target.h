// SPDX-License-Identifier: MIT
// A display server as a benchmark sees it. Every function ends the program with a message when something fails: a
// figure of a broken run is worse than none.
#pragma once

#include <cstdint>

struct Area {
    int32_t x, y, width, height; // screen for a surface, surface for an update
};

// One client with its surface of 32-bit pixels.
struct Client {
    Area area;
    uint32_t *pixels;
    int32_t pitch; // pixels from one row to the next
    void *own;     // the target's
};

struct Target {
    const char *name;
    // `place` says where the server is: see the target.
    void (*start)(const char *place);
    // True as soon as the server takes a client at `where`: the path of its socket, or the name of its display.
    bool (*accepts)(const char *where);
    // Connects a client with a surface of client->area, on the panel at the latest with its first update.
    void (*connect)(Client *client);
    void (*disconnect)(Client *client);
    // Tells that these pixels have changed, and does not wait.
    void (*update)(Client *client, const Area &part);
    // The panel's pixel at (x, y). Null where a server shows its pixels to nobody: `finish` waits then for its word
    // that all updates have been drawn.
    const volatile uint32_t *(*pixel)(int32_t x, int32_t y);
    void (*finish)(Client *client);
};

extern const Target target_pfb;     // place: the panel's file; the server's socket as its clients find it
extern const Target target_floor;   // place: SOCKET:PANEL
extern const Target target_x;       // place: DISPLAY:SHMID of the screen
extern const Target target_wayland; // place: the display's name

// By its name; ends the program when there is none.
const Target *find_target(const char *name);

[[noreturn, gnu::format(printf, 1, 2)]] void fail(const char *format, ...);
// Maps a panel of 32-bit pixels, to be read.
const volatile uint32_t *map_panel(const char *path, int32_t width, int32_t height);

// A connection of this server's that has made n opaque surfaces of size x size pixels, scattered over `within` and all
// shown. To be closed with mc_close.
struct mc_connection;
mc_connection *crowd_connect(int n, int32_t size, const Area &within);
