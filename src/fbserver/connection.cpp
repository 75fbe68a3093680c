// SPDX-License-Identifier: MIT
#include "connection.h"

#include "../base/output.h"
#include "command.h"

void on_new_connection([[maybe_unused]] mc_factory *factory, mc_connection *connection,
                       [[maybe_unused]] void *user_data)
{
    mc_glib_init(connection);
    mc_set_handler(connection, "", handle_command, nullptr);
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
