// SPDX-License-Identifier: MIT
// The requests on a surface that is there: each is checked and sent.
#include "client.h"

#include <cstring>
#include <poll.h>

using namespace libpfb;

namespace {

// The connection was found ended in a request that is not sent again. With recovery the client is on its way back
// already when this returns.
int ended(pfb_client *client, int result)
{
    if (result != PFB_ERROR_GONE || !client->reconnect)
        return result;
    const LastError error = error_save();
    recovery_lose(client);
    recovery_step(client);
    error_restore(error);
    return result;
}

// For a request that leaves nothing behind in the client's own surface: it goes to a server that is there, or fails.
int pass(pfb_client *client, const Request &request)
{
    if (send_at_once(client, request))
        return PFB_OK;
    Deadline deadline(client);
    const int result = recovery_wait(client, request.function, deadline);
    return result == PFB_OK ? ended(client, send_into_queue(client, request, deadline)) : result;
}

// For a request that changes the client's surface as `apply` does with a state, or fails to. While there is no server
// the change is made here; the next one gets it with the surface. Settling may leave out earlier changes and may call
// the application, which may make others: so the change is made to what is there afterwards, and checked again.
template <typename Apply>
[[gnu::noinline]] int change_the_long_way(pfb_client *client, const Request &request, const Apply &apply)
{
    const LastError error = error_save();
    Deadline deadline(client);
    int result = recovery_settle(client, request.function, deadline);
    SurfaceState next = client->state;
    if (result == PFB_OK)
        result = apply(next);
    if (result == PFB_OK && client->phase == Phase::ready)
        result = send_into_queue(client, request, deadline);
    const bool lost = result == PFB_ERROR_GONE && client->reconnect;
    if (result != PFB_OK && !lost)
        return result;
    recovery_change(client, next);
    if (!lost)
        return PFB_OK;
    recovery_lose(client);
    recovery_step(client);
    error_restore(error);
    return PFB_OK;
}

template <typename Apply> int change(pfb_client *client, const Request &request, const Apply &apply)
{
    SurfaceState next = client->state;
    const int result = apply(next);
    if (result != PFB_OK)
        return result;
    if (!send_at_once(client, request))
        return change_the_long_way(client, request, apply);
    recovery_change(client, next);
    return PFB_OK;
}

// For a request that leaves the state as it is.
struct Nothing {
    int operator()(SurfaceState &) const { return PFB_OK; }
};

int change(pfb_client *client, const Request &request, const Nothing &nothing)
{
    return send_at_once(client, request) ? PFB_OK : change_the_long_way(client, request, nothing);
}

// Sends when the client can and `checked` says that the arguments are good. Without a surface of its own a client acts
// on the selected one.
template <typename Apply> int send_checked(pfb_client *client, int checked, const Request &request, const Apply &apply)
{
    const int usable = check_client(client, request.function);
    if (usable != PFB_OK || checked != PFB_OK)
        return usable != PFB_OK ? usable : checked;
    return client->pixels != nullptr ? change(client, request, apply) : pass(client, request);
}

int pass_checked(pfb_client *client, int checked, const Request &request)
{
    const int usable = check_client(client, request.function);
    if (usable != PFB_OK || checked != PFB_OK)
        return usable != PFB_OK ? usable : checked;
    return pass(client, request);
}

// What a resize may reach.
Area limit_of(const pfb_client *client)
{
    return client->state.scaled ? client->state.destination : Area{0, 0, client->shape.width, client->shape.height};
}

bool shows_something(uint32_t plane)
{
    return plane >> 24 == 0xff || (plane & 0xffffff) == 0xffffff;
}

bool same_size(const Area &a, const Area &b)
{
    return a.width == b.width && a.height == b.height;
}

// Whether the source's pixels exist, as the client has them and as the server checks them.
bool source_exists(const Shape &shape, const Area &s)
{
    return s.x >= 0 && s.y >= 0 && s.width >= 1 && s.height >= 1 && s.width <= shape.width - s.x &&
           s.height <= shape.height - s.y;
}

int check_scale(const pfb_client *client, const char *function, const Area &from, const Area &to)
{
    const Shape &shape = client->shape;
    if (shape.format == PFB_FORMAT_RGB18)
        return fail(PFB_ERROR_ARGUMENT, function, "an 18-bit surface cannot be scaled");
    if (!source_exists(shape, from))
        return fail(PFB_ERROR_ARGUMENT, function, "source %d x %d at %d, %d is not within %d x %d", from.width,
                    from.height, from.x, from.y, shape.width, shape.height);
    if (to.width < 1 || to.height < 1 || to.width > SIZE_MAX_PIXELS || to.height > SIZE_MAX_PIXELS ||
        int64_t{to.width} * to.height > INT32_MAX / 4)
        return fail(PFB_ERROR_ARGUMENT, function, "there is no destination of %d x %d", to.width, to.height);
    const int32_t reach = limit_of(client).width;
    if (client->state.scaled && !same_size(from, to) && from.x + from.width > reach)
        return fail(PFB_ERROR_ARGUMENT, function, "source ends at column %d, beyond the present destination's %d",
                    from.x + from.width, reach);
    return check_position(function, to.x, to.y);
}

int check_resize(const pfb_client *client, const char *function, int32_t width, int32_t height)
{
    const Area limit = limit_of(client);
    if (width <= limit.width && height <= limit.height)
        return PFB_OK;
    return fail(PFB_ERROR_ARGUMENT, function, "size %d x %d is beyond the surface's %d x %d", width, height,
                limit.width, limit.height);
}

// Scaling, and its end, make a surface without alpha opaque as a whole.
SurfaceState scaled_state(const pfb_client *client, const Area &from, const Area &to)
{
    SurfaceState next = client->state;
    const bool ends = same_size(from, to);
    if (ends && !next.scaled)
        return next;
    next.scaled = !ends;
    next.source = ends ? Area{} : from;
    next.destination = ends ? Area{} : to;
    next.area = to;
    if (client->shape.format != PFB_FORMAT_ARGB32) {
        next.opaque_given = ends;
        next.opaque = {0, 0, ends ? to.width : 0, ends ? to.height : 0};
    }
    return next;
}

// The last lock_area was not answered in time, so it is still before the server: an unlock behind it undoes it.
int take_lock_back(pfb_client *client, const char *function)
{
    const int sent = send_now(client, {function, "unlock"});
    if (sent != PFB_OK && !(sent == PFB_ERROR_GONE && client->reconnect))
        return sent;
    client->state.blocked = false; // the unlock ends that as well; the next server has neither
    ended(client, sent);
    return fail(PFB_ERROR_TIMEOUT, function, "the server has not locked in time; the lock is taken back");
}

// The short road of a lock: all is well, and there is room for it and for the unlock that may have to follow at once.
bool is_clear(pfb_client *client)
{
    if (!recovery_is_quiet(client))
        return false;
    const bool survived = recovery_has_survived(client);
    pollfd entry = {mc_fd(client->connection), POLLOUT, 0};
    if (poll(&entry, 1, 0) != 1 || entry.revents != POLLOUT)
        return false;
    if (survived)
        recovery_confirm_trial(client);
    return true;
}

// A server that ends meanwhile draws nothing any more, and the next one is told of the lock before it draws.
int lock_on_server(pfb_client *client, const char *function, const Area &area)
{
    Deadline deadline(client);
    const bool clear = is_clear(client);
    int result = clear ? int{PFB_OK} : recovery_settle(client, function, deadline);
    if (result != PFB_OK || client->phase == Phase::lost)
        return result;
    const LastError error = error_save();
    const Request request = {function, "lock_area", {area.x, area.y, area.width, area.height}};
    result = clear ? send_now(client, request) : send(client, request, deadline);
    const bool sent = result == PFB_OK;
    if (sent)
        result = take_answer(client, function, deadline);
    if (sent && result == PFB_ERROR_TIMEOUT)
        return take_lock_back(client, function);
    if (result != PFB_ERROR_GONE || !client->reconnect)
        return result;
    recovery_lose(client);
    error_restore(error);
    return PFB_OK;
}

// The answer, or that of a restoration when the server ended over the question: that one is not asked again.
int ask_depth(pfb_client *client, const char *function, int32_t *depth)
{
    const LastError error = error_save();
    Deadline deadline(client);
    const Request request = {function, "get_native_color_depth"};
    int result = PFB_OK;
    if (!ask_at_once(client, request)) {
        result = recovery_wait(client, function, deadline);
        if (result != PFB_OK)
            return result;
        result = send(client, request, deadline);
    }
    if (result == PFB_OK)
        result = take_answer(client, function, deadline);
    result = ended(client, result);
    if (result == PFB_OK)
        result = depth_from(client, function, depth);
    if (result != PFB_ERROR_GONE || !client->reconnect || client->pixels == nullptr)
        return result;
    result = recovery_wait(client, function, deadline);
    if (result != PFB_OK)
        return result;
    *depth = client->depth;
    error_restore(error);
    return PFB_OK;
}

} // namespace

