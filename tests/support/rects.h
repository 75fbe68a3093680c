// SPDX-License-Identifier: MIT
// Rectangles and regions as values that a test can compare and that a failure prints.
#pragma once

#include <ostream>
#include <vector>

#include "../../src/region/region.h"

inline bool operator==(const xc_rect &a, const xc_rect &b)
{
    return a.x1 == b.x1 && a.y1 == b.y1 && a.x2 == b.x2 && a.y2 == b.y2;
}

inline void PrintTo(const xc_rect &rect, std::ostream *out)
{
    *out << "(" << rect.x1 << "," << rect.y1 << " - " << rect.x2 << "," << rect.y2 << ")";
}

using Rects = std::vector<Rect>;

// In the region's own order: bands from top to bottom, each from left to right.
inline Rects rects_of(const Region *region)
{
    Rects rects;
    for (int i = 0; i < region_num_rects(region); i++) {
        const Box &box = region_rects(region)[i];
        rects.push_back({box.x1, box.y1, box.x2, box.y2});
    }
    return rects;
}

inline Rects rects_of(const Region &region)
{
    return rects_of(&region);
}
