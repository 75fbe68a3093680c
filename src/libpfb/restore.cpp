// SPDX-License-Identifier: MIT
// A surface made again: the requests that bring a new one to the state that the client's had. They need not be those
// that once led there, and are none that a server may have ended of: what is sent is the outcome.
#include "client.h"

using namespace libpfb;

namespace {

constexpr char FUNCTION[] = "pfb_dispatch";

// A fresh connection has room for all of this. Only dozens of locks have to wait for the server to read.
bool send_soon(pfb_client *client, const Request &request)
{
    Deadline deadline(client);
    return send(client, request, deadline) == PFB_OK;
}

bool send_area(pfb_client *client, const char *word, const Area &area)
{
    return send_soon(client, {FUNCTION, word, {area.x, area.y, area.width, area.height}});
}

// A fresh surface is where "create" says, as large as its memory; a scaled one where its destination is.
bool send_place(pfb_client *client)
{
    const SurfaceState &state = client->state;
    const Area &area = state.area;
    Area now = {area.x, area.y, client->shape.width, client->shape.height};
    if (state.scaled) {
        const Area &from = state.source, &to = state.destination;
        if (!send_soon(
                client,
                {FUNCTION, "set_scale", {from.x, from.y, from.width, from.height, to.x, to.y, to.width, to.height}}))
            return false;
        now = to;
    }
    if ((area.x != now.x || area.y != now.y) && !send_soon(client, {FUNCTION, "move", {area.x, area.y}}))
        return false;
    return (area.width == now.width && area.height == now.height) ||
           send_soon(client, {FUNCTION, "resize", {area.width, area.height}});
}

// Scaling resets the opaque area, so this comes behind it.
bool send_look(pfb_client *client)
{
    const SurfaceState &state = client->state;
    if (state.clipped && !send_area(client, "set_clip", state.clip))
        return false;
    if (state.opaque_given && !send_area(client, "opaque_area", state.opaque))
        return false;
    if (state.plane != PFB_PLANE_NONE &&
        !send_soon(client, {FUNCTION, "color_plane", {static_cast<int32_t>(state.plane)}}))
        return false;
    return !state.sync || send_soon(client, {FUNCTION, "set_sync", {1}});
}

// The application may be drawing: what it holds is there before the surface can be seen. The areas that it once
// reported are of no use, the surface is drawn as a whole.
bool send_locks(pfb_client *client)
{
    const SurfaceState &state = client->state;
    for (int32_t i = 0; i < state.locks; i++) {
        if (!send_area(client, "lock_area", {0, 0, 0, 0}))
            return false;
    }
    return !state.blocked || send_soon(client, {FUNCTION, "block_until_unlock"});
}

} // namespace

bool libpfb::restore_send(pfb_client *client)
{
    Deadline deadline(client);
    if (send_create(client, FUNCTION, client->memory_name, deadline) != PFB_OK || !send_place(client) ||
        !send_look(client) || !send_locks(client))
        return false;
    if (client->state.shown && !send_soon(client, {FUNCTION, "show"}))
        return false;
    return send_soon(client, {FUNCTION, "get_native_color_depth"});
}
