// SPDX-License-Identifier: MIT
#include "kernels.h"

KernelList kernels_available()
{
    __builtin_cpu_init(); // this may run before the compiler's own start-up code
    const int count = __builtin_cpu_supports("avx2") ? 3 : 2;
    return {{&kernels_plain, &kernels_sse2, &kernels_avx2}, count};
}
