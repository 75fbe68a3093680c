// SPDX-License-Identifier: MIT
#include "names.h"
#include "mc.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

namespace libmc {

const char *runtime_folder()
{
    const char *folder = getenv("MC_RUNTIME_DIR");
    if (!folder || !*folder)
        folder = getenv("XDG_RUNTIME_DIR");
    return folder && *folder ? folder : DEFAULT_FOLDER;
}

int service_address(const char *service, sockaddr_un *address)
{
    if (!service || !*service || strchr(service, '/')) {
        errno = EINVAL;
        return -1;
    }
    *address = {};
    address->sun_family = AF_UNIX;
    const int n = snprintf(address->sun_path, sizeof address->sun_path, "%s/%s.mc", runtime_folder(), service);
    if (n < 0 || static_cast<size_t>(n) >= sizeof address->sun_path || strlen(service) > MC_NAME_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

} // namespace libmc
