// SPDX-License-Identifier: MIT
#include "region.h"

#include <algorithm>

namespace model {

int32_t saturate16(int64_t value)
{
    return static_cast<int32_t>(std::clamp<int64_t>(value, INT16_MIN, INT16_MAX));
}

Region region_of(int64_t x1, int64_t y1, int64_t x2, int64_t y2)
{
    Rect rect = {saturate16(x1), saturate16(y1), saturate16(x2), saturate16(y2)};
    if (rect.x1 >= rect.x2 || rect.y1 >= rect.y2)
        return {};
    return {rect};
}

Region region_of(const Rect &rect)
{
    return region_of(rect.x1, rect.y1, rect.x2, rect.y2);
}

namespace {

std::vector<int32_t> sorted_edges(const Region &a, const Region &b, int32_t Rect::*low, int32_t Rect::*high)
{
    std::vector<int32_t> edges;
    for (const Region *region : {&a, &b}) {
        for (const Rect &rect : *region) {
            edges.push_back(rect.*low);
            edges.push_back(rect.*high);
        }
    }
    std::sort(edges.begin(), edges.end());
    edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
    return edges;
}

// Sets `bit` in every cell between two neighbouring edges of `xs` that `region` covers at row y.
void mark_row(const Region &region, int32_t y, const std::vector<int32_t> &xs, unsigned bit, std::vector<uint8_t> &row)
{
    for (const Rect &rect : region) {
        if (y < rect.y1 || y >= rect.y2)
            continue;
        for (size_t i = 0; i + 1 < xs.size(); i++) {
            if (xs[i] >= rect.x1 && xs[i] < rect.x2)
                row[i] = static_cast<uint8_t>(row[i] | bit);
        }
    }
}

// Appends a band, or lengthens the last one when it has the same spans and touches.
void append_band(Region &result, size_t &last_band, Region &&band)
{
    size_t n = result.size() - last_band;
    bool same = n > 0 && n == band.size() && result[last_band].y2 == band[0].y1;
    for (size_t i = 0; same && i < n; i++)
        same = result[last_band + i].x1 == band[i].x1 && result[last_band + i].x2 == band[i].x2;
    if (same) {
        for (size_t i = 0; i < n; i++)
            result[last_band + i].y2 = band[i].y2;
        return;
    }
    last_band = result.size();
    result.insert(result.end(), band.begin(), band.end());
}

// The points whose membership (bit 0 in a, bit 1 in b) has its bit set in `wanted`: bit m for membership m.
Region combine(const Region &a, const Region &b, unsigned wanted)
{
    std::vector<int32_t> xs = sorted_edges(a, b, &Rect::x1, &Rect::x2);
    std::vector<int32_t> ys = sorted_edges(a, b, &Rect::y1, &Rect::y2);
    Region result;
    size_t last_band = 0;
    for (size_t j = 0; j + 1 < ys.size(); j++) {
        std::vector<uint8_t> row(xs.size(), 0);
        mark_row(a, ys[j], xs, 1, row);
        mark_row(b, ys[j], xs, 2, row);
        Region band;
        for (size_t i = 0; i + 1 < xs.size(); i++) {
            if (!(wanted >> row[i] & 1))
                continue;
            if (!band.empty() && band.back().x2 == xs[i])
                band.back().x2 = xs[i + 1];
            else
                band.push_back({xs[i], ys[j], xs[i + 1], ys[j + 1]});
        }
        if (!band.empty())
            append_band(result, last_band, std::move(band));
    }
    return result;
}

} // namespace

Region region_union(const Region &a, const Region &b)
{
    return combine(a, b, 1u << 1 | 1u << 2 | 1u << 3);
}

Region region_intersection(const Region &a, const Region &b)
{
    return combine(a, b, 1u << 3);
}

Region region_difference(const Region &a, const Region &b)
{
    return combine(a, b, 1u << 1);
}

Region region_moved(const Region &region, int64_t dx, int64_t dy)
{
    Region result;
    for (const Rect &r : region)
        result = region_union(result, region_of(r.x1 + dx, r.y1 + dy, r.x2 + dx, r.y2 + dy));
    return result;
}

bool region_inside(const Region &region, const Rect &rect)
{
    for (const Rect &r : region) {
        if (r.x1 < rect.x1 || r.y1 < rect.y1 || r.x2 > rect.x2 || r.y2 > rect.y2)
            return false;
    }
    return true;
}

std::string region_text(const Region &region)
{
    std::string text;
    for (const Rect &r : region) {
        text += "[" + std::to_string(r.x1) + "," + std::to_string(r.y1) + " " + std::to_string(r.x2) + "," +
                std::to_string(r.y2) + "]";
    }
    return text;
}

} // namespace model
