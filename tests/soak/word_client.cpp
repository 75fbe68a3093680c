// SPDX-License-Identifier: MIT
// Clients that use every word of the protocol, with arguments as programs send them and with odd ones. What ends the
// server is left out: an unlock without a lock, a death between "block_until_unlock" and "unlock", a size below 1 in
// "resize", a rectangle that wraps, memory that does not exist.
#include "word_client.h"

namespace {

int32_t extreme(Random &random)
{
    static constexpr int32_t VALUES[] = {INT32_MIN, INT32_MIN + 1, INT32_MAX, INT32_MAX - 20, 0,     -1,
                                         1,         32767,         32768,     -32768,         65536, -40000};
    const int i = between(random, 0, 14);
    return i < 12 ? VALUES[i] : static_cast<int32_t>(random());
}

// Anything at all, now and then.
int32_t odd(Random &random, int32_t low, int32_t high)
{
    return chance(random, 6) ? extreme(random) : between(random, low, high);
}

// A place far outside, now and then, from which nothing wraps.
int32_t place(Random &random, int32_t size)
{
    static constexpr int32_t FAR_PLACES[] = {-FAR, FAR, -32769, -32768, 32767, 32768, -40000, 40000};
    return chance(random, 6) ? FAR_PLACES[between(random, 0, 7)] : between(random, -30, size);
}

int32_t level(Random &random)
{
    return chance(random, 5) ? between(random, -HIGHEST, HIGHEST) : between(random, -5, 5);
}

using Words = void (*)(WordClient &);

void send_show(WordClient &c)
{
    c.send("show");
}

void send_hide(WordClient &c)
{
    c.send("hide");
}

void send_move(WordClient &c)
{
    c.send("move", {place(c.plan.random, PANEL_WIDTH), place(c.plan.random, PANEL_HEIGHT)});
}

void send_resize(WordClient &c)
{
    Random &random = c.plan.random;
    const int32_t most = chance(random, 5) ? 100000 : 200;
    c.send("resize", {between(random, 1, most), between(random, 1, most)});
}

void send_set_layer(WordClient &c)
{
    c.send("set_layer", {level(c.plan.random)});
}

template <const char *const &word> void send_rectangle(WordClient &c)
{
    Random &random = c.plan.random;
    c.send(word, {odd(random, -20, 300), odd(random, -20, 200), odd(random, 0, 200), odd(random, 0, 100)});
}
constexpr const char *SET_CLIP = "set_clip", *OPAQUE_AREA = "opaque_area", *DIRTY = "dirty";

void send_color_plane(WordClient &c)
{
    static constexpr int32_t PLANES[] = {-1, -1, static_cast<int32_t>(0xff336699), 0x40ffffff, 0x00ffffff, 0};
    const int i = between(c.plan.random, 0, 6);
    c.send("color_plane", {i < 6 ? PLANES[i] : extreme(c.plan.random)});
}

void send_set_scale(WordClient &c)
{
    Random &random = c.plan.random;
    const int32_t source_w = between(random, chance(random, 3) ? -2 : 1, 150);
    const int32_t source_h = between(random, chance(random, 3) ? -2 : 1, 150);
    const bool ends = chance(random, 25);
    const int32_t w = ends ? source_w : between(random, chance(random, 3) ? -2 : 1, chance(random, 3) ? 1500 : 300);
    const int32_t h = ends ? source_h : between(random, chance(random, 3) ? -2 : 1, 300);
    c.send("set_scale", {between(random, -3, 20), between(random, -3, 20), source_w, source_h,
                         place(random, PANEL_WIDTH), place(random, PANEL_HEIGHT), w, h});
}

void send_lock_area(WordClient &c)
{
    c.lock();
    c.locks++;
}

void send_unlock(WordClient &c)
{
    if (c.locks == 0)
        return;
    c.send("unlock");
    c.locks--;
}

void send_block_until_unlock(WordClient &c)
{
    if (c.plan.dies_at >= 0 || c.plan.killed_after_ms >= 0)
        return;
    c.send("block_until_unlock");
    if (chance(c.plan.random, 30))
        c.send("block_until_unlock");
    c.lock();
    c.send("unlock"); // both of them
}

void send_set_sync(WordClient &c)
{
    c.send("set_sync", {odd(c.plan.random, 0, 1)});
}

void send_get_native_color_depth(WordClient &c)
{
    c.ask();
}

void send_status(WordClient &c)
{
    if (chance(c.plan.random, 20))
        c.send("status");
}

void send_set_color_format(WordClient &c)
{
    c.send("set_color_format", {odd(c.plan.random, -1, 9)});
}

// Only what stands at the bottom for that is ever selected: others do not expect to be moved by somebody else.
void send_set_surface(WordClient &c)
{
    const bool known = chance(c.plan.random, 70);
    c.wire.send_text("set_surface", known ? target_name(between(c.plan.random, 0, TARGETS - 1)) : "nobody");
    c.shared->requests++;
}

// Refused: a connection's surface stays what it is.
void send_create(WordClient &c)
{
    Random &random = c.plan.random;
    if (chance(random, 50))
        c.send("create", {1, 32, 0, 0}); // without the rest
    else
        c.send("create", {extreme(random), 32, 0, 0, chance(random, 50) ? 0 : -7, 0, extreme(random), 0, 0});
}

// Words that nobody knows, arguments that are missing or of another kind.
void send_nonsense(WordClient &c)
{
    static constexpr const char *WORDS[] = {"move",     "resize",    "set_layer", "dirty",
                                            "set_clip", "set_scale", "lock_area"};
    Random &random = c.plan.random;
    if (chance(random, 50))
        c.send(chance(random, 50) ? "SHOW" : "explode", {1, 2, 3});
    else if (chance(random, 50))
        c.wire.send_text(WORDS[between(random, 0, 6)], "five");
    else
        c.send(WORDS[between(random, 0, 1)], {between(random, -5, 5)});
    c.shared->requests++;
}

// Each word once; those that only the owner of a surface sends come last.
constexpr Words WORDS[] = {
    send_show,
    send_hide,
    send_move,
    send_resize,
    send_rectangle<SET_CLIP>,
    send_rectangle<OPAQUE_AREA>,
    send_rectangle<DIRTY>,
    send_color_plane,
    send_set_scale,
    send_set_sync,
    send_get_native_color_depth,
    send_status,
    send_set_color_format,
    send_set_surface,
    send_create,
    send_nonsense,
    send_set_layer,
    send_lock_area,
    send_unlock,
    send_block_until_unlock,
};
constexpr int ALL_WORDS = std::size(WORDS);
constexpr int WORDS_FOR_OTHERS = ALL_WORDS - 4;

void run_words(WordClient &c, int n_words)
{
    for (int32_t i = 0; i < c.plan.steps; i++) {
        client_pause(c.plan, i);
        const int groups = between(c.plan.random, 1, 6);
        for (int k = 0; k < groups; k++)
            WORDS[between(c.plan.random, 0, n_words - 1)](c);
        while (c.locks > 0 && !chance(c.plan.random, 20)) // nobody draws meanwhile
            send_unlock(c);
    }
}

} // namespace

