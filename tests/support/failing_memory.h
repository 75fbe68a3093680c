// SPDX-License-Identifier: MIT
// Allocations that fail on demand. Programs that link failing_memory.cpp pass failing_memory_link_args to the linker;
// what the server and its libraries allocate comes through here then (GLib's and pixman's own memory does not).
#pragma once

enum Allocation : unsigned {
    MALLOC = 1,
    CALLOC = 2,
    REALLOC = 4,
    STRDUP = 8, // and strndup
    ANY_ALLOCATION = 15,
};

// The nth call from now (1: the next) of one of these kinds fails, once.
void fail_allocation(unsigned kinds, int nth);
// Nothing fails any more. True when a failure was delivered since fail_allocation.
bool allocation_failed();
