// SPDX-License-Identifier: MIT
#include "kernels.h"

#include <asm/hwcap.h>
#include <sys/auxv.h>

KernelList kernels_available()
{
    const int count = (getauxval(AT_HWCAP) & HWCAP_NEON) != 0 ? 2 : 1;
    return {{&kernels_plain, &kernels_neon}, count};
}