SurfaceRequest planned_surface(const Plan &plan)
{
    SurfaceRequest request;
    request.x = plan.x;
    request.y = plan.y;
    request.width = plan.width;
    request.height = plan.height;
    request.depth = plan.depth;
    request.alpha = plan.alpha ? 1 : 0;
    request.level = plan.level;
    request.rotation = plan.rotation;
    return request;
}

void WordClient::create_and_show()
{
    wire.create(planned_surface(plan));
    shared->requests++;
    ask();
    send("show");
}

void client_words(Plan &plan, Shared *shared)
{
    WordClient c(plan, shared);
    SurfaceRequest request = planned_surface(plan);
    if (chance(plan.random, 5)) { // less memory than its rows need, in one way or the other
        request.stride = between(plan.random, 1, 64);
        request.bytes = 1;
    } else if (chance(plan.random, 20)) {
        request.stride = plan.width * (plan.depth == 16 ? 2 : 4) + between(plan.random, 0, 20);
    }
    c.wire.create(request);
    c.ask();
    run_words(c, ALL_WORDS);
}

void client_selecting(Plan &plan, Shared *shared)
{
    WordClient c(plan, shared);
    send_set_surface(c);
    for (int32_t i = 0; i < plan.steps; i++) {
        client_pause(plan, i);
        Words words = WORDS[between(plan.random, 0, WORDS_FOR_OTHERS - 1)];
        if (words != send_get_native_color_depth) // not answered when nothing is selected
            words(c);
    }
}
