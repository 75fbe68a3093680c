// SPDX-License-Identifier: MIT
// Another user of the same machine. Only root can become one; for everybody else these processes are their own.
#pragma once

#include <sys/types.h>

inline constexpr uid_t STRANGER = 65534;
inline constexpr gid_t STRANGERS = 65534, DISPLAY_GROUP = 54321; // no group of anybody's

bool is_root();

// As root, in a process of its own: becomes the stranger, of this group alone. Ends the process when that fails.
void become_stranger(gid_t group);
