// SPDX-License-Identifier: MIT
// The requests on a surface that is there: each is checked and sent.
#include "client.h"

#include <cstring>

using namespace libpfb;

namespace libpfb {

int check_position(const char *function, int32_t x, int32_t y)
{
    if (x < -PFB_COORDINATE_MAX || x > PFB_COORDINATE_MAX || y < -PFB_COORDINATE_MAX || y > PFB_COORDINATE_MAX)
        return fail(PFB_ERROR_ARGUMENT, function, "position %d, %d is not within +-%d", x, y, PFB_COORDINATE_MAX);
    return PFB_OK;
}

int check_size(const char *function, int32_t width, int32_t height, int32_t least)
{
    if (width < least || height < least || width > PFB_COORDINATE_MAX || height > PFB_COORDINATE_MAX)
        return fail(PFB_ERROR_ARGUMENT, function, "size %d x %d is not within %d to %d", width, height, least,
                    PFB_COORDINATE_MAX);
    return PFB_OK;
}

int check_area(const char *function, int32_t x, int32_t y, int32_t width, int32_t height)
{
    const int positioned = check_position(function, x, y);
    return positioned == PFB_OK ? check_size(function, width, height, 0) : positioned;
}

} // namespace libpfb

namespace {

// Sends when the client can and `checked` says that the arguments are good.
int send_checked(pfb_client *client, int checked, const Request &request)
{
    const int usable = check_client(client, request.function);
    if (usable != PFB_OK)
        return usable;
    return checked == PFB_OK ? send(client, request) : checked;
}

bool shows_something(uint32_t plane)
{
    return plane >> 24 == 0xff || (plane & 0xffffff) == 0xffffff;
}

struct Scale {
    int32_t source_x, source_y, source_width, source_height; // surface
    int32_t width, height;                                   // screen

    bool is_none() const { return source_width == width && source_height == height; }
};

// Whether the source's pixels exist, as the client has them and as the server checks them.
bool source_exists(const pfb_client *client, const Scale &s)
{
    return s.source_x >= 0 && s.source_y >= 0 && s.source_width >= 1 && s.source_height >= 1 &&
           s.source_width <= client->width - s.source_x && s.source_height <= client->height - s.source_y;
}

int check_scale(const pfb_client *client, const char *function, const Scale &s)
{
    if (client->format == PFB_FORMAT_RGB18)
        return fail(PFB_ERROR_ARGUMENT, function, "an 18-bit surface cannot be scaled");
    if (!source_exists(client, s))
        return fail(PFB_ERROR_ARGUMENT, function, "source %d x %d at %d, %d is not within %d x %d", s.source_width,
                    s.source_height, s.source_x, s.source_y, client->width, client->height);
    if (s.width < 1 || s.height < 1 || s.width > SIZE_MAX_PIXELS || s.height > SIZE_MAX_PIXELS ||
        int64_t{s.width} * s.height > INT32_MAX / 4)
        return fail(PFB_ERROR_ARGUMENT, function, "there is no destination of %d x %d", s.width, s.height);
    if (client->scaled && !s.is_none() && s.source_x + s.source_width > client->shown_width)
        return fail(PFB_ERROR_ARGUMENT, function, "source ends at column %d, beyond the present destination's %d",
                    s.source_x + s.source_width, client->shown_width);
    return PFB_OK;
}

// The last lock_area was not answered in time, so it is still before the server: an unlock behind it undoes it.
int take_lock_back(pfb_client *client, const char *function)
{
    const int sent = send_now(client, {function, "unlock"});
    if (sent != PFB_OK)
        return sent;
    client->blocked = false; // the unlock has ended that as well
    return fail(PFB_ERROR_TIMEOUT, function, "the server has not locked in time; the lock is taken back");
}

} // namespace

int pfb_show(pfb_client *client)
{
    return send_checked(client, PFB_OK, {__func__, "show"});
}

int pfb_hide(pfb_client *client)
{
    return send_checked(client, PFB_OK, {__func__, "hide"});
}

int pfb_move(pfb_client *client, int32_t x, int32_t y)
{
    return send_checked(client, check_position(__func__, x, y), {__func__, "move", {x, y}});
}

int pfb_resize(pfb_client *client, int32_t width, int32_t height)
{
    int checked = check_size(__func__, width, height, 1);
    const bool known = checked == PFB_OK && pfb_pixels(client) != nullptr;
    if (known && (width > client->shown_width || height > client->shown_height))
        checked = fail(PFB_ERROR_ARGUMENT, __func__, "size %d x %d is beyond the surface's %d x %d", width, height,
                       client->shown_width, client->shown_height);
    return send_checked(client, checked, {__func__, "resize", {width, height}});
}

int pfb_set_layer(pfb_client *client, int32_t level)
{
    return send_checked(client, PFB_OK, {__func__, "set_layer", {level}});
}

