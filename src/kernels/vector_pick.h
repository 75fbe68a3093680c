// SPDX-License-Identifier: MIT
// Rows of a scaled image.
#pragma once

#include "vector.h"

namespace {

// By value: the stores could be to the plan, for all that the compiler knows.
template <typename Pixel> void pick_row(PickRow row, const int32_t *columns, ptrdiff_t n)
{
    constexpr ptrdiff_t size = sizeof(Pixel);
    for (ptrdiff_t i = 0; i < n; i++)
        store(row.dst + i * size, load<Pixel>(row.src + columns[i] * size));
}

// What has the same source as the row before is copied from there.
template <typename Pixel> void pick(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    for (int32_t k = 0; k < count; k++) {
        if (k > 0 && rows[k].src == rows[k - 1].src)
            __builtin_memcpy(rows[k].dst, rows[k - 1].dst, static_cast<size_t>(plan->n) * sizeof(Pixel));
        else
            pick_row<Pixel>(rows[k], plan->columns, plan->n);
    }
}

} // namespace
