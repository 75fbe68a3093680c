// SPDX-License-Identifier: MIT
// What the display server does, in plain words: a value that is told the same things as the server (requests, hang-ups,
// turns of the main loop) and then holds the bytes that each output must show and the lines that must have been
// printed. Slow, one pixel at a time, and sharing no code with the server. Copies are independent of each other.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "image.h"

namespace model {

// Thrown where the server must abort; what was printed before is in `out` and `err`.
struct Aborted {
    std::string expression;
    std::string function;
};

// In an expected text: an address.
inline constexpr char ANY_ADDRESS = '\x01';

// A framebuffer device.
struct Device {
    int32_t width = 64, height = 48;
    uint32_t depth = 16;
    uint32_t red = 0xF800, green = 0x07E0, blue = 0x001F, alpha = 0;
    uint32_t stride = 128; // bytes
    uint32_t memory = 0;   // bytes
};

enum { PRIMARY, SECOND, NOWHERE, N_OUTPUTS }; // the three backends
inline constexpr int NO_OUTPUT = -1;

struct Output {
    Device device;
    bool broken = false; // its next openings fail
    int state = 0;       // 0 unused, -1 chosen, 1 ready
    int use_count = 0;
    int sync_count = 0;
    bool has_images = false;
    Image frame; // its bytes are the device's memory, and stay when it is closed
    Image work;
    Region clear, damage;
    Region straight; // what the current pass has drawn straight into the frame
};

struct Scale {
    Image original;
    Rect source, target;
    int32_t x_offset, x_factor, y_offset, y_factor; // client to scaled, 16.16
    int32_t x_start, x_step, y_start, y_step;       // scaled to client, 16.16
};

struct Surface {
    int id = 0;
    Rect area, drawing_area;
    std::optional<Rect> clip;
    Region opaque, dirty_region, draw;
    int32_t level = 0, rotation = 0, lock_counter = 0, color_plane = -1;
    bool direct = false, shown = false, dirty = false, sync = false, block = false;
    std::string name;
    Image image;
    std::optional<Scale> scale;
    int output = NO_OUTPUT;
};

struct Argument {
    char type = 'i'; // or 's'
    int32_t number = 0;
    std::string text;
};

struct Client {
    std::string name;
    int surface = 0; // id; 0: none
};

using Reply = std::optional<std::vector<int32_t>>;

struct Model {
    int32_t w, h, native_w, native_h;
    int32_t rotation = 0;
    int rotation_lock = 0; // counts of the render lock taken for rotation
    int lock_count = 0;
    bool pending = false; // an idle render waits
    int32_t selected = 0;
    int next_id = 1;
    bool with_pixels = true;       // false: everything but the pixels, for planning ahead
    std::vector<Surface> surfaces; // bottom first
    std::vector<int> in_use;       // outputs in order of first use
    Output outputs[N_OUTPUTS];
    std::map<int, Client> clients;
    std::map<std::string, const ClientMemory *> shared_memory; // objects that have a name; not owned
    std::string out, err;                                      // printed so far
    std::vector<std::string> calls;                            // what the outputs' functions were called with
};

// A server started with a size; -1 x -1 takes the device's. `device` [SECOND] is the second layer.
Model model_new(int32_t width, int32_t height, const Device &primary, const Device &second);

void model_connect(Model &m, int client, const std::string &name);
Reply model_request(Model &m, int client, const std::string &word, const std::vector<Argument> &arguments);
void model_hangup(Model &m, int client);
// A turn of the main loop: the idle render, when one waits.
void model_render_if_pending(Model &m);
std::string model_status(const Model &m);

// ---- the steps, for each other ----

// Arithmetic of requests wraps at 32 bits.
inline int32_t wrap(int64_t value)
{
    return static_cast<int32_t>(static_cast<uint64_t>(value));
}
// Prints like printf onto `text`.
[[gnu::format(printf, 2, 3)]] void print(std::string &text, const char *format, ...);
inline void require(bool holds, const char *expression, const char *function)
{
    if (!holds)
        throw Aborted{expression, function};
}

Surface *model_surface(Model &m, int id);
// False for surfaces without an output and on the one that shows nothing.
inline bool has_screen(const Surface &s)
{
    return s.output == PRIMARY || s.output == SECOND;
}
bool output_has_alpha(const Model &m, const Surface &s);
bool takes_part(const Model &m, const Surface &s);
void schedule(Model &m);
void check_rect(const Rect &rect);
void clamp_to_screen(const Model &m, Rect &rect);
void crop_drawing_area(const Model &m, Surface &s);
void damage_surface(Model &m, Surface &s);
void lock_render(Model &m);
void unlock_render(Model &m);
void set_lock_area(Model &m, Surface &s, int32_t x, int32_t y, int32_t w, int32_t h);
void add_dirty(Model &m, Surface &s, int32_t x, int32_t y, int32_t w, int32_t h);
void set_unlock(Model &m, Surface &s);
void block_until_unlock(Model &m, Surface &s);
void set_sync(Model &m, Surface &s, bool on);
void rotate_display(Model &m, int32_t rotation);
void create(Model &m, Client &client, const std::vector<Argument> &arguments);
void remove_surface(Model &m, int id);
void show(Model &m, Surface &s);
void hide(Model &m, Surface &s);
void move(Model &m, Surface &s, int32_t x, int32_t y);
void resize(Model &m, Surface &s, int32_t w, int32_t h);
void set_level(Model &m, Surface &s, int32_t level);
void set_clip(Model &m, Surface &s, int32_t x, int32_t y, int32_t w, int32_t h);
void set_scale(Model &m, Surface &s, const int32_t v[8]);
void refresh_scaled(Model &m, Surface &s);
void render_image(Model &m, const Image &src, Image &dst, const Region &region, int32_t x, int32_t y, int32_t rotation);
void render(Model &m);

} // namespace model
