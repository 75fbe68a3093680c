// SPDX-License-Identifier: MIT
// Sets of points with 16-bit coordinates, as the lists of rectangles that a reader of the server's messages sees:
// bands from top to bottom, in each band spans from left to right that do not touch, and no two bands that could be
// one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace model {

// Corner form, x2 and y2 exclusive.
struct Rect {
    int32_t x1 = 0, y1 = 0, x2 = 0, y2 = 0;
    bool operator==(const Rect &) const = default;
};

using Region = std::vector<Rect>;

int32_t saturate16(int64_t value);

// The rectangle narrowed to 16 bits; nothing when it is empty or inverted.
Region region_of(int64_t x1, int64_t y1, int64_t x2, int64_t y2);
Region region_of(const Rect &rect);
Region region_union(const Region &a, const Region &b);
Region region_intersection(const Region &a, const Region &b);
Region region_difference(const Region &a, const Region &b);
// Points that leave the 16-bit plane are lost.
Region region_moved(const Region &region, int64_t dx, int64_t dy);
bool region_inside(const Region &region, const Rect &rect);
std::string region_text(const Region &region);

} // namespace model
