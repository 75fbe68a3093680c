// SPDX-License-Identifier: MIT
#include "client.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

thread_local libpfb::LastError last; // zeros: PFB_OK, and no text

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
    last.code = code;
    const int n = snprintf(last.text, sizeof last.text, "%s: ", function);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(last.text + n, sizeof last.text - static_cast<size_t>(n), format, arguments);
    va_end(arguments);
    return code;
}

int libpfb::fail_errno(const char *function, const char *what)
{
    const int error = errno;
    char buffer[128];
    return fail(code_of(error), function, "%s: %s", what, text_of(error, buffer, sizeof buffer));
}

libpfb::LastError libpfb::error_save()
{
    LastError error;
    error.code = last.code;
    strcpy(error.text, last.text);
    return error;
}

void libpfb::error_restore(const LastError &error)
{
    last.code = error.code;
    strcpy(last.text, error.text);
}

int pfb_error(void)
{
    return last.code;
}

const char *pfb_error_text(void)
{
    return last.text;
}
