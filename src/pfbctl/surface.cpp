// SPDX-License-Identifier: MIT
#include "surface.h"

#include <cstdlib>

#include "../panelimage/message.h"
#include "connect.h"
#include "hold.h"
#include "values.h"

SurfaceOptions surface_options;

namespace {

// A device that is turned says so once, for all commands.
bool default_rotation()
{
    const char *text = getenv("PFB_ROTATION");
    return text == nullptr || value_number("PFB_ROTATION", text, &surface_options.rotation);
}

bool check_options()
{
    SurfaceOptions &o = surface_options;
    if (o.at != nullptr && !value_position("--at", o.at, &o.x, &o.y))
        return false;
    if (!value_rotation(o.rotation))
        return false;
    if (o.seconds >= 0 && o.seconds <= 1e9)
        return true;
    complain("--for takes 0 to a thousand million seconds");
    return false;
}

// False after a message: the surface makes no sense on such a screen.
bool suits(const SurfaceWish &wish, int depth)
{
    if (wish.alpha_use == nullptr || depth >= 24 || depth == 0)
        return true;
    complain("the screen has %d bits and no alpha: %s", depth, wish.alpha_use);
    return !wish.needs_alpha;
}

// The server answers the question after it has made the surface: a connection that it closes shows here.
int fill_surface(pfb_client *client, const SurfaceWish &wish, const std::function<bool(pfb_client *)> &draw)
{
    const SurfaceOptions &o = surface_options;
    int depth = 0;
    if (pfb_create(client, wish.format, o.x, o.y, wish.width, wish.height, o.level, o.rotation) != PFB_OK ||
        pfb_get_color_depth(client, &depth) != PFB_OK)
        return connect_complain();
    if (!suits(wish, depth))
        return STATUS_FAILED;
    return draw(client) ? STATUS_DONE : connect_complain();
}

} // namespace

bool surface_parse(const OptionText &text, const GOptionEntry *entries, int *argc, char ***argv)
{
    return default_rotation() && options_parse(text, entries, argc, argv) && check_options();
}

pfb_client *surface_open(const SurfaceWish &wish, const std::function<bool(pfb_client *)> &draw, int *status)
{
    hold_signals();
    pfb_client *client = connect_server(surface_options.name != nullptr ? surface_options.name : "pfbctl");
    if (client == nullptr) {
        *status = connect_status();
        return nullptr;
    }
    *status = fill_surface(client, wish, draw);
    if (*status == STATUS_DONE)
        return client;
    pfb_disconnect(client);
    return nullptr;
}

int surface_run(const SurfaceWish &wish, const std::function<bool(pfb_client *)> &draw)
{
    int status = STATUS_FAILED;
    pfb_client *client = surface_open(wish, draw, &status);
    if (client == nullptr)
        return status;
    status = pfb_show(client) == PFB_OK ? hold_wait(client, surface_options.seconds) : connect_complain();
    pfb_disconnect(client);
    return status;
}
