// SPDX-License-Identifier: MIT
#include "soak.h"

#include <cstdio>
#include <sys/mman.h>

Shared *shared_new()
{
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? new (memory) Shared{} : nullptr;
}

void shared_delete(Shared *shared)
{
    munmap(shared, sizeof(Shared));
}

void shared_fault(Shared *shared, const std::string &text)
{
    if (shared->n_faults.fetch_add(1) == 0)
        snprintf(shared->fault, sizeof shared->fault, "%s", text.c_str());
}

bool wait_long(const std::function<bool()> &predicate)
{
    for (int i = 0; i < LONG_WAIT_SECONDS / WAIT_SECONDS; i++) {
        if (wait_until(predicate))
            return true;
    }
    return false;
}