namespace libpfb {

int depth_from(const pfb_client *client, const char *function, int32_t *depth)
{
    if (mc_packet_parse_args(client->packet, "i", depth) == 1)
        return PFB_OK;
    return fail(PFB_ERROR_SYSTEM, function, "the answer holds no depth");
}

} // namespace libpfb

int pfb_show(pfb_client *client)
{
    return send_checked(client, PFB_OK, {__func__, "show"}, [](SurfaceState &state) {
        state.shown = true;
        return PFB_OK;
    });
}

int pfb_hide(pfb_client *client)
{
    return send_checked(client, PFB_OK, {__func__, "hide"}, [](SurfaceState &state) {
        state.shown = false;
        return PFB_OK;
    });
}

int pfb_move(pfb_client *client, int32_t x, int32_t y)
{
    return send_checked(client, check_position(__func__, x, y), {__func__, "move", {x, y}}, [=](SurfaceState &state) {
        state.area.x = x;
        state.area.y = y;
        return PFB_OK;
    });
}

int pfb_resize(pfb_client *client, int32_t width, int32_t height)
{
    const char *function = __func__;
    return send_checked(client, check_size(function, width, height, 1), {function, "resize", {width, height}},
                        [=](SurfaceState &state) {
                            state.area.width = width;
                            state.area.height = height;
                            return check_resize(client, function, width, height);
                        });
}