int pfb_set_clip(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height)
{
    return send_checked(client, check_area(__func__, x, y, width, height),
                        {__func__, "set_clip", {x, y, width, height}});
}

int pfb_set_opaque_area(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height)
{
    return send_checked(client, check_area(__func__, x, y, width, height),
                        {__func__, "opaque_area", {x, y, width, height}});
}

int pfb_set_color_plane(pfb_client *client, uint32_t plane)
{
    const int checked = shows_something(plane)
                            ? int{PFB_OK}
                            : fail(PFB_ERROR_ARGUMENT, __func__, "plane %08x is neither a colour nor a veil", plane);
    return send_checked(client, checked, {__func__, "color_plane", {static_cast<int32_t>(plane)}});
}

int pfb_set_scale(pfb_client *client, int32_t source_x, int32_t source_y, int32_t source_width, int32_t source_height,
                  int32_t x, int32_t y, int32_t width, int32_t height)
{
    int result = check_surface(client, __func__);
    if (result != PFB_OK)
        return result;
    const Scale scale{source_x, source_y, source_width, source_height, width, height};
    result = check_scale(client, __func__, scale);
    if (result == PFB_OK)
        result = check_position(__func__, x, y);
    if (result == PFB_OK)
        result = send(client,
                      {__func__, "set_scale", {source_x, source_y, source_width, source_height, x, y, width, height}});
    if (result != PFB_OK)
        return result;
    client->scaled = !scale.is_none();
    client->shown_width = client->scaled ? width : client->width;
    client->shown_height = client->scaled ? height : client->height;
    return PFB_OK;
}

int pfb_dirty(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height)
{
    return send_checked(client, check_area(__func__, x, y, width, height), {__func__, "dirty", {x, y, width, height}});
}

int pfb_lock(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height)
{
    int result = check_surface(client, __func__);
    if (result == PFB_OK)
        result = check_area(__func__, x, y, width, height);
    if (result != PFB_OK)
        return result;
    const int64_t deadline = deadline_of(client);
    result = wait_for_room(client, __func__, deadline);
    if (result != PFB_OK)
        return result;
    mc_packet *answer;
    result = call(client, {__func__, "lock_area", {x, y, width, height}}, deadline, &answer);
    mc_packet_free(answer);
    if (result == PFB_OK)
        client->locks++;
    return result == PFB_ERROR_TIMEOUT ? take_lock_back(client, __func__) : result;
}

int pfb_unlock(pfb_client *client)
{
    const int usable = check_surface(client, __func__);
    if (usable != PFB_OK)
        return usable;
    if (client->locks == 0)
        return fail(PFB_ERROR_STATE, __func__, "%s holds no lock", client->name);
    const int sent = send(client, {__func__, "unlock"});
    if (sent != PFB_OK)
        return sent;
    client->locks--;
    client->blocked = false;
    return PFB_OK;
}

int pfb_block_until_unlock(pfb_client *client)
{
    const int usable = check_surface(client, __func__);
    const int sent = usable == PFB_OK ? send(client, {__func__, "block_until_unlock"}) : usable;
    if (sent == PFB_OK)
        client->blocked = true;
    return sent;
}

int pfb_set_sync(pfb_client *client, int on)
{
    return send_checked(client, PFB_OK, {__func__, "set_sync", {on != 0}});
}

int pfb_get_color_depth(pfb_client *client, int *depth)
{
    if (depth == nullptr)
        return fail(PFB_ERROR_ARGUMENT, __func__, "depth is NULL");
    int result = check_client(client, __func__);
    if (result != PFB_OK)
        return result;
    const int64_t deadline = deadline_of(client);
    result = wait_for_room(client, __func__, deadline);
    if (result != PFB_OK)
        return result;
    mc_packet *answer;
    result = call(client, {__func__, "get_native_color_depth"}, deadline, &answer);
    if (result != PFB_OK)
        return result;
    int32_t value;
    const bool decoded = mc_packet_parse_args(answer, "i", &value) == 1;
    mc_packet_free(answer);
    if (!decoded)
        return fail(PFB_ERROR_SYSTEM, __func__, "the answer holds no depth");
    *depth = value;
    return PFB_OK;
}

int pfb_set_surface(pfb_client *client, const char *name)
{
    const bool good = name != nullptr && strlen(name) <= MC_NAME_MAX;
    const int checked =
        good ? int{PFB_OK} : fail(PFB_ERROR_ARGUMENT, __func__, "a name has at most %d bytes", MC_NAME_MAX);
    return send_checked(client, checked, {__func__, "set_surface", {}, good ? name : ""});
}

int pfb_status(pfb_client *client)
{
    return send_checked(client, PFB_OK, {__func__, "status"});
}

int pfb_set_color_format(pfb_client *client, int32_t format)
{
    return send_checked(client, PFB_OK, {__func__, "set_color_format", {format}});
}
