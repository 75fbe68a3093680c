// SPDX-License-Identifier: MIT
// Rows of a scaled image, by vectors of 16 bytes: twice and half the size go by whole vectors, anything else pixel by
// pixel, for several rows at a time. Where it takes no detour (GATHERS), vectors are gathered from the pixels.
#pragma once

#include "vector.h"

namespace {

inline U16 gather(const uint8_t *src, const ptrdiff_t (&at)[8])
{
    const auto get = [&](int i) { return load<uint16_t>(src + at[i]); };
    return U16{get(0), get(1), get(2), get(3), get(4), get(5), get(6), get(7)};
}
inline U32 gather(const uint8_t *src, const ptrdiff_t (&at)[4])
{
    const auto get = [&](int i) { return load<uint32_t>(src + at[i]); };
    return U32{get(0), get(1), get(2), get(3)};
}

// Pixels `from` to `to` - 1 of rows with sources of their own. Where they come from is read once for all of them.
template <typename Pixel, int ROWS>
void gather_rows(const PickRow *rows, const int32_t *columns, ptrdiff_t from, ptrdiff_t to)
{
    constexpr ptrdiff_t size = sizeof(Pixel);
    constexpr ptrdiff_t N = PER_VECTOR<Pixel>;
    PickRow own[ROWS]; // the stores could be to the rows, for all that the compiler knows
    for (int row = 0; row < ROWS; row++)
        own[row] = rows[row];
    ptrdiff_t i = from;
    for (; GATHERS && i + N <= to; i += N) {
        ptrdiff_t at[N];
        for (ptrdiff_t k = 0; k < N; k++)
            at[k] = columns[i + k] * size;
        for (int row = 0; row < ROWS; row++)
            store(own[row].dst + i * size, gather(own[row].src, at));
    }
    for (; i < to; i++) {
        const ptrdiff_t at = columns[i] * size;
        for (int row = 0; row < ROWS; row++)
            store(own[row].dst + i * size, load<Pixel>(own[row].src + at));
    }
}

// Each pixel twice: 0 0 1 1 and so on, or 0 1 1 2. Returns what it has come to.
template <typename Pixel, typename V> ptrdiff_t double_row(PickRow row, const PickPlan *plan, ptrdiff_t i)
{
    constexpr ptrdiff_t size = sizeof(Pixel);
    constexpr ptrdiff_t N = PER_VECTOR<Pixel>;
    const int32_t *columns = plan->columns;
    const ptrdiff_t odd = columns[i + 1] - columns[i];
    for (ptrdiff_t from = columns[i]; i + 2 * N <= plan->n; i += 2 * N, from += N) {
        const auto a = load<V>(row.src + from * size);
        const auto b = load<V>(row.src + (from + odd) * size);
        store(row.dst + i * size, unpack_low(a, b));
        store(row.dst + (i + N) * size, unpack_high(a, b));
    }
    return i;
}

// Every other pixel.
template <typename Pixel, typename V> ptrdiff_t halve_row(PickRow row, const PickPlan *plan, ptrdiff_t i)
{
    constexpr ptrdiff_t size = sizeof(Pixel);
    constexpr ptrdiff_t N = PER_VECTOR<Pixel>;
    const ptrdiff_t last = plan->columns[plan->n - 1] + 1 - 2 * N; // beyond the last pixel comes none to be left out
    for (ptrdiff_t from = plan->columns[i]; i + N <= plan->n && from <= last; i += N, from += 2 * N)
        store(row.dst + i * size, evens(load<V>(row.src + from * size), load<V>(row.src + (from + N) * size)));
    return i;
}

template <typename Pixel, typename V> void pick_row(PickRow row, const PickPlan *plan)
{
    ptrdiff_t done = plan->alike;
    gather_rows<Pixel, 1>(&row, plan->columns, 0, done);
    if (plan->rhythm == PICK_DOUBLED)
        done = double_row<Pixel, V>(row, plan, done);
    else if (plan->rhythm == PICK_HALVED)
        done = halve_row<Pixel, V>(row, plan, done);
    gather_rows<Pixel, 1>(&row, plan->columns, done, plan->n);
}

// What has the same source as the row before is copied from there.
template <typename Pixel, typename V, PickKernel Kernels::*own>
void pick(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    if (plan->n < PICK_LEAST) {
        (NARROWER.*own)(rows, count, plan);
        return;
    }
    constexpr int32_t MOST = GATHERS ? sizeof(Pixel) : 4; // as many as there are registers for
    const auto is_again = [&](int32_t k) { return k > 0 && rows[k].src == rows[k - 1].src; };
    for (int32_t begin = 0, end = 0; begin < count; begin = end) {
        PickRow sources[MOST];
        int32_t n = 0;
        for (; end < count && n < MOST; end++) {
            if (!is_again(end))
                sources[n++] = rows[end];
        }
        if (n == MOST && plan->rhythm == PICK_ANY) {
            gather_rows<Pixel, MOST>(sources, plan->columns, 0, plan->n);
        } else {
            for (int32_t k = 0; k < n; k++)
                pick_row<Pixel, V>(sources[k], plan);
        }
        for (int32_t k = begin; k < end; k++) {
            if (is_again(k))
                __builtin_memcpy(rows[k].dst, rows[k - 1].dst, static_cast<size_t>(plan->n) * sizeof(Pixel));
        }
    }
}

} // namespace
