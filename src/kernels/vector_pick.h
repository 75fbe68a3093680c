// SPDX-License-Identifier: MIT
// Rows of a scaled image.
#pragma once

#include "vector.h"

namespace {

template <typename Pixel> void pick(const uint8_t *src, uint8_t *dst, const int32_t *columns, int32_t n)
{
    for (int32_t i = 0; i < n; i++)
        store(dst + i * static_cast<ptrdiff_t>(sizeof(Pixel)),
              load<Pixel>(src + columns[i] * static_cast<ptrdiff_t>(sizeof(Pixel))));
}

} // namespace
