// SPDX-License-Identifier: MIT
#include "extent.h"

#include <algorithm>

namespace {

constexpr int64_t floor_div(int64_t a, int64_t b) // b above 0
{
    return a >= 0 ? a / b : -((-a + b - 1) / b);
}

constexpr int64_t ceil_div(int64_t a, int64_t b) // b above 0
{
    return -floor_div(-a, b);
}

} // namespace

[[gnu::hot]] PixelGrid converter_grid(const xc_image *image, int size)
{
    const int64_t stride = static_cast<uint32_t>(image->stride);
    return PixelGrid{stride & -int64_t{size}, size, static_cast<int64_t>(image->extent)};
}

PixelGrid image_grid(const xc_image *image, int size)
{
    return PixelGrid{image->stride, size, static_cast<int64_t>(image->extent)};
}

PixelRun existing_run(const PixelGrid &grid, int64_t start, int64_t step, int32_t count)
{
    const int64_t last_start = grid.extent - grid.size; // the last offset at which a pixel fits
    int64_t first = 0;
    int64_t last = static_cast<int64_t>(count) - 1;
    if (step > 0) {
        first = std::max(first, ceil_div(-start, step));
        last = std::min(last, floor_div(last_start - start, step));
    } else if (step < 0) {
        first = std::max(first, ceil_div(start - last_start, -step));
        last = std::min(last, floor_div(start, -step));
    } else if (!grid.holds(start, start)) {
        last = -1;
    }
    if (last < first)
        return PixelRun{0, 0};
    return PixelRun{static_cast<int32_t>(first), static_cast<int32_t>(last - first + 1)};
}

PixelRun common_run(PixelRun a, PixelRun b)
{
    const int32_t first = std::max(a.first, b.first);
    const int64_t end = std::min(static_cast<int64_t>(a.first) + a.count, static_cast<int64_t>(b.first) + b.count);
    return PixelRun{first, static_cast<int32_t>(std::max<int64_t>(0, end - first))};
}
