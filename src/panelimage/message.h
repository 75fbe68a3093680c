// SPDX-License-Identifier: MIT
// What the commands say on standard error, and what they return.
#pragma once

inline constexpr int STATUS_DONE = 0;
inline constexpr int STATUS_FAILED = 1;
inline constexpr int STATUS_USAGE = 2;
// A program that could not be started, as a shell returns it.
inline constexpr int STATUS_NOT_EXECUTABLE = 126;
inline constexpr int STATUS_NOT_FOUND = 127;

// "PROGRAM: TEXT", by the name given to g_set_prgname
[[gnu::format(printf, 1, 2)]] void complain(const char *format, ...);
// "PROGRAM: WHAT: the system's text for errno"
void complain_errno(const char *what);
