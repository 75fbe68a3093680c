// SPDX-License-Identifier: MIT
#include "lanes_sse2.h"
#include "vector_table.h"

constinit const Kernels kernels_sse2 = vector_kernels("sse2");
