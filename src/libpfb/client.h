// SPDX-License-Identifier: MIT
// What the files of the client library share: the client's record, its errors, the sending of requests, and recovery
// from the end of the server.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "mc.h"
#include "pfb.h"

namespace libpfb {

struct Area {
    int32_t x, y, width, height;

    bool operator==(const Area &) const = default;
};

// What stays of a surface from "create" on.
struct Shape {
    pfb_format format;
    int32_t width, height; // pixels
    int32_t stride;        // bytes
    int32_t rotation;      // degrees
};

// What requests change of it: followed here so that nothing is sent that the server would stop for, and so that it can
// be made again on another server.
struct Look {
    Area area; // screen
    int32_t level;
    uint32_t plane;
    bool shown;
    bool sync;
    bool clipped;
    Area clip; // screen
    bool opaque_given;
    Area opaque; // surface
    bool scaled;
    Area source;      // surface
    Area destination; // screen

    bool operator==(const Look &) const = default;
};

// With what the application counts on its own.
struct SurfaceState : Look {
    int32_t locks; // pfb_lock without its pfb_unlock
    bool blocked;  // pfb_block_until_unlock without its pfb_unlock
};

enum class Phase {
    ready,     // the server has everything
    lost,      // there is no connection; the next attempt is due at next_attempt
    restoring, // connected, everything is sent, and the server's answer to it is still to come
};

constexpr int MEMORY_NAME_SIZE = 40; // of "/pfb.PID.RANDOM"

} // namespace libpfb

struct pfb_client {
    // What every request needs.
    mc_connection *connection; // owned; null while the phase is lost
    mc_packet *packet;         // owned: each request is written into it, and each answer taken into it
    void *pixels;              // owned mapping of stride x height bytes; null without a surface
    libpfb::Phase phase;
    unsigned events; // to be told, bits 1 << PFB_EVENT_...
    bool unusable;   // a "create" that was not answered in time: nobody knows what the server has
    bool reconnect;
    int timeout_ms;        // -1: for ever
    int64_t trial_ends_ms; // 0: nothing is on trial

    char name[256];
    libpfb::Shape shape;
    libpfb::SurfaceState state;
    libpfb::Look confirmed;  // the last one that a server has answered after, or lived with for long enough
    libpfb::Look on_trial;   // as it was when the trial began: lived with, if the server is there at the end of it
    bool pixels_are_private; // on the way back: in no shared memory, for which there was no room

    // Recovery.
    int epoll_fd; // what pfb_poll_fd gives: watches the connection and the timer
    int timer_fd;
    int64_t timer_ms; // when it ends, or has ended; 0: it is off
    bool recovering;  // a step is under way: callbacks may come back here
    pid_t ended;      // the process that the last connection but this one was to; -1: not known
    int deaths;       // of servers, each soon after the surface was there again
    bool takes_names; // the last server that took the surface's memory removed its name
    int64_t lost_ms;  // moments of the monotonic clock
    int64_t restored_ms;
    int64_t next_attempt_ms;
    int32_t depth;                              // what the restoration's question was answered with
    char memory_name[libpfb::MEMORY_NAME_SIZE]; // while restoring: what the server may not have opened yet
    pfb_event_func on_event;
    void *event_data;
};

