// SPDX-License-Identifier: MIT
#include "lanes_avx2.h"
#include "vector_table.h"

constinit const Kernels kernels_avx2 = vector_kernels("avx2");
