// SPDX-License-Identifier: MIT
#include "client_limits.h"

#include <algorithm>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

// Addresses are what runs out first, in a process of 32 bits and on processors with few address bits.
constexpr uint64_t MAPPED_BYTES = sizeof(void *) > 4 ? 65536 * MIB : 1024 * MIB;

uint64_t memory_share(uint64_t part)
{
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long size = sysconf(_SC_PAGESIZE);
    return pages > 0 && size > 0 ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(size) / part : UINT64_MAX;
}

} // namespace

ClientLimits client_limits{MAPPED_BYTES, std::min(MAPPED_BYTES / 4, memory_share(8)), 1024,
                           std::min(128 * MIB, memory_share(4))};

// Asked for each time: /dev/shm may be mounted anew with another size.
uint64_t client_limits_left_bytes()
{
    struct statvfs space {};
    if (statvfs("/dev/shm", &space) != 0 || space.f_blocks == 0)
        return client_limits.left_bytes;
    return std::min(client_limits.left_bytes, uint64_t{space.f_blocks} * space.f_frsize / 4);
}
