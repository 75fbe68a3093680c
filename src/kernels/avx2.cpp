// SPDX-License-Identifier: MIT
#include "lanes_avx2.h"
#include "vector_table.h"

#include "pick_avx2.h"

constinit const Kernels kernels_avx2 = [] {
    Kernels table = vector_kernels("avx2");
    table.pick_16 = pick_wide_16;
    table.pick_32 = pick_wide_32;
    return table;
}();
