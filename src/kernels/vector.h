// SPDX-License-Identifier: MIT
// What the vector kernels share. Each instruction set has a lanes_*.h with the same names: U8, U16 and U32 are vectors
// of LANES times 16 bytes, and functions "in lanes" work on each 16 bytes by themselves. lanes_to_memory moves the
// quarters of a vector from the order that packing leaves to that of memory, and from that to the one that unpacking
// wants.
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

// A step of a row: `N` pixels from src to dst.
template <typename Src, typename Dst> using Step = void (*)(const Src *, Dst *);

// The last pixels of a row, through a buffer of a whole step.
template <typename Src, typename Dst, ptrdiff_t N, Step<Src, Dst> step, ptrdiff_t COPIES = 1>
void row_rest(const Src *src, Dst *dst, ptrdiff_t n)
{
    Src from[N];
    Dst to[N * COPIES];
    __builtin_memcpy(from, src, static_cast<size_t>(n) * sizeof(Src));
    step(from, to);
    __builtin_memcpy(dst, to, static_cast<size_t>(n * COPIES) * sizeof(Dst));
}

template <typename Src, typename Dst, ptrdiff_t N, Step<Src, Dst> step>
void convert(const Src *src, ptrdiff_t src_pitch, Dst *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    ptrdiff_t width = w;
    if (src_pitch == w && dst_pitch == w) { // one long row
        width *= h;
        h = 1;
    }
    for (; h > 0; h--, src += src_pitch, dst += dst_pitch) {
        ptrdiff_t i = 0;
        for (; i + N <= width; i += N)
            step(src + i, dst + i);
        if (i < width)
            row_rest<Src, Dst, N, step>(src + i, dst + i, width - i);
    }
}

} // namespace
