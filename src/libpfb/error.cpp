// SPDX-License-Identifier: MIT
#include "client.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr int TEXT_SIZE = 512;

thread_local int last_code = PFB_OK;
thread_local char last_text[TEXT_SIZE];

int code_of(int error)
{
    switch (error) {
    case EPIPE:
        return PFB_ERROR_GONE;
    case ETIMEDOUT:
        return PFB_ERROR_TIMEOUT;
    case ENOMEM:
    case ENOSPC:
        return PFB_ERROR_MEMORY;
    case EACCES:
    case EPERM:
        return PFB_ERROR_ACCESS;
    default:
        return PFB_ERROR_SYSTEM;
    }
}

const char *text_of(int error, char *buffer, size_t size)
{
    if (error == EPIPE)
        return "the server has gone or has closed the connection";
    if (error == ETIMEDOUT)
        return "the server has not answered in time";
    return strerror_r(error, buffer, size);
}

} // namespace

int libpfb::fail(int code, const char *function, const char *format, ...)
{
    last_code = code;
    const int n = snprintf(last_text, sizeof last_text, "%s: ", function);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(last_text + n, sizeof last_text - static_cast<size_t>(n), format, arguments);
    va_end(arguments);
    return code;
}

int libpfb::fail_errno(const char *function, const char *what)
{
    const int error = errno;
    char buffer[128];
    return fail(code_of(error), function, "%s: %s", what, text_of(error, buffer, sizeof buffer));
}

int pfb_error(void)
{
    return last_code;
}

const char *pfb_error_text(void)
{
    return last_text;
}
