// SPDX-License-Identifier: MIT
// Memory that is mapped and not to be touched: pages end later than what lies in them. The address sanitizer reports
// an access to such bytes as it does on the heap; without it nothing happens here.
#pragma once

#include <cstddef>

extern "C" void __asan_poison_memory_region(const volatile void *start, size_t bytes) __attribute__((weak));
extern "C" void __asan_unpoison_memory_region(const volatile void *start, size_t bytes) __attribute__((weak));

inline void poison_add(const void *start, size_t bytes)
{
    if (__asan_poison_memory_region != nullptr)
        __asan_poison_memory_region(start, bytes);
}

inline void poison_remove(const void *start, size_t bytes)
{
    if (__asan_unpoison_memory_region != nullptr)
        __asan_unpoison_memory_region(start, bytes);
}
