// SPDX-License-Identifier: MIT
// The inner loops over pixels, once for each instruction set that a machine may have, all with the same results bit for
// bit. Which set is used is decided once, when the program starts.
//
// A kernel works on a rectangle of w x h pixels, both at least 1. `src` and `dst` point at its first pixel, which lies
// on a boundary of its own size; pitches are the pixels from one row to the next. The two do not overlap. Nothing
// outside the rectangle is read or written. Every destination row is written from left to right, and read by nothing
// but OVER and the dimming: a destination may be a device's memory.
#pragma once

#include <cstddef>
#include <cstdint>

template <typename Src, typename Dst>
using Kernel = void (*)(const Src *src, ptrdiff_t src_pitch, Dst *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h);

// Rows of `size` bytes as they are, at least one each of them and at least one row; pitches are in bytes.
using CopyKernel = void (*)(const uint8_t *src, ptrdiff_t src_pitch, uint8_t *dst, ptrdiff_t dst_pitch, size_t size,
                            int32_t h);
// A rectangle of one colour; w may be 0.
template <typename Pixel> using FillKernel = void (*)(Pixel *dst, ptrdiff_t pitch, Pixel value, int32_t w, int32_t h);
// A row in place: n pixels, n at least 0. Dimming makes each colour byte p x strength / 256, strength at most 255, and
// the top byte 0.
using DimKernel = void (*)(uint32_t *row, uint32_t strength, int32_t n);

// How the pixels of a scaled row are got at: 32 bytes of the destination are made in a step, out of vectors of 32 bytes
// of the source.
enum PickShape {
    PICK_SINGLY,     // vectors do not reach, or the row is too short
    PICK_ONE,        // one vector holds the source of a step; of 16-bit pixels, 16 bytes of it that of the last 8
    PICK_OVERLAPPED, // 16-bit pixels: two vectors, the second 16 bytes on; the first 8 pixels come from the first half
                     // of either, the other 8 from the second
    PICK_TWO         // 32-bit pixels: two vectors side by side; 16-bit ones: one for every 8 pixels
};

// Columns that follow a rule: c c+1 c+1 c+2 or c c c+1 c+1 and so on, or c c+2 c+4.
enum PickRhythm { PICK_ANY, PICK_DOUBLED, PICK_HALVED };

// Shorter rows are done pixel by pixel.
constexpr int32_t PICK_LEAST = 16;

// Where the pixels of a scaled row come from, for many rows: dst pixel i is src pixel columns[i].
constexpr int32_t PICK_MOST = 2048;
struct PickPlan {
    int32_t n;                  // pixels, 1 to PICK_MOST
    int32_t columns[PICK_MOST]; // begin with 0 and never go back
    // The rest is pick_plan_finish's. Where the row is no whole number of steps, the last one begins earlier; step k is
    // kept as if it began at k x step.
    PickRhythm rhythm; // of all from `alike` on
    PickShape shape;
    // Steps that begin at `alike` (0 or the second step) and before `until` differ in nothing but where their source
    // is: `advance` pixels on from one to the next.
    int32_t alike, until, advance;
    int32_t end;    // of 16-bit pixels, steps from here on are PICK_TWO: near the end of a row, vectors begin earlier
    int32_t second; // PICK_ONE of 16 bits: the first source pixel for the last 8, an even number
    int32_t starts[PICK_MOST / 8]; // for 8 pixels, the first one of the vector; all of it lies in the row
    union {
        alignas(64) uint32_t words[PICK_MOST]; // of 32-bit pixels: the place from the start
        uint8_t bytes[PICK_MOST * 4];          // of 16-bit pixels: the shuffles of both vectors of a step, 64 bytes
    };
};
// For pixels of 2 or 4 bytes.
void pick_plan_finish(PickPlan *plan, int32_t pixel_size);

// Rows that do not overlap; several may be on their way at a time. Those from the same source follow one another. Reads
// nothing of the sources outside columns[0] to columns[n - 1], but between them perhaps everything, and may read a
// destination that it has written. Neither side needs alignment.
struct PickRow {
    const uint8_t *src;
    uint8_t *dst;
};
using PickKernel = void (*)(const PickRow *rows, int32_t count, const PickPlan *plan);

// "rgb" and "argb" are 32-bit words, "16" is 5-6-5, "18" is 6-6-6 in a word; pixel.h has the formulas.
struct Kernels {
    const char *name;
    CopyKernel copy;
    Kernel<uint32_t, uint16_t> rgb_to_16;
    Kernel<uint32_t, uint32_t> rgb_to_18;
    Kernel<uint32_t, uint32_t> rgb_to_argb; // alpha becomes 255
    Kernel<uint32_t, uint32_t> rgb_to_alpha4;
    Kernel<uint32_t, uint32_t> argb_to_alpha4;
    // Porter-Duff OVER of premultiplied words, with pixman's rounding. Where a destination pitch below w makes rows
    // overlap, each goes over what the one before has left.
    Kernel<uint32_t, uint32_t> over;
    Kernel<uint16_t, uint32_t> from_16_to_32;
    Kernel<uint16_t, uint32_t> from_16_to_18;
    Kernel<uint32_t, uint32_t> from_18_to_32;
    Kernel<uint32_t, uint16_t> from_18_to_16;
    // Every pixel twice in each of two rows; dst_pitch is that of single rows. Without alignment beyond 16 bits.
    Kernel<uint16_t, uint16_t> double_16;
    Kernel<uint32_t, uint16_t> double_rgb_to_16;
    // A quarter turn: source pixel (i, j) lands in row i, column h - 1 - j. Where a destination pitch below h makes
    // rows overlap, the later row counts.
    Kernel<uint16_t, uint16_t> turn_16;
    Kernel<uint32_t, uint32_t> turn_32;
    Kernel<uint32_t, uint16_t> turn_rgb_to_16;
    FillKernel<uint16_t> fill_16;
    FillKernel<uint32_t> fill_32;
    DimKernel dim;
    PickKernel pick_16;
    PickKernel pick_32;
};

// The set in use: the fastest that this processor has. Tests and benchmarks may put another one here.
extern const Kernels *kernels;

// Every set that this processor can run, the plain one first and the fastest last.
struct KernelList {
    const Kernels *sets[4];
    int count;
};
KernelList kernels_available();

// Those of them that a build has depends on the architecture; only the plain one is everywhere.
extern const Kernels kernels_plain;
extern const Kernels kernels_sse2;
extern const Kernels kernels_avx2;
extern const Kernels kernels_neon;
