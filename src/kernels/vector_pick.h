// SPDX-License-Identifier: MIT
// Rows of a scaled image.
#pragma once

#include "vector.h"

namespace {

// What has the same source as the row before is copied from there.
template <typename Pixel> void pick(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    constexpr ptrdiff_t size = sizeof(Pixel);
    for (int32_t k = 0; k < count; k++) {
        const PickRow &row = rows[k];
        if (k > 0 && row.src == rows[k - 1].src) {
            __builtin_memcpy(row.dst, rows[k - 1].dst, static_cast<size_t>(plan->n) * sizeof(Pixel));
            continue;
        }
        for (int32_t i = 0; i < plan->n; i++)
            store(row.dst + i * size, load<Pixel>(row.src + plan->columns[i] * size));
    }
}

} // namespace
