// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>

namespace libmc {

inline constexpr size_t LOG_LINE_MAX = 1536;

// One line to the function of mc_set_log; longer than LOG_LINE_MAX is cut. "libmc: " goes before it.
[[gnu::format(printf, 1, 2)]] void log_line(const char *format, ...);

// Copies `text` with every byte that is not plain printable ASCII as \xNN, so that a client's name can neither forge
// a line of the log nor upset a terminal. Cut where `out`, of `size` bytes, is full. Returns `out`.
const char *log_escape(const char *text, char *out, size_t size);

} // namespace libmc
