// SPDX-License-Identifier: MIT
#include "connect.h"

#include <cstdlib>
#include <string>

#include "../panelimage/message.h"

namespace {

// As pfb_connect looks for it.
std::string server_folder()
{
    for (const char *variable : {"MC_RUNTIME_DIR", "XDG_RUNTIME_DIR"}) {
        const char *folder = getenv(variable);
        if (folder != nullptr && folder[0] != '\0')
            return folder;
    }
    return "/run/mc";
}

} // namespace

pfb_client *connect_server(const char *name)
{
    pfb_client *client = pfb_connect(name);
    if (client == nullptr && pfb_error() == PFB_ERROR_NO_SERVER)
        complain("no server listens at %s/pfb.mc: is fbserver running?", server_folder().c_str());
    else if (client == nullptr)
        connect_complain();
    return client;
}

int connect_status()
{
    const bool gone = pfb_error() == PFB_ERROR_NO_SERVER || pfb_error() == PFB_ERROR_GONE;
    return gone ? STATUS_NO_SERVER : STATUS_FAILED;
}

int connect_complain()
{
    complain("%s", pfb_error_text());
    return connect_status();
}
