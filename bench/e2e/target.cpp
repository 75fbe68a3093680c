// SPDX-License-Identifier: MIT
#include "target.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

void fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fprintf(stderr, "bench: ");
    vfprintf(stderr, format, args);
    fprintf(stderr, "\n");
    va_end(args);
    exit(1);
}

const Target *find_target(const char *name)
{
    for (const Target *candidate : {&target_pfb, &target_floor, &target_x, &target_wayland}) {
        if (strcmp(candidate->name, name) == 0)
            return candidate;
    }
    fail("there is no target %s", name);
}
