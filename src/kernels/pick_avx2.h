// SPDX-License-Identifier: MIT
// Rows of a scaled image by AVX2: a window of the source is loaded at once and shuffled.
#pragma once

#include "vector_pick.h"

namespace {

// Groups of 8 pixels have one window, groups of 4 have two for the same 8 pixels.
template <int32_t GROUP> void pick_windows_32(const uint8_t *src, uint8_t *dst, const PickPlan *plan)
{
    const ptrdiff_t end = plan->n & ~7;
    const int32_t *start = plan->starts;
    for (ptrdiff_t i = 0; i < end; i += 8, start += 8 / GROUP) {
        const __m256i places = bits(load<U32>(plan->words + i));
        const auto from = [=](int32_t at) {
            return _mm256_permutevar8x32_epi32(bits(load<U32>(src + ptrdiff_t{at} * 4)), places);
        };
        __m256i picked = from(start[0]);
        if (GROUP == 4)
            picked = _mm256_blend_epi32(picked, from(start[1]), 0xF0);
        store(dst + i * 4, from_bits<U32>(picked));
    }
    pick_pixels<uint32_t>(src, dst, plan, static_cast<int32_t>(end));
}

// Eight pixels to a lane, out of one window or two.
template <int32_t GROUP> void pick_windows_16(const uint8_t *src, uint8_t *dst, const PickPlan *plan)
{
    const ptrdiff_t end = plan->n & ~15;
    const int32_t *start = plan->starts;
    for (ptrdiff_t i = 0; i < end; i += 16, start += 16 / GROUP) {
        const __m256i places = bits(load<U16>(plan->bytes + i));
        const auto from = [=](int32_t low, int32_t high) {
            const auto window = [=](int32_t at) {
                return _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + ptrdiff_t{at} * 2));
            };
            return _mm256_shuffle_epi8(_mm256_inserti128_si256(_mm256_castsi128_si256(window(low)), window(high), 1),
                                       places);
        };
        __m256i picked = from(start[0], start[8 / GROUP]);
        if (GROUP == 4)
            picked = _mm256_blend_epi32(picked, from(start[1], start[3]), 0xCC);
        store(dst + i * 2, from_bits<U16>(picked));
    }
    pick_pixels<uint16_t>(src, dst, plan, static_cast<int32_t>(end));
}

template <typename Pixel, PickKernel by_8, PickKernel by_4>
void pick_wide(const uint8_t *src, uint8_t *dst, const PickPlan *plan)
{
    if (plan->group == 0)
        pick_pixels<Pixel>(src, dst, plan, 0);
    else
        (plan->group == 8 ? by_8 : by_4)(src, dst, plan);
}

constexpr PickKernel PICK_WIDE_16 = pick_wide<uint16_t, pick_windows_16<8>, pick_windows_16<4>>;
constexpr PickKernel PICK_WIDE_32 = pick_wide<uint32_t, pick_windows_32<8>, pick_windows_32<4>>;

} // namespace
