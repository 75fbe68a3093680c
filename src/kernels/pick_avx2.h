// SPDX-License-Identifier: MIT
// Rows of a scaled image by AVX2: a window of the source is loaded at once and shuffled.
#pragma once

#include "vector_pick.h"

namespace {

template <int32_t WINDOW> void pick_windows_32(const uint8_t *src, uint8_t *dst, const PickPlan *plan)
{
    int32_t i = 0;
    for (; i + 8 <= plan->n; i += 8) {
        const int32_t start = plan->starts[i / 8];
        const uint8_t *from = src + ptrdiff_t{start} * 4;
        const __m256i index = _mm256_sub_epi32(bits(load<U32>(plan->columns + i)), _mm256_set1_epi32(start));
        __m256i picked = _mm256_permutevar8x32_epi32(bits(load<U32>(from)), index);
        if (WINDOW == 16) {
            const __m256i far = _mm256_permutevar8x32_epi32(bits(load<U32>(from + 32)), index);
            picked = _mm256_blendv_epi8(picked, far, _mm256_cmpgt_epi32(index, _mm256_set1_epi32(7)));
        }
        store(dst + ptrdiff_t{i} * 4, from_bits<U32>(picked));
    }
    pick_pixels<uint32_t>(src, dst, plan, i);
}

// Eight pixels to a lane. The byte shuffle looks at the lower four bits, which tell a place in either half of a window.
template <int32_t WINDOW> void pick_windows_16(const uint8_t *src, uint8_t *dst, const PickPlan *plan)
{
    int32_t i = 0;
    for (; i + 16 <= plan->n; i += 16) {
        const int32_t start = plan->starts[i / 8];
        const uint8_t *from = src + ptrdiff_t{start} * 2;
        const ptrdiff_t step = ptrdiff_t{plan->starts[i / 8 + 1] - start} * 2;
        const __m256i bytes = bits(load<U16>(plan->bytes + i));
        __m256i picked = _mm256_shuffle_epi8(bits(load_lanes<U16>(from, step)), bytes);
        if (WINDOW == 16) {
            const __m256i far = _mm256_shuffle_epi8(bits(load_lanes<U16>(from + 16, step)), bytes);
            picked = _mm256_blendv_epi8(picked, far, _mm256_cmpgt_epi16(bytes, _mm256_set1_epi16(0x0FFF)));
        }
        store(dst + ptrdiff_t{i} * 2, from_bits<U16>(picked));
    }
    pick_pixels<uint16_t>(src, dst, plan, i);
}

template <typename Pixel, PickKernel near, PickKernel far>
void pick_wide(const uint8_t *src, uint8_t *dst, const PickPlan *plan)
{
    if (plan->window == 0)
        pick_pixels<Pixel>(src, dst, plan, 0);
    else
        (plan->window == 8 ? near : far)(src, dst, plan);
}

constexpr PickKernel PICK_WIDE_16 = pick_wide<uint16_t, pick_windows_16<8>, pick_windows_16<16>>;
constexpr PickKernel PICK_WIDE_32 = pick_wide<uint32_t, pick_windows_32<8>, pick_windows_32<16>>;

} // namespace
