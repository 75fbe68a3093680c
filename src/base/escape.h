// SPDX-License-Identifier: MIT
// Text of a client's on its way into the log: it cannot end a line, begin another one, or command a terminal.
#pragma once

#include <cstddef>
#include <cstdio>

// Every byte that is no printable ASCII, quotes and backslashes become \xHH. What does not fit into `size` bytes is cut
// off; the result always ends with a NUL. Returns `out`.
inline const char *escape_text(const char *text, char *out, size_t size)
{
    size_t at = 0;
    for (; *text != '\0'; text++) {
        const auto byte = static_cast<unsigned char>(*text);
        const bool plain = byte >= 0x20 && byte < 0x7f && byte != '"' && byte != '\\';
        const size_t n = plain ? 1 : 4;
        if (at + n >= size)
            break;
        snprintf(out + at, size - at, plain ? "%c" : "\\x%02x", byte);
        at += n;
    }
    out[at] = '\0';
    return out;
}
