// SPDX-License-Identifier: MIT
// The table of the vector kernels for the lanes that were included before.
#pragma once

#include "vector_over.h"
#include "vector_plane.h"
#include "vector_rows.h"
#include "vector_turn.h"

namespace {

constexpr Kernels vector_kernels(const char *name, PickKernel pick_16, PickKernel pick_32)
{
    constexpr ptrdiff_t N16 = PER_VECTOR<uint16_t>;
    constexpr ptrdiff_t N32 = PER_VECTOR<uint32_t>;
    return {
        .name = name,
        .copy = copy,
        .rgb_to_16 = convert<uint32_t, uint16_t, &Kernels::rgb_to_16, N16, narrow_step<rgb_to_16_in_lanes>>,
        .rgb_to_18 = convert<uint32_t, uint32_t, &Kernels::rgb_to_18, N32, words_step<pixel_rgb_to_18>>,
        .rgb_to_argb = convert<uint32_t, uint32_t, &Kernels::rgb_to_argb, N32, words_step<pixel_rgb_to_argb>>,
        .rgb_to_alpha4 = convert<uint32_t, uint32_t, &Kernels::rgb_to_alpha4, N32, words_step<pixel_rgb_to_alpha4>>,
        .argb_to_alpha4 = convert<uint32_t, uint32_t, &Kernels::argb_to_alpha4, N32, words_step<pixel_argb_to_alpha4>>,
        .over = over_rows,
        .from_16_to_32 = convert<uint16_t, uint32_t, &Kernels::from_16_to_32, N16, step_16_to_32>,
        .from_16_to_18 = convert<uint16_t, uint32_t, &Kernels::from_16_to_18, N16, step_16_to_18>,
        .from_18_to_32 = convert<uint32_t, uint32_t, &Kernels::from_18_to_32, N32, words_step<pixel_18_to_32>>,
        .from_18_to_16 = convert<uint32_t, uint16_t, &Kernels::from_18_to_16, N16, narrow_step<pack_18_in_lanes>>,
        .double_16 = twice<uint16_t, &Kernels::double_16>,
        .double_rgb_to_16 = twice<uint32_t, &Kernels::double_rgb_to_16>,
        .turn_16 = turn<Turn16>,
        .turn_32 = turn<Turn32>,
        .turn_rgb_to_16 = turn<TurnRgb>,
        .fill_16 = fill<uint16_t, U16, &Kernels::fill_16>,
        .fill_32 = fill<uint32_t, U32, &Kernels::fill_32>,
        .dim = dim,
        .pick_16 = pick_16,
        .pick_32 = pick_32,
    };
}

} // namespace
