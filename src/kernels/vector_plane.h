// SPDX-License-Identifier: MIT
// Rectangles of one colour, and rows that are dimmed in place.
#pragma once

#include "vector.h"

namespace {

// A row of at least one vector.
template <typename V, typename Pixel> [[gnu::always_inline]] inline void fill_row(Pixel *row, V all, ptrdiff_t n)
{
    constexpr ptrdiff_t N = PER_VECTOR<Pixel>;
    for (ptrdiff_t i = 0; i < n - N; i += N)
        store(row + i, all);
    store(row + n - N, all);
}

template <typename Pixel, typename V, FillKernel<Pixel> Kernels::*own>
void fill(Pixel *dst, ptrdiff_t pitch, Pixel value, int32_t w, int32_t h)
{
    ptrdiff_t width = w;
    if (pitch == w) { // one long row
        width *= h;
        h = 1;
    }
    if (width < PER_VECTOR<Pixel>) {
        (NARROWER.*own)(dst, pitch, value, static_cast<int32_t>(width), h);
        return;
    }
    for (; h > 0; h--, dst += pitch)
        fill_row(dst, V{} + value, width);
}

// Strength is at most 255, so that the product of a byte stays in its 16 bits.
inline void dim(uint32_t *row, uint32_t strength, int32_t n)
{
    constexpr int32_t N = PER_VECTOR<uint32_t>;
    const U16 factor = U16{} + static_cast<uint16_t>(strength);
    int32_t i = 0;
    for (; i + N <= n; i += N) {
        const U32 p = load<U32>(row + i);
        const U16 red_blue = reinterpret_cast<U16>(p & 0x00FF00FFu) * factor >> 8;
        const U16 green = (reinterpret_cast<U16>(p) >> 8) * factor;
        store(row + i, reinterpret_cast<U32>(red_blue) | (reinterpret_cast<U32>(green) & 0x0000FF00u));
    }
    if (i < n)
        NARROWER.dim(row + i, strength, n - i);
}

} // namespace
