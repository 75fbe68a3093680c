// SPDX-License-Identifier: MIT
// The mappings of clients' shared memory. An address that once held a client's pixels is never unmapped; when its
// surface goes, the range becomes an inaccessible reservation that costs no memory, and later clients are mapped into
// reservations that are large enough.
#pragma once

#include <cstddef>

// Maps `bytes` (above 0) of the shared-memory object `fd`, readable and writable. MAP_FAILED with errno set, as mmap.
void *client_memory_map(int fd, size_t bytes);
// Gives the pages at `pixels` back. Memory that did not come from client_memory_map (null too) is left alone.
void client_memory_retire(void *pixels);
