// SPDX-License-Identifier: MIT
#include "kernels.h"

// Every processor of this architecture has them.
KernelList kernels_available()
{
    return {{&kernels_plain, &kernels_neon}, 2};
}