int pfb_set_layer(pfb_client *client, int32_t level)
{
    return send_checked(client, PFB_OK, {__func__, "set_layer", {level}}, [=](SurfaceState &state) {
        state.level = level;
        return PFB_OK;
    });
}

int pfb_set_clip(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height)
{
    const Area area{x, y, width, height};
    return send_checked(client, check_area(__func__, area), {__func__, "set_clip", {x, y, width, height}},
                        [=](SurfaceState &state) {
                            state.clipped = true;
                            state.clip = area;
                            return PFB_OK;
                        });
}

int pfb_set_opaque_area(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height)
{
    const Area area{x, y, width, height};
    return send_checked(client, check_area(__func__, area), {__func__, "opaque_area", {x, y, width, height}},
                        [=](SurfaceState &state) {
                            state.opaque_given = true;
                            state.opaque = area;
                            return PFB_OK;
                        });
}

int pfb_set_color_plane(pfb_client *client, uint32_t plane)
{
    const int checked = shows_something(plane)
                            ? int{PFB_OK}
                            : fail(PFB_ERROR_ARGUMENT, __func__, "plane %08x is neither a colour nor a veil", plane);
    return send_checked(client, checked, {__func__, "color_plane", {static_cast<int32_t>(plane)}},
                        [=](SurfaceState &state) {
                            state.plane = plane;
                            return PFB_OK;
                        });
}

int pfb_set_scale(pfb_client *client, int32_t source_x, int32_t source_y, int32_t source_width, int32_t source_height,
                  int32_t x, int32_t y, int32_t width, int32_t height)
{
    const char *function = __func__;
    const int usable = check_surface(client, function);
    if (usable != PFB_OK)
        return usable;
    const Area from{source_x, source_y, source_width, source_height}, to{x, y, width, height};
    return change(client,
                  {function, "set_scale", {source_x, source_y, source_width, source_height, x, y, width, height}},
                  [=](SurfaceState &state) {
                      state = scaled_state(client, from, to);
                      return check_scale(client, function, from, to);
                  });
}

int pfb_dirty(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height)
{
    return send_checked(client, check_area(__func__, {x, y, width, height}), {__func__, "dirty", {x, y, width, height}},
                        Nothing{});
}

int pfb_lock(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height)
{
    const Area area{x, y, width, height};
    int result = check_surface(client, __func__);
    if (result == PFB_OK)
        result = check_area(__func__, area);
    if (result == PFB_OK)
        result = lock_on_server(client, __func__, area);
    if (result != PFB_OK)
        return result;
    client->state.locks++;
    if (!recovery_is_quiet(client))
        recovery_step(client);
    return PFB_OK;
}

int pfb_unlock(pfb_client *client)
{
    const char *function = __func__;
    const int usable = check_surface(client, function);
    if (usable != PFB_OK)
        return usable;
    return change(client, {function, "unlock"}, [=](SurfaceState &state) {
        if (state.locks == 0)
            return fail(PFB_ERROR_STATE, function, "%s holds no lock", client->name);
        state.locks--;
        state.blocked = false;
        return int{PFB_OK};
    });
}

int pfb_block_until_unlock(pfb_client *client)
{
    const int usable = check_surface(client, __func__);
    if (usable != PFB_OK)
        return usable;
    return change(client, {__func__, "block_until_unlock"}, [](SurfaceState &state) {
        state.blocked = true;
        return PFB_OK;
    });
}

int pfb_set_sync(pfb_client *client, int on)
{
    return send_checked(client, PFB_OK, {__func__, "set_sync", {on != 0}}, [=](SurfaceState &state) {
        state.sync = on != 0;
        return PFB_OK;
    });
}

int pfb_get_color_depth(pfb_client *client, int *depth)
{
    if (depth == nullptr)
        return fail(PFB_ERROR_ARGUMENT, __func__, "depth is NULL");
    int32_t value = 0;
    int result = check_client(client, __func__);
    if (result == PFB_OK)
        result = ask_depth(client, __func__, &value);
    if (result == PFB_OK)
        *depth = value;
    return result;
}

int pfb_set_surface(pfb_client *client, const char *name)
{
    const bool good = name != nullptr && strlen(name) <= MC_NAME_MAX;
    const int checked =
        good ? int{PFB_OK} : fail(PFB_ERROR_ARGUMENT, __func__, "a name has at most %d bytes", MC_NAME_MAX);
    return pass_checked(client, checked, {__func__, "set_surface", {}, good ? name : ""});
}

int pfb_status(pfb_client *client)
{
    return pass_checked(client, PFB_OK, {__func__, "status"});
}

int pfb_set_color_format(pfb_client *client, int32_t format)
{
    return pass_checked(client, PFB_OK, {__func__, "set_color_format", {format}});
}
