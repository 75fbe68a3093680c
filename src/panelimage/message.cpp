// SPDX-License-Identifier: MIT
#include "message.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <glib.h>

void complain(const char *format, ...)
{
    char line[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    fprintf(stderr, "%s: %s\n", g_get_prgname(), line);
}

void complain_errno(const char *what)
{
    complain("%s: %s", what, strerror(errno));
}
