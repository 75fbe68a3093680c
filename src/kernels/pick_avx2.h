// SPDX-License-Identifier: MIT
// Rows of a scaled image by AVX2: windows of the source are loaded at once and shuffled. What that needs to know of a
// step is read once for several rows.
#pragma once

#include "vector.h"

namespace {

// What several rows need is loaded once: compilers would rather load it in every instruction that takes it.
template <typename... Vectors> void keep_in_registers(Vectors &...vectors)
{
    (..., [](auto &v) { __asm__("" : "+x"(v)); }(vectors));
}

template <PickShape SHAPE> struct Picked32 {
    using Pixel = uint32_t;

    ptrdiff_t at;
    __m256i places;

    Picked32(const PickPlan *plan, size_t i) : at(plan->starts[i / 8] * ptrdiff_t{4})
    {
        places = bits(load<U32>(plan->words + i));
    }
    void keep() { keep_in_registers(places); }
    U32 from(const uint8_t *src) const
    {
        const __m256i first = _mm256_permutevar8x32_epi32(bits(load<U32>(src + at)), places);
        if (SHAPE == PICK_ONE)
            return from_bits<U32>(first);
        const __m256i second = _mm256_permutevar8x32_epi32(bits(load<U32>(src + at + 32)), places);
        const __m256i is_second = _mm256_slli_epi32(places, 28); // places from 8 on, as signs
        return from_bits<U32>(_mm256_castps_si256(
            _mm256_blendv_ps(_mm256_castsi256_ps(first), _mm256_castsi256_ps(second), _mm256_castsi256_ps(is_second))));
    }
};

template <PickShape SHAPE> struct Picked16;

template <> struct Picked16<PICK_ONE> {
    using Pixel = uint16_t;

    ptrdiff_t at;
    __m256i halves, shuffle;

    Picked16(const PickPlan *plan, size_t i) : at(plan->starts[i / 8] * ptrdiff_t{2})
    {
        const __m256i second = _mm256_set1_epi32(plan->second / 2);
        halves =
            _mm256_add_epi32(_mm256_setr_epi32(0, 1, 2, 3, 0, 1, 2, 3), _mm256_blend_epi32(__m256i{}, second, 0xF0));
        shuffle = bits(load<U8>(plan->bytes + i * 4));
    }
    void keep() { keep_in_registers(shuffle); }
    U16 from(const uint8_t *src) const
    {
        return from_bits<U16>(
            _mm256_shuffle_epi8(_mm256_permutevar8x32_epi32(bits(load<U16>(src + at)), halves), shuffle));
    }
};

// Bytes from 16 on are in the second vector; bit 7 of a shuffle makes a zero.
template <> struct Picked16<PICK_OVERLAPPED> {
    using Pixel = uint16_t;

    ptrdiff_t at;
    __m256i in_first, in_second;

    Picked16(const PickPlan *plan, size_t i) : at(plan->starts[i / 8] * ptrdiff_t{2})
    {
        const __m256i bytes = bits(load<U8>(plan->bytes + i * 4));
        in_first = _mm256_add_epi8(bytes, _mm256_set1_epi8(0x70));
        in_second = _mm256_sub_epi8(bytes, _mm256_set1_epi8(0x10));
    }
    void keep() {}
    U16 from(const uint8_t *src) const
    {
        const __m256i first = _mm256_shuffle_epi8(bits(load<U16>(src + at)), in_first);
        const __m256i second = _mm256_shuffle_epi8(bits(load<U16>(src + at + 16)), in_second);
        return from_bits<U16>(_mm256_or_si256(first, second));
    }
};

// Each vector leaves its 8 pixels in both lanes, with zeroes between.
template <> struct Picked16<PICK_TWO> {
    using Pixel = uint16_t;

    ptrdiff_t low, high;
    __m256i in_low, in_high;

    Picked16(const PickPlan *plan, size_t i)
        : low(plan->starts[i / 8] * ptrdiff_t{2}), high(plan->starts[i / 8 + 1] * ptrdiff_t{2})
    {
        in_low = bits(load<U8>(plan->bytes + i * 4));
        in_high = bits(load<U8>(plan->bytes + i * 4 + 32));
    }
    void keep() { keep_in_registers(in_low, in_high); }
    U16 from(const uint8_t *src) const
    {
        const __m256i a = _mm256_shuffle_epi8(bits(load<U16>(src + low)), in_low);
        const __m256i b = _mm256_shuffle_epi8(bits(load<U16>(src + high)), in_high);
        return from_bits<U16>(
            _mm256_or_si256(_mm256_permute2x128_si256(a, b, 0x20), _mm256_permute2x128_si256(a, b, 0x31)));
    }
};

// STEPS steps of several rows, each from a source of its own, or all from one. Stores to the same line come together.
template <typename Picked, bool SAME, int ROWS, int STEPS>
[[gnu::always_inline]] inline void pick_steps(const PickRow (&rows)[ROWS], const PickPlan *plan, size_t i, size_t to)
{
    decltype(Picked(plan, i).from(nullptr)) made[ROWS][STEPS];
    for (size_t k = 0; k < STEPS; k++) {
        Picked picked(plan, i + k * (32 / sizeof(typename Picked::Pixel)));
        if (!SAME)
            picked.keep();
        for (int row = 0; row < ROWS; row++)
            made[row][k] = SAME && row > 0 ? made[0][k] : picked.from(rows[row].src);
    }
    for (int row = 0; row < ROWS; row++) {
        for (size_t k = 0; k < STEPS; k++)
            store(rows[row].dst + to + k * 32, made[row][k]);
    }
}

// Steps that are all alike, from i on; returns where the next one begins.
template <typename Picked, bool SAME, int ROWS>
[[gnu::always_inline]] inline size_t pick_alike(const PickRow (&rows)[ROWS], const PickPlan *plan, size_t i)
{
    constexpr size_t size = sizeof(typename Picked::Pixel);
    const Picked picked(plan, i);
    const ptrdiff_t advance = plan->advance * static_cast<ptrdiff_t>(size);
    for (ptrdiff_t on = 0; i < static_cast<size_t>(plan->until); i += 32 / size, on += advance) {
        const auto first = picked.from(rows[0].src + on);
        store(rows[0].dst + i * size, first);
        for (int row = 1; row < ROWS; row++)
            store(rows[row].dst + i * size, SAME ? first : picked.from(rows[row].src + on));
    }
    return i;
}

// Rest is for the end of a row.
template <typename Picked, typename Rest, bool SAME, int ROWS>
void pick_together(const PickRow *rows, const PickPlan *plan)
{
    constexpr size_t size = sizeof(typename Picked::Pixel);
    constexpr size_t N = 32 / size;
    PickRow own[ROWS];
    for (int row = 0; row < ROWS; row++)
        own[row] = rows[row];
    const auto n = static_cast<size_t>(plan->n);
    const auto end = static_cast<size_t>(plan->end);
    size_t i = 0;
    if (plan->alike < plan->until) {
        for (; i < static_cast<size_t>(plan->alike); i += N)
            pick_steps<Picked, SAME, ROWS, 1>(own, plan, i, i * size);
        i = pick_alike<Picked, SAME, ROWS>(own, plan, i);
    }
    for (; i + 2 * N <= end; i += 2 * N)
        pick_steps<Picked, SAME, ROWS, 2>(own, plan, i, i * size);
    if (i + N <= end) {
        pick_steps<Picked, SAME, ROWS, 1>(own, plan, i, i * size);
        i += N;
    }
    for (; i < n; i += N)
        pick_steps<Rest, SAME, ROWS, 1>(own, plan, i, (i + N <= n ? i : n - N) * size);
}

template <int32_t N> bool have_own_sources(const PickRow *rows)
{
    bool all = true;
    for (int32_t i = 1; i < N; i++)
        all = all && rows[i].src != rows[i - 1].src;
    return all;
}

// MOST rows at a time that have sources of their own, and two of any.
template <typename Picked, typename Rest = Picked, int32_t MOST = 2>
void pick_windows(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    if (MOST > 2 && plan->alike == plan->until) {
        for (; count >= MOST && have_own_sources<MOST>(rows); count -= MOST, rows += MOST)
            pick_together<Picked, Rest, false, MOST>(rows, plan);
    }
    for (; count >= 2; count -= 2, rows += 2) {
        if (rows[0].src == rows[1].src)
            pick_together<Picked, Rest, true, 2>(rows, plan);
        else
            pick_together<Picked, Rest, false, 2>(rows, plan);
    }
    if (count > 0)
        pick_together<Picked, Rest, true, 1>(rows, plan);
}

void pick_wide_16(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    if (plan->shape == PICK_ONE)
        pick_windows<Picked16<PICK_ONE>, Picked16<PICK_TWO>>(rows, count, plan);
    else if (plan->shape == PICK_OVERLAPPED)
        pick_windows<Picked16<PICK_OVERLAPPED>, Picked16<PICK_TWO>>(rows, count, plan);
    else if (plan->shape == PICK_TWO)
        pick_windows<Picked16<PICK_TWO>>(rows, count, plan);
    else
        NARROWER.pick_16(rows, count, plan);
}

void pick_wide_32(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    if (plan->shape == PICK_ONE)
        pick_windows<Picked32<PICK_ONE>>(rows, count, plan);
    else if (plan->shape == PICK_TWO)
        pick_windows<Picked32<PICK_TWO>, Picked32<PICK_TWO>, 4>(rows, count, plan);
    else
        NARROWER.pick_32(rows, count, plan);
}

} // namespace
