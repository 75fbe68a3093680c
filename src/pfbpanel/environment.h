// SPDX-License-Identifier: MIT
// The environment in which a program takes a panel for the machine's own.
#pragma once

#include <string>

// Sets this process's environment: the preload library, the panel's folder, and the sanitizers told that the library
// may come before theirs. What the user has set there stays. False after a message.
bool environment_enter(const std::string &folder);
