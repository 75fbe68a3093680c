// SPDX-License-Identifier: MIT
// The mappings of clients' shared memory. An address that once held a client's pixels is never unmapped; when its
// surface goes, the range becomes an inaccessible reservation that costs no memory, and later clients are mapped into
// reservations that are large enough.
//
// A client may shorten its object behind the server's back at any moment, in the middle of a blend too, and a page of a
// sparse object cannot be had when the memory for such objects is used up. The SIGBUS of such an access is caught: the
// missing pages read as zero from then on. A SIGBUS anywhere else still kills.
#pragma once

#include <cstddef>
#include <cstdint>

// Maps `bytes` (above 0) of the shared-memory object `fd`, readable and writable. MAP_FAILED with errno set, as mmap.
void *client_memory_map(int fd, size_t bytes);
// The pixels of a client of whose object pages turned out to be missing since this was asked last, or null. Each client
// is told of once.
void *client_memory_take_short();
// Gives the pages at `pixels` back. Memory that did not come from client_memory_map (null too) is left alone.
void client_memory_retire(void *pixels);
// Notes that nobody will give the pages at `pixels` back any more: they stay mapped until the server ends.
void client_memory_leave(void *pixels);

// What is mapped now, and what of that was left.
struct ClientMemoryUse {
    uint64_t bytes;
    uint64_t left_bytes;
    size_t n_left; // mappings
};
ClientMemoryUse client_memory_use();
// 0 for memory that did not come from client_memory_map.
uint64_t client_memory_size(const void *pixels);
