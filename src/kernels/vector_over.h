// SPDX-License-Identifier: MIT
// OVER of premultiplied pixels.
#pragma once

#include "vector.h"

namespace {

// Bytes 0 and 2 of each word, then 1 and 3: mul(a, b) = (t + (t >> 8)) >> 8 with t = a x b + 128, which is the upper
// half of t x 257.
[[gnu::always_inline]] inline U32 over(U32 src, U32 dst)
{
    const U16 rest = alpha_in_halves(~src);
    const auto even = reinterpret_cast<U16>(dst & 0x00FF00FFu) * rest + 128;
    const U16 odd = (reinterpret_cast<U16>(dst) >> 8) * rest + 128;
    constexpr U16 all_257 = U16{} + 257;
    const U16 below = multiply_high(even, all_257) | multiply_high(odd, all_257) << 8;
    return reinterpret_cast<U32>(add_saturated(reinterpret_cast<U8>(src), reinterpret_cast<U8>(below)));
}

// Several vectors are looked at together: where nothing shows nothing is done, and what hides all is copied. Between
// them, one look at the first vector mostly tells that neither is so.
template <ptrdiff_t COUNT> [[gnu::always_inline]] inline void over_group(const uint32_t *src, uint32_t *dst)
{
    constexpr ptrdiff_t N = PER_VECTOR<uint32_t>;
    U32 s[COUNT];
    for (ptrdiff_t i = 0; i < COUNT; i++)
        s[i] = load<U32>(src + i * N);
    if (may_be_plain(s[0])) [[unlikely]] { // plain ones are quick enough
        U32 any = s[0];
        U32 all = s[0];
        for (ptrdiff_t i = 1; i < COUNT; i++) {
            any |= s[i];
            all &= s[i];
        }
        if (is_zero(any))
            return;
        if (is_opaque(all)) {
            for (ptrdiff_t i = 0; i < COUNT; i++)
                store(dst + i * N, s[i]);
            return;
        }
    }
    for (ptrdiff_t i = 0; i < COUNT; i++)
        store(dst + i * N, over(s[i], load<U32>(dst + i * N)));
}

// A group in each row. Returns how wide it is.
template <ptrdiff_t COUNT>
ptrdiff_t over_columns(const uint32_t *src, ptrdiff_t src_pitch, uint32_t *dst, ptrdiff_t dst_pitch, int32_t h)
{
    for (; h > 0; h--, src += src_pitch, dst += dst_pitch)
        over_group<COUNT>(src, dst);
    return COUNT * PER_VECTOR<uint32_t>;
}

// Large groups row by row; what that leaves is narrow, and done column by column. The last columns, fewer than a
// vector's, are left to the narrower kernels: no pixel may be done twice.
void over_rows(const uint32_t *src, ptrdiff_t src_pitch, uint32_t *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    constexpr ptrdiff_t N = PER_VECTOR<uint32_t>;
    constexpr ptrdiff_t LARGE = 128 / (LANES * 16);
    constexpr ptrdiff_t SMALL = 64 / (LANES * 16);
    ptrdiff_t width = w;
    if (src_pitch == w && dst_pitch == w) {
        width *= h;
        h = 1;
    } else if (h > 1 && dst_pitch < w) { // the rows overlap: each goes over what the one before has left
        kernels_plain.over(src, src_pitch, dst, dst_pitch, w, h);
        return;
    }
    const ptrdiff_t most = width - width % (LARGE * N);
    for (int32_t j = 0; most > 0 && j < h; j++) {
        for (ptrdiff_t i = 0; i < most; i += LARGE * N)
            over_group<LARGE>(src + j * src_pitch + i, dst + j * dst_pitch + i);
    }
    ptrdiff_t i = most;
    while (i + SMALL * N <= width)
        i += over_columns<SMALL>(src + i, src_pitch, dst + i, dst_pitch, h);
    while (i + N <= width)
        i += over_columns<1>(src + i, src_pitch, dst + i, dst_pitch, h);
    if (i < width)
        NARROWER.over(src + i, src_pitch, dst + i, dst_pitch, static_cast<int32_t>(width - i), h);
}

} // namespace
