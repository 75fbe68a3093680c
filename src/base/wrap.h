// SPDX-License-Identifier: MIT
// 32-bit arithmetic on values that clients chose. It wraps: a nonsense rectangle then meets the assertion that names
// it, instead of undefined behaviour.
#pragma once

#include <cstdint>

constexpr int32_t wrap_add(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
constexpr int32_t wrap_sub(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
constexpr int32_t wrap_mul(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
constexpr int32_t wrap_shl(int32_t a, int bits)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) << bits);
}
