// SPDX-License-Identifier: MIT
// Assertions that stay on in every build: an impossible state ends the server with the expression, the source file
// and the function, and whoever supervises it starts it again.
#pragma once

// Writes out what standard output still holds, prints "PROGRAM: FILE:LINE: FUNCTION: Assertion `EXPR' failed." to
// standard error and aborts.
[[noreturn]] void assert_failed(const char *expression, const char *file, unsigned line, const char *function);

#define fs_assert(expression)                                                                                          \
    ((expression) ? static_cast<void>(0) : assert_failed(#expression, __FILE__, __LINE__, __func__))
// Under another function's name: a step that is reported as part of the operation that it belongs to.
#define fs_assert_in(function, expression)                                                                             \
    ((expression) ? static_cast<void>(0) : assert_failed(#expression, __FILE__, __LINE__, function))
// With the text that stands for the expression in the log.
#define fs_assert_text(expression, text)                                                                               \
    ((expression) ? static_cast<void>(0) : assert_failed(text, __FILE__, __LINE__, __func__))
