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
constexpr ptrdiff_t GROUP = 128 / (LANES * 16);

inline void over_group(const uint32_t *src, uint32_t *dst)
{
    constexpr ptrdiff_t N = PER_VECTOR<uint32_t>;
    U32 s[GROUP];
    for (ptrdiff_t i = 0; i < GROUP; i++)
        s[i] = load<U32>(src + i * N);
    if (may_be_plain(s[0])) {
        U32 any = s[0];
        U32 all = s[0];
        for (ptrdiff_t i = 1; i < GROUP; i++) {
            any |= s[i];
            all &= s[i];
        }
        if (is_zero(any))
            return;
        if (is_opaque(all)) {
            for (ptrdiff_t i = 0; i < GROUP; i++)
                store(dst + i * N, s[i]);
            return;
        }
    }
    for (ptrdiff_t i = 0; i < GROUP; i++)
        store(dst + i * N, over(s[i], load<U32>(dst + i * N)));
}

inline void over_rest(const uint32_t *src, uint32_t *dst, ptrdiff_t n)
{
    constexpr ptrdiff_t N = PER_VECTOR<uint32_t>;
    for (; n >= N; n -= N, src += N, dst += N)
        store(dst, over(load<U32>(src), load<U32>(dst)));
    if (n > 0)
        NARROWER.over(src, n, dst, n, static_cast<int32_t>(n), 1);
}

void over_rows(const uint32_t *src, ptrdiff_t src_pitch, uint32_t *dst, ptrdiff_t dst_pitch, int32_t w, int32_t h)
{
    constexpr ptrdiff_t N = GROUP * PER_VECTOR<uint32_t>;
    ptrdiff_t width = w;
    if (src_pitch == w && dst_pitch == w) {
        width *= h;
        h = 1;
    }
    for (; h > 0; h--, src += src_pitch, dst += dst_pitch) {
        ptrdiff_t i = 0;
        for (; i + N <= width; i += N)
            over_group(src + i, dst + i);
        if (i < width)
            over_rest(src + i, dst + i, width - i);
    }
}

} // namespace
