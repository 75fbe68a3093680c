// SPDX-License-Identifier: MIT
#include "connection.h"

#include <cstdint>
#include <initializer_list>

#include "../base/output.h"
#include "command.h"

namespace {

// A lock puts off the pass that is due, but not twice in a row: a client that asks for the lock again as soon as it has
// given it back would keep everybody's changes from the screen, its own among them.
mc_packet *handle_lock(mc_connection *connection, mc_packet *request)
{
    static uint32_t put_off_after = UINT32_MAX; // so many passes
    if (fs->idle_source != 0 && fs->passes == put_off_after)
        fs_render_due(fs);
    else if (fs->idle_source != 0)
        put_off_after = fs->passes;
    return handle_command(connection, request);
}

} // namespace

void on_new_connection([[maybe_unused]] mc_factory *factory, mc_connection *connection,
                       [[maybe_unused]] void *user_data)
{
    mc_glib_init(connection);
    mc_set_handler(connection, "", handle_command, nullptr);
    for (const char *word : {"lock_area", "block_until_unlock"})
        mc_set_handler(connection, word, handle_lock, nullptr);
    mc_set_hup_handler(connection, handle_hangup, nullptr);
}

int handle_hangup(mc_connection *connection)
{
    auto *surface = static_cast<ImageSurface *>(mc_user_data(connection));
    if (surface != nullptr)
        fs_remove_surface(fs, surface);
    out_flush();
    return mc_close(connection);
}
