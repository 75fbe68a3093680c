// SPDX-License-Identifier: MIT
#include "lanes_neon.h"
#include "vector_pick.h"
#include "vector_table.h"

constinit const Kernels kernels_neon =
    vector_kernels("neon", pick<uint16_t, U16, &Kernels::pick_16>, pick<uint32_t, U32, &Kernels::pick_32>);
