// SPDX-License-Identifier: MIT
#include "client_limits.h"

#include <algorithm>
#include <unistd.h>

namespace {

// Addresses are what runs out first, in a process of 32 bits and on processors with few address bits.
constexpr uint64_t MAPPED_BYTES = sizeof(void *) > 4 ? 65536 * MIB : 1024 * MIB;

uint64_t quarter_of_memory()
{
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long size = sysconf(_SC_PAGESIZE);
    return pages > 0 && size > 0 ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(size) / 4 : UINT64_MAX;
}

} // namespace

ClientLimits client_limits{MAPPED_BYTES, MAPPED_BYTES / 4, 1024, std::min(128 * MIB, quarter_of_memory())};
