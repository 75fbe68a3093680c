// SPDX-License-Identifier: MIT
// Where the socket of a service lives.
#pragma once

#include <sys/un.h>

namespace libmc {

inline constexpr const char DEFAULT_FOLDER[] = "/run/mc";

// The runtime folder: $MC_RUNTIME_DIR, $XDG_RUNTIME_DIR or DEFAULT_FOLDER, the first that is set and not empty.
const char *runtime_folder();

// The address of a service's socket, FOLDER/SERVICE.mc. Returns 0, or -1 with errno: EINVAL (no name, or one with a
// '/'), ENAMETOOLONG (longer than MC_NAME_MAX, or than a socket address holds).
int service_address(const char *service, sockaddr_un *address);

} // namespace libmc
