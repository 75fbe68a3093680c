// SPDX-License-Identifier: MIT
#include "flood.h"

#include <cstring>
#include <initializer_list>
#include <sys/socket.h>

#include "raw.h"

namespace {

constexpr int STRETCH = 256; // requests
constexpr int PATIENCE_MS = 30000;
constexpr uint32_t GLASS = 0x80402010; // translucent: the server has to blend it

bool connect_it(Flooder *flooder)
{
    if (flooder->connection == nullptr)
        flooder->connection = mc_connect("pfb", "fb.flood");
    return flooder->connection != nullptr;
}

// A connection that the server has closed is no failure: the next stretch makes another one.
bool ask(Flooder *flooder, const char *word, std::initializer_list<int32_t> values = {})
{
    flooder->requests++;
    if (raw_request(flooder->connection, word, values))
        return true;
    flood_end(flooder);
    return false;
}

bool ask_and_wait(Flooder *flooder, const char *word, std::initializer_list<int32_t> values = {})
{
    if (!ask(flooder, word, values))
        return false;
    mc_packet_free(mc_answer(flooder->connection, PATIENCE_MS));
    return true;
}

bool create(Flooder *flooder, uint32_t pixel)
{
    flooder->requests++;
    flooder->has_surface =
        raw_create(flooder->connection, {0, 0, flooder->width, flooder->height, flooder->level, true, pixel});
    return flooder->has_surface && ask(flooder, "show");
}

bool make_surface(Flooder *flooder)
{
    return connect_it(flooder) && (flooder->has_surface || create(flooder, GLASS));
}

// For floods that need no surface of their own: a connection with one does not speak for others.
bool be_without_surface(Flooder *flooder)
{
    if (flooder->has_surface)
        flood_end(flooder);
    return connect_it(flooder);
}

bool dirty(Flooder *flooder)
{
    bool alive = make_surface(flooder);
    for (int i = 0; alive && i < STRETCH; i++)
        alive = ask(flooder, "dirty", {0, 0, flooder->width, flooder->height});
    return alive;
}

bool show_and_hide(Flooder *flooder)
{
    bool alive = make_surface(flooder);
    for (int i = 0; alive && i < STRETCH; i += 2)
        alive = ask(flooder, "hide") && ask(flooder, "show");
    return alive;
}

bool move(Flooder *flooder)
{
    bool alive = make_surface(flooder);
    for (int i = 0; alive && i < STRETCH; i++)
        alive = ask(flooder, "move", {i % 7, i % 5});
    return alive && ask(flooder, "move", {0, 0});
}

// Words that nobody knows, wrong arguments, and at the end a packet that is none: the server closes the connection.
bool garbage(Flooder *flooder)
{
    bool alive = be_without_surface(flooder);
    for (int i = 0; alive && i < STRETCH; i += 2)
        alive = ask(flooder, "nonsense", {1, 2, 3}) && ask(flooder, "dirty", {1});
    if (!alive)
        return false;
    send(mc_fd(flooder->connection), "garbage", 7, MSG_NOSIGNAL);
    flood_end(flooder);
    return true;
}

// Comes, shows a full screen and goes. Its surface has no memory before the server reads it. The last one of a stretch
// waits for an answer: the names of all their memories are gone then.
bool visits(Flooder *flooder)
{
    for (int i = 0; i < STRETCH / 16; i++) {
        flood_end(flooder);
        if (!connect_it(flooder) || !create(flooder, 0))
            return false;
    }
    const bool alive = ask_and_wait(flooder, "get_native_color_depth");
    flood_end(flooder);
    return alive;
}

// Asks, and never reads an answer: the server ends the connection.
bool deaf(Flooder *flooder)
{
    static const char question[] = "\0\0\0\0get_native_color_depth\0"; // with the literal's own NUL behind it
    if (!be_without_surface(flooder))
        return false;
    for (int i = 0; i < STRETCH; i++) {
        flooder->requests++;
        if (send(mc_fd(flooder->connection), question, sizeof question, MSG_NOSIGNAL) < 0) {
            flood_end(flooder);
            return true;
        }
    }
    return true;
}

bool mixture(Flooder *flooder)
{
    static int turn;
    const int kinds = 6; // the first ones of the table
    return floods[(flooder->level + turn++ / 4) % kinds].stretch(flooder);
}

} // namespace

const Flood floods[] = {
    {"dirty", 3, dirty},     {"show-hide", 3, show_and_hide}, {"move", 3, move},
    {"garbage", 3, garbage}, {"visits", 3, visits},           {"deaf", 3, deaf},
    {"mixture", 3, mixture}, {nullptr, 0, nullptr},
};

const Flood *flood_find(const char *name)
{
    for (const Flood *flood = floods; flood->name != nullptr; flood++) {
        if (strcmp(flood->name, name) == 0)
            return flood;
    }
    return nullptr;
}

void flood_end(Flooder *flooder)
{
    if (flooder->connection != nullptr)
        mc_close(flooder->connection);
    flooder->connection = nullptr;
    flooder->has_surface = false;
}
