// SPDX-License-Identifier: MIT
// Rows of a scaled image.
#pragma once

#include "vector.h"

namespace {

// From pixel i on.
template <typename Pixel> void pick_pixels(const uint8_t *src, uint8_t *dst, const PickPlan *plan, int32_t i)
{
    constexpr ptrdiff_t size = sizeof(Pixel);
    for (; i < plan->n; i++)
        store(dst + i * size, load<Pixel>(src + plan->columns[i] * size));
}

template <typename Pixel> void pick(const uint8_t *src, uint8_t *dst, const PickPlan *plan)
{
    pick_pixels<Pixel>(src, dst, plan, 0);
}

} // namespace
