// SPDX-License-Identifier: MIT
#include "kernels.h"

#if __has_include(<sys/platform/x86.h>) && !defined(__clang__) // it has a name of C's that clang does not take in C++
#include <sys/platform/x86.h>
#endif

namespace {

bool has_avx2()
{
#ifdef CPU_FEATURE_ACTIVE
    // The C library has asked the processor already. Each question is a trap where the processor is a virtual one, and
    // the compiler's own answer takes a dozen of them.
    return CPU_FEATURE_ACTIVE(AVX2);
#else
    __builtin_cpu_init(); // this may run before the compiler's own start-up code
    return __builtin_cpu_supports("avx2");
#endif
}

} // namespace

KernelList kernels_available()
{
    return {{&kernels_plain, &kernels_sse2, &kernels_avx2}, has_avx2() ? 3 : 2};
}
