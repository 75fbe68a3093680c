// SPDX-License-Identifier: MIT
#include "assert.h"

#include <cstdlib>
#include <cstring>
#include <errno.h>

#include "output.h"

namespace {

// Slow readers get this long to take what the log still holds.
constexpr int LAST_WORDS_MS = 100;

const char *from_source_root(const char *file)
{
    const char *source = file;
    for (const char *at = file; (at = strstr(at, "src/")) != nullptr; at++) {
        if (at == file || at[-1] == '/')
            source = at;
    }
    return source;
}

} // namespace

void assert_failed(const char *expression, const char *file, unsigned line, const char *function)
{
    err_put("%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name, from_source_root(file), line,
            function, expression);
    output_drain(LAST_WORDS_MS);
    abort();
}
