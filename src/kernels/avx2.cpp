// SPDX-License-Identifier: MIT
#include "lanes_avx2.h"
#include "pick_avx2.h"
#include "vector_table.h"

constinit const Kernels kernels_avx2 = vector_kernels("avx2", pick_wide_16, pick_wide_32);
