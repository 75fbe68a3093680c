// SPDX-License-Identifier: MIT
// What the server prints. Lines for standard output wait in a buffer until out_flush, which never blocks: a reader
// that has stopped reading cannot stop the picture. Beyond OUT_BUFFER_SIZE waiting bytes further lines are dropped
// and counted, and the count is printed once the reader is back. The same where the log is a file and the disk is full,
// or the file as large as it may be. Standard error works the same way, is flushed with every message, and comes after
// what standard output held, so that a log of both keeps their order.
#pragma once

#include <cstddef>

inline constexpr size_t OUT_BUFFER_SIZE = 256 * 1024;
inline constexpr size_t ERR_BUFFER_SIZE = 16 * 1024;

[[gnu::format(printf, 1, 2)]] void out_printf(const char *format, ...);
void out_puts(const char *line); // adds the newline
// Writes what can be written without waiting. Returns true when nothing is left.
bool out_flush();
// True while lines wait for a reader.
bool out_waiting();

// The same two for standard error, whose lines are flushed as they come.
bool err_waiting();
bool err_flush();

// Both flushes, waiting up to `milliseconds` in all for slow readers. Returns true when nothing is left.
bool output_drain(int milliseconds);

[[gnu::format(printf, 1, 2)]] void err_printf(const char *format, ...);
// A message that waits for the next flush or drain.
[[gnu::format(printf, 1, 2)]] void err_put(const char *format, ...);
// "WHAT: the system's text for errno", as perror.
void err_perror(const char *what);
