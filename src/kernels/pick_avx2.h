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
    for (; i + 2 * N <= end; i += 2 * N)
        pick_steps<Picked, SAME, ROWS, 2>(own, plan, i, i * size);
    if (i + N <= end) {
        pick_steps<Picked, SAME, ROWS, 1>(own, plan, i, i * size);
        i += N;
    }
    for (; i < n; i += N)
        pick_steps<Rest, SAME, ROWS, 1>(own, plan, i, (i + N <= n ? i : n - N) * size);
}

// One step of all rows.
template <typename Picked>
[[gnu::noinline]] void pick_column(const PickRow *rows, int32_t count, const PickPlan *plan, int32_t i, int32_t to)
{
    constexpr ptrdiff_t size = sizeof(typename Picked::Pixel);
    const Picked picked(plan, static_cast<size_t>(i));
    for (int32_t k = 0; k < count; k++)
        store(rows[k].dst + to * size, picked.from(rows[k].src));
}

// The steps that are alike.
template <typename Picked, bool SAME, int ROWS>
[[gnu::always_inline]] inline void pick_middle(const PickRow *rows, const PickPlan *plan, const Picked &picked)
{
    constexpr ptrdiff_t size = sizeof(typename Picked::Pixel);
    PickRow own[ROWS];
    for (int row = 0; row < ROWS; row++)
        own[row] = rows[row];
    const ptrdiff_t advance = plan->advance * size, end = plan->until * size;
    ptrdiff_t on = 0;
    for (ptrdiff_t to = plan->alike * size; to < end; to += 32, on += advance) {
        const auto first = picked.from(own[0].src + on);
        const auto second = ROWS == 1 || SAME ? first : picked.from(own[ROWS - 1].src + on);
        store(own[0].dst + to, first);
        if (ROWS == 2)
            store(own[ROWS - 1].dst + to, second);
    }
}

// Rows whose steps are mostly alike: first those that are not, at the beginning and at the end of each row, then the
// others, of which the shuffle is known by now.
template <typename Picked, typename Rest> void pick_alike(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    constexpr int32_t N = 32 / sizeof(typename Picked::Pixel);
    const int32_t n = plan->n;
    for (int32_t i = 0; i < plan->alike; i += N)
        pick_column<Picked>(rows, count, plan, i, i);
    int32_t i = plan->until;
    for (; i + N <= plan->end; i += N)
        pick_column<Picked>(rows, count, plan, i, i);
    for (; i < n; i += N)
        pick_column<Rest>(rows, count, plan, i, i + N <= n ? i : n - N);
    const Picked picked(plan, static_cast<size_t>(plan->alike));
    for (; count >= 2; count -= 2, rows += 2) {
        if (rows[0].src == rows[1].src)
            pick_middle<Picked, true, 2>(rows, plan, picked);
        else
            pick_middle<Picked, false, 2>(rows, plan, picked);
    }
    if (count > 0)
        pick_middle<Picked, true, 1>(rows, plan, picked);
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
    constexpr int32_t AT_A_TIME = 16; // their ends are still near when the middle comes
    if (plan->alike < plan->until) {
        for (; count > 0; count -= AT_A_TIME, rows += AT_A_TIME)
            pick_alike<Picked, Rest>(rows, count < AT_A_TIME ? count : AT_A_TIME, plan);
        return;
    }
    for (; MOST > 2 && count >= MOST && have_own_sources<MOST>(rows); count -= MOST, rows += MOST)
        pick_together<Picked, Rest, false, MOST>(rows, plan);
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
