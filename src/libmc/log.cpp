// SPDX-License-Identifier: MIT
#include "log.h"
#include "mc.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "../base/escape.h"

namespace {

// Line and newline leave in one piece, so that lines of several processes on one terminal stay whole.
void log_to_stderr(const char *line)
{
    char text[libmc::LOG_LINE_MAX + 1];
    const int n = snprintf(text, sizeof text - 1, "%s", line);
    const size_t length = static_cast<size_t>(n) < sizeof text - 2 ? static_cast<size_t>(n) : sizeof text - 2;
    text[length] = '\n';
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, length + 1);
}

mc_log_func log_func = log_to_stderr;

} // namespace

void mc_set_log(mc_log_func log)
{
    log_func = log ? log : log_to_stderr;
}

namespace libmc {

void log_line(const char *format, ...)
{
    char line[LOG_LINE_MAX] = "libmc: ";
    const size_t prefix = strlen(line);
    va_list values;
    va_start(values, format);
    vsnprintf(line + prefix, sizeof line - prefix, format, values);
    va_end(values);
    log_func(line);
}

const char *log_escape(const char *text, char *out, size_t size)
{
    return escape_text(text, out, size);
}

} // namespace libmc
