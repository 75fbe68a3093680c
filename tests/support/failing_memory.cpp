// SPDX-License-Identifier: MIT
#include "failing_memory.h"

#include <cerrno>
#include <cstddef>

namespace {

unsigned failing_kinds = 0;
int calls_left = 0;
bool delivered = false;

bool is_refused(Allocation kind)
{
    if ((failing_kinds & kind) == 0 || --calls_left > 0)
        return false;
    failing_kinds = 0;
    delivered = true;
    errno = ENOMEM;
    return true;
}

} // namespace

void fail_allocation(unsigned kinds, int nth)
{
    failing_kinds = kinds;
    calls_left = nth;
    delivered = false;
}

bool allocation_failed()
{
    failing_kinds = 0;
    return delivered;
}

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
char *__real_strdup(const char *text);
char *__real_strndup(const char *text, size_t n);

void *__wrap_malloc(size_t size)
{
    return is_refused(MALLOC) ? nullptr : __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    return is_refused(CALLOC) ? nullptr : __real_calloc(count, size);
}
void *__wrap_realloc(void *block, size_t size)
{
    return is_refused(REALLOC) ? nullptr : __real_realloc(block, size);
}
char *__wrap_strdup(const char *text)
{
    return is_refused(STRDUP) ? nullptr : __real_strdup(text);
}
char *__wrap_strndup(const char *text, size_t n)
{
    return is_refused(STRDUP) ? nullptr : __real_strndup(text, n);
}
}
