// SPDX-License-Identifier: MIT
#pragma once

#include <string>

// Reads the first line of a file that belongs to this user (or root) and that nobody else may read. False after a
// message: there is no such file, others may read it, or it holds no password of 1 to 8 bytes, which is all that the
// protocol's check looks at.
bool password_read(const char *file, std::string *password);
