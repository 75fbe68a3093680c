// SPDX-License-Identifier: MIT
#include "lanes_neon.h"
#include "vector_table.h"

constinit const Kernels kernels_neon = vector_kernels("neon");
