// SPDX-License-Identifier: MIT
// What the files of the client library share: the client's record, its errors and the sending of requests.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "mc.h"
#include "pfb.h"

struct pfb_client {
    mc_connection *connection; // owned
    int timeout_ms;            // -1: for ever
    bool lost;                 // a "create" that was not answered in time: nobody knows what the server has
    // The surface; pixels is null without one.
    void *pixels; // owned mapping of stride x height bytes
    pfb_format format;
    int32_t width;
    int32_t height;
    int32_t stride; // bytes
    // What the server holds of it, followed here so that nothing is sent that the server would stop for.
    bool scaled;
    int32_t shown_width; // what a resize may reach: the surface's size, or the scaled one's
    int32_t shown_height;
    int32_t locks;  // pfb_lock without its pfb_unlock
    bool blocked;   // pfb_block_until_unlock without its pfb_unlock
    char name[256]; // for messages
};

namespace libpfb {

constexpr int32_t SIZE_MAX_PIXELS = 32767; // what the server's regions can hold

// Notes the failure for pfb_error and pfb_error_text, "FUNCTION: ..."; returns `code`.
[[gnu::format(printf, 3, 4)]] int fail(int code, const char *function, const char *format, ...);
// The same for a failed call of the system or of the channel, from errno.
int fail_errno(const char *function, const char *what);

// A request on its way: its word and arguments, and the library's function that it is sent for.
struct Request {
    const char *function;
    const char *word;
    std::initializer_list<int32_t> values = {};
    const char *text = nullptr; // after the integers; null: none
};

// The moment until which a call that begins now may wait.
int64_t deadline_of(const pfb_client *client);
// PFB_OK, or a failure for a null client and for one that can only be disconnected.
int check_client(const pfb_client *client, const char *function);
// check_client, and STATE without a surface.
int check_surface(const pfb_client *client, const char *function);

// Waits until a request fits into the socket. After PFB_OK one more mc_send is sure not to wait.
int wait_for_room(pfb_client *client, const char *function, int64_t deadline);
// Sends, waiting for room. On failure nothing has been sent.
int send(pfb_client *client, const Request &request);
// Sends at once, after wait_for_room.
int send_now(pfb_client *client, const Request &request);
// Sends, after wait_for_room, and waits for the answer, which is the caller's to free. On TIMEOUT the request is with
// the server.
int call(pfb_client *client, const Request &request, int64_t deadline, mc_packet **answer);

int check_position(const char *function, int32_t x, int32_t y);
int check_size(const char *function, int32_t width, int32_t height, int32_t least);
int check_area(const char *function, int32_t x, int32_t y, int32_t width, int32_t height);

// Shared memory of `size` bytes, zeroed and really there, that the server may open, and its name. Returns its mapping
// in *pixels.
int memory_new(const pfb_client *client, const char *function, int64_t size, char *name, void **pixels);

// A name for shared memory: "/pfb.PID.RANDOM".
constexpr int MEMORY_NAME_SIZE = 40;

} // namespace libpfb
