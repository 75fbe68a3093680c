// SPDX-License-Identifier: MIT
// What clients may make the server hold. The numbers are far beyond what a device needs; they are there so that nobody
// uses up the memory or the addresses that the picture is made with. Each is refused with a line (docs/robustness.md).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

constexpr uint64_t MIB = 1024 * 1024;

// The reports of a surface are kept as so many rectangles; beyond that they become the one around them. (Lines across
// lines are as many rectangles as their product.) The same holds for the damage of an output. Since each of its
// rectangles meets each surface in a pass, and each direct one all others, it is kept as fewer where surfaces are many.
constexpr int DAMAGE_RECTS = 1 << 17;
constexpr int DAMAGE_RECTS_LEAST = 64;
constexpr int64_t DAMAGE_MEETINGS = int64_t{1} << 24;

constexpr int damage_rects(int n_surface)
{
    const int64_t n = std::max(n_surface, 1);
    return static_cast<int>(std::clamp<int64_t>(DAMAGE_MEETINGS / (n * n), DAMAGE_RECTS_LEAST, DAMAGE_RECTS));
}

// Damage that does not come from reports is added one rectangle after the other, and each costs time for all before it.
constexpr int SINGLE_RECTS = 1024;

struct ClientLimits {
    uint64_t mapped_bytes; // of clients' shared memory, all together
    // Of these, what stays mapped until the server ends, because no connection owns it. See also
    // client_limits_left_bytes.
    uint64_t left_bytes;
    size_t left_mappings;
    // Of the images of scaled surfaces, all together; on a small machine a quarter of its memory.
    uint64_t scaled_bytes;
};

// Tests set their own.
extern ClientLimits client_limits;

// left_bytes, and no more than a quarter of what /dev/shm holds: the others need some for their surfaces.
uint64_t client_limits_left_bytes();
