// SPDX-License-Identifier: MIT
#include "fuzz.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

std::span<const uint8_t> FuzzInput::take(size_t n)
{
    const size_t taken = std::min(n, static_cast<size_t>(end - at));
    const std::span<const uint8_t> bytes{at, taken};
    at += taken;
    return bytes;
}

void fuzz_finding(const char *format, ...)
{
    fprintf(stderr, "FINDING: ");
    va_list values;
    va_start(values, format);
    vfprintf(stderr, format, values);
    va_end(values);
    fprintf(stderr, "\n");
    abort();
}
