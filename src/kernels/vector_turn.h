// SPDX-License-Identifier: MIT
// The quarter turn: blocks are transposed in registers. The rectangle is gone through by strips of source columns, so
// that the rows of a strip are finished before the next ones are begun. A strip is as wide as what the cache gets at a
// time, which is read once, and tiles of it are as high as makes the same of the destination: a device's memory gets
// whole lines.
#pragma once

#include "vector.h"

namespace {

constexpr int32_t LINE = 64;           // bytes that the cache gets at a time
constexpr ptrdiff_t CACHE = 32 * 1024; // the least that a first-level cache holds
constexpr int32_t WIDE_COLUMNS = 64;

// Inside lanes: each lane of them is four rows of four words, afterwards its columns.
inline void transpose(U32 &v0, U32 &v1, U32 &v2, U32 &v3)
{
    const U32 a = unpack_low(v0, v1);
    const U32 b = unpack_high(v0, v1);
    const U32 c = unpack_low(v2, v3);
    const U32 d = unpack_high(v2, v3);
    v0 = unpack_pairs_low(a, c);
    v1 = unpack_pairs_high(a, c);
    v2 = unpack_pairs_low(b, d);
    v3 = unpack_pairs_high(b, d);
}

// The same for eight rows of eight halves.
inline void transpose(U16 (&v)[8])
{
    U32 low[4];
    U32 high[4];
    for (int i = 0; i < 4; i++) {
        low[i] = reinterpret_cast<U32>(unpack_low(v[2 * i], v[2 * i + 1]));
        high[i] = reinterpret_cast<U32>(unpack_high(v[2 * i], v[2 * i + 1]));
    }
    transpose(low[0], low[1], low[2], low[3]);
    transpose(high[0], high[1], high[2], high[3]);
    for (int i = 0; i < 4; i++) {
        v[i] = reinterpret_cast<U16>(low[i]);
        v[i + 4] = reinterpret_cast<U16>(high[i]);
    }
}

// What is to be turned. block() turns COLUMNS columns of ROWS source rows; `from` is at the first column of the lowest
// row, and `up` bytes lead to the one above. ASIDE: the line to the right of each is asked for as well, to be near when
// the next strip comes to it; that helped with large pictures of 32-bit pixels, and nowhere else.
struct Turn32 {
    using Src = uint32_t;
    using Dst = uint32_t;
    static constexpr auto kernel = &Kernels::turn_32;
    static constexpr bool ASIDE = true;
    static constexpr int32_t COLUMNS = 4;
    static constexpr int32_t ROWS = 4 * LANES;
    [[gnu::always_inline]] static void block(const uint8_t *from, ptrdiff_t up, Dst *dst, ptrdiff_t dst_pitch)
    {
        U32 v[COLUMNS];
        for (int i = 0; i < COLUMNS; i++)
            v[i] = load_lanes<U32>(from + i * up, COLUMNS * up);
        transpose(v[0], v[1], v[2], v[3]);
        for (int i = 0; i < COLUMNS; i++)
            store(dst + i * dst_pitch, v[i]);
    }
};
struct Turn16 {
    using Src = uint16_t;
    using Dst = uint16_t;
    static constexpr auto kernel = &Kernels::turn_16;
    static constexpr bool ASIDE = false;
    static constexpr int32_t COLUMNS = 8;
    static constexpr int32_t ROWS = 8 * LANES;
    [[gnu::always_inline]] static void block(const uint8_t *from, ptrdiff_t up, Dst *dst, ptrdiff_t dst_pitch)
    {
        U16 v[COLUMNS];
        for (int i = 0; i < COLUMNS; i++)
            v[i] = load_lanes<U16>(from + i * up, COLUMNS * up);
        transpose(v);
        for (int i = 0; i < COLUMNS; i++)
            store(dst + i * dst_pitch, v[i]);
    }
};
// Two rows make words out of their pixels: then only words are left to be transposed.
struct TurnRgb {
    using Src = uint32_t;
    using Dst = uint16_t;
    static constexpr auto kernel = &Kernels::turn_rgb_to_16;
    static constexpr bool ASIDE = false;
    static constexpr int32_t COLUMNS = 4 * LANES;
    static constexpr int32_t ROWS = 8 * LANES;
    [[gnu::always_inline]] static void block(const uint8_t *from, ptrdiff_t up, Dst *dst, ptrdiff_t dst_pitch)
    {
        U32 v[COLUMNS];
        for (int i = 0; i < COLUMNS; i++) {
            const U32 lower = rgb_to_16_above(load<U32>(from + 2 * i * up));
            const U32 upper = rgb_to_16_above(load<U32>(from + (2 * i + 1) * up));
            v[i] = lower >> RGB_TO_16_SHIFT | upper << (16 - RGB_TO_16_SHIFT);
        }
        for (int i = 0; i < COLUMNS; i += 4)
            transpose(v[i], v[i + 1], v[i + 2], v[i + 3]);
        for (int i = 4; i < COLUMNS; i++)
            exchange_lanes(v[i - 4], v[i]);
        for (int i = 0; i < COLUMNS; i++)
            store(dst + i * dst_pitch, v[i]);
    }
};

// A tile of whole blocks. With ASK it is one of a line in either direction, and asks for the lines of the next one
// above: no processor guesses where a walk across rows goes.
template <typename Turn, bool ASK>
[[gnu::always_inline]] inline void turn_tile(const uint8_t *from, ptrdiff_t up, typename Turn::Dst *dst,
                                             ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    constexpr ptrdiff_t size = sizeof(typename Turn::Src);
    constexpr int32_t SHARE = Turn::ROWS * Turn::COLUMNS * int32_t{size} / LINE; // lines for each block
    const uint8_t *line = from + h * up;
    for (int32_t i = 0; i < w; i += Turn::COLUMNS, from += Turn::COLUMNS * size, dst += Turn::COLUMNS * dst_pitch) {
        const uint8_t *row = from;
        for (int32_t j = 0; j < h; j += Turn::ROWS, row += Turn::ROWS * up) {
            for (int32_t k = 0; ASK && k < SHARE; k++, line += up) {
                __builtin_prefetch(line);
                if (Turn::ASIDE)
                    __builtin_prefetch(line - h * up + LINE, 0, 2);
            }
            Turn::block(row, up, dst + j, dst_pitch);
        }
    }
}

// A strip of whole blocks. WIDE: see below.
template <typename Turn, bool WIDE>
[[gnu::noinline]] void turn_strip(const uint8_t *from, ptrdiff_t up, typename Turn::Dst *dst, ptrdiff_t dst_pitch,
                                  int32_t w, int32_t h)
{
    constexpr int32_t WIDTH = LINE / int32_t{sizeof(typename Turn::Src)};
    constexpr int32_t HEIGHT = WIDE ? Turn::ROWS : LINE / int32_t{sizeof(typename Turn::Dst)};
    int32_t j = 0;
    for (; j + HEIGHT <= h; j += HEIGHT, from += HEIGHT * up, dst += HEIGHT) {
        if (!WIDE && w == WIDTH)
            turn_tile<Turn, true>(from, up, dst, dst_pitch, w, HEIGHT);
        else
            turn_tile<Turn, false>(from, up, dst, dst_pitch, w, HEIGHT);
    }
    if (j < h)
        turn_tile<Turn, false>(from, up, dst, dst_pitch, w, h - j);
}

// What is no whole block is left to the narrower kernels.
template <typename Turn, bool WIDE>
void turn_strips(const typename Turn::Src *src, ptrdiff_t src_pitch, typename Turn::Dst *dst, ptrdiff_t dst_pitch,
                 int32_t w, int32_t h)
{
    constexpr ptrdiff_t size = sizeof(typename Turn::Src);
    constexpr int32_t WIDTH = WIDE ? WIDE_COLUMNS : LINE / int32_t{size};
    const int32_t whole_w = w - w % Turn::COLUMNS;
    const int32_t whole_h = h - h % Turn::ROWS;
    const auto *bottom = src + (h - 1) * src_pitch;
    for (int32_t i = 0; i < whole_w; i += WIDTH) {
        const int32_t width = whole_w - i < WIDTH ? whole_w - i : WIDTH;
        turn_strip<Turn, WIDE>(reinterpret_cast<const uint8_t *>(bottom + i), -src_pitch * size, dst + i * dst_pitch,
                               dst_pitch, width, whole_h);
        if (whole_h < h)
            (NARROWER.*Turn::kernel)(src + i, src_pitch, dst + i * dst_pitch + whole_h, dst_pitch, width, h - whole_h);
    }
    if (whole_w < w)
        (NARROWER.*Turn::kernel)(src + whole_w, src_pitch, dst + whole_w * dst_pitch, dst_pitch, w - whole_w, h);
}

// Where rows lie a power of two apart, their lines share few places in the cache: of a column, so many stay there as
// that power goes into it. When two tiles would be too much, more columns of fewer rows are done at a time.
template <typename Turn>
void turn(const typename Turn::Src *src, ptrdiff_t src_pitch, typename Turn::Dst *dst, ptrdiff_t dst_pitch, int32_t w,
          int32_t h)
{
    if (dst_pitch < h) { // the rows overlap: only their order tells what is seen
        (kernels_plain.*Turn::kernel)(src, src_pitch, dst, dst_pitch, w, h);
        return;
    }
    constexpr ptrdiff_t HEIGHT = LINE / ptrdiff_t{sizeof(typename Turn::Dst)};
    const ptrdiff_t apart = src_pitch * ptrdiff_t{sizeof(typename Turn::Src)};
    const ptrdiff_t power = apart & -apart;
    if (2 * HEIGHT * power <= CACHE)
        turn_strips<Turn, false>(src, src_pitch, dst, dst_pitch, w, h);
    else
        turn_strips<Turn, true>(src, src_pitch, dst, dst_pitch, w, h);
}

} // namespace
