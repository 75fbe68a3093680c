// SPDX-License-Identifier: MIT
// The mappings of clients' shared memory. An address that once held a client's pixels is never unmapped; when its
// surface goes, the range becomes an inaccessible reservation that costs no memory, and later clients are mapped into
// reservations that are large enough.
//
// A client may shorten its object behind the server's back at any moment, in the middle of a blend too. The SIGBUS of
// such an access is caught: the missing pages read as zero from then on. A SIGBUS anywhere else still kills.
#pragma once

#include <cstddef>

// Maps `bytes` (above 0) of the shared-memory object `fd`, readable and writable. MAP_FAILED with errno set, as mmap.
void *client_memory_map(int fd, size_t bytes);
// The pixels of a client whose object turned out to be too short since this was asked last, or null. Each client is
// told of once.
void *client_memory_take_truncated();
// Gives the pages at `pixels` back. Memory that did not come from client_memory_map (null too) is left alone.
void client_memory_retire(void *pixels);