namespace libpfb {

constexpr char SERVICE[] = "pfb";
constexpr int32_t SIZE_MAX_PIXELS = 32767; // what the server's regions can hold
// As the peer of a connection: a service manager, which listens for servers that come and go.
constexpr pid_t MANAGER = 1;

// Notes the failure for pfb_error and pfb_error_text, "FUNCTION: ..."; returns `code`.
[[gnu::format(printf, 3, 4)]] int fail(int code, const char *function, const char *format, ...);
// The same for a failed call of the system or of the channel, from errno.
int fail_errno(const char *function, const char *what);
// The last failure as it was: what the library gets over itself is none of the application's failures. Copied as far as
// its text goes.
struct LastError {
    int code;
    char text[512];
};
LastError error_save();
void error_restore(const LastError &error);

int64_t now_ms();

// The moment until which a call may wait. The clock is read when it first does: most calls do not.
class Deadline {
public:
    explicit Deadline(const pfb_client *client) : timeout_ms_(client->timeout_ms) {}
    // Milliseconds until then, for poll; -1: there is no limit.
    int left();

private:
    static constexpr int64_t UNREAD = -1;
    int timeout_ms_;
    int64_t at_ms_ = UNREAD;
};

// PFB_OK, or a failure for a null client and for one that can only be disconnected.
int check_client(const pfb_client *client, const char *function);
// check_client, and STATE without a surface.
int check_surface(const pfb_client *client, const char *function);
int check_position(const char *function, int32_t x, int32_t y);
int check_size(const char *function, int32_t width, int32_t height, int32_t least);
int check_area(const char *function, const Area &area);

// A request on its way: its word and arguments, and the library's function that it is sent for.
struct Request {
    const char *function;
    const char *word;
    std::initializer_list<int32_t> values = {};
    const char *text = nullptr; // after the integers; null: none
};

// The short road, which nearly every request takes: while all is well as far as anybody knows, it is sent without a
// look at the connection, by one system call. What a look would show - the server has gone, or there is no room - makes
// sending fail: false then, and nothing has been sent and no failure noted; the long road shows what there is to do.
bool send_at_once(pfb_client *client, const Request &request);
// The same for one that is answered.
bool ask_at_once(pfb_client *client, const Request &request);

// The long road. Sends on the present connection, waiting for room until the deadline. On failure nothing has been
// sent.
int send(pfb_client *client, const Request &request, Deadline &deadline);
// The same for a request that is not answered and that nothing has to follow at once: up to the last place in the
// queue.
int send_into_queue(pfb_client *client, const Request &request, Deadline &deadline);
// Sends at once: for a connection that is known to have room.
int send_now(pfb_client *client, const Request &request);
// Sends and waits for the answer, in client->packet. On TIMEOUT the request may be with the server.
int call(pfb_client *client, const Request &request, Deadline &deadline);
// Its second half: waits for the answer to the last request that is answered.
int take_answer(pfb_client *client, const char *function, Deadline &deadline);

// ---- recovery

// Nothing is to be done or told unless the connection has ended.
bool recovery_is_quiet(const pfb_client *client);
// Whether a trial is over and the server has read all requests. What it has not read is gone when it ends, so this says
// something only when the connection is found alive afterwards: confirm what was on trial then.
bool recovery_has_survived(pfb_client *client);
void recovery_confirm_trial(pfb_client *client);
// Gets as far as it can without waiting, and tells the application what has happened.
void recovery_step(pfb_client *client);
// Before a request: takes a step, and waits for the answer to a restoration that is under way. Afterwards the phase is
// ready or lost. GONE without recovery, TIMEOUT.
int recovery_settle(pfb_client *client, const char *function, Deadline &deadline);
// The same until the server has everything.
int recovery_wait(pfb_client *client, const char *function, Deadline &deadline);
// The connection was found ended. The caller takes a step afterwards.
void recovery_lose(pfb_client *client);
// The server has answered: what was sent before has not ended it.
void recovery_confirm(pfb_client *client);
// The state is to become this one, which the server has been sent, or will be.
void recovery_change(pfb_client *client, const SurfaceState &state);
// The first connection is there.
int recovery_start(pfb_client *client);
void recovery_end(pfb_client *client);

// Makes the surface on the server: "create", with the state as it is now.
int send_create(pfb_client *client, const char *function, const char *memory_name, Deadline &deadline);
// Everything that makes a new surface the present one, and a question behind it. False when something was not sent.
bool restore_send(pfb_client *client);

// From the answer in client->packet.
int depth_from(const pfb_client *client, const char *function, int32_t *depth);

// Shared memory of `size` bytes, zeroed and really there, that the server may open, and its name. Returns its mapping
// in *pixels.
int memory_new(const pfb_client *client, const char *function, int64_t size, char *name, void **pixels);
// The same with a copy of the client's pixels, at their address. What was there is unmapped. After a failure there is
// no name.
bool memory_renew(pfb_client *client, char *name);
size_t memory_size(const pfb_client *client);

} // namespace libpfb
