// SPDX-License-Identifier: MIT
// What the vector kernels share. Each instruction set has a lanes_*.h with the same names: U8, U16 and U32 are vectors
// of LANES times 16 bytes, and functions "in lanes" work on each 16 bytes by themselves. lanes_to_memory moves the
// quarters of a vector from the order that packing leaves to that of memory, and from that to the one that unpacking
// wants. pack_in_lanes<S> takes bits S to S + 15 of words that have none above; rgb_to_16_above leaves pixels there,
// with none below either, and rgb_to_16_in_lanes does both. NARROWER is the set that does what is too narrow for these
// vectors.
//
// All of it is in unnamed namespaces, and nothing of the standard library is used: a function that the linker could
// share between files might come from the file of an instruction set that the processor does not have.
#pragma once

#include "kernels.h"
#include "pixel.h"

namespace {

template <typename V> V load(const void *p)
{
    V v;
    __builtin_memcpy(&v, p, sizeof v);
    return v;
}

template <typename V> void store(void *p, V v)
{
    __builtin_memcpy(p, &v, sizeof v);
}

template <typename Pixel> constexpr ptrdiff_t PER_VECTOR = LANES * 16 / static_cast<ptrdiff_t>(sizeof(Pixel));

// N pixels of a row from src to dst. Written into each loop.
template <typename Src, typename Dst> using Step = void (*)(const Src *, Dst *);

// A row of at least N pixels. Where they are no whole steps, the last step begins earlier and does some pixels again.
template <auto step, ptrdiff_t N, ptrdiff_t TOGETHER, typename Src, typename Dst>
[[gnu::always_inline]] inline void convert_row(const Src *src, Dst *dst, ptrdiff_t n)
{
    ptrdiff_t i = 0;
    for (; TOGETHER > 1 && i + TOGETHER * N < n; i += TOGETHER * N) {
        for (ptrdiff_t k = 0; k < TOGETHER; k++)
            step(src + i + k * N, dst + i + k * N);
    }
    for (; i < n - N; i += N)
        step(src + i, dst + i);
    step(src + n - N, dst + n - N);
}

// Vectors of 16 bytes are too little for a turn of a loop. Short rows have few turns, and no time to choose a loop.
constexpr ptrdiff_t LONG_ROW_STEPS = LANES == 1 ? 8 : PTRDIFF_MAX;

template <typename Src, typename Dst, Kernel<Src, Dst> Kernels::*own, ptrdiff_t N, Step<Src, Dst> step>
void convert(const Src *src, ptrdiff_t src_pitch, Dst *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    ptrdiff_t width = w;
    if (src_pitch == w && dst_pitch == w) { // one long row
        width *= h;
        h = 1;
    }
    if (width < N) {
        (NARROWER.*own)(src, src_pitch, dst, dst_pitch, static_cast<int32_t>(width), h);
    } else if (width / N >= LONG_ROW_STEPS) {
        for (; h > 0; h--, src += src_pitch, dst += dst_pitch)
            convert_row<step, N, 4>(src, dst, width);
    } else {
        for (; h > 0; h--, src += src_pitch, dst += dst_pitch)
            convert_row<step, N, 1>(src, dst, width);
    }
}

} // namespace
