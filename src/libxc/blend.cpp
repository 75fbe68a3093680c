// SPDX-License-Identifier: MIT
// Rows of 32-bit pixels: copied, or laid over what is there.
#include "xc.h"

#include <cstring>

#include "../kernels/kernels.h"

namespace {

void run(Kernel<uint32_t, uint32_t> kernel, const uint32_t *src, uint32_t *dst, int32_t n)
{
    if (n > 0)
        kernel(src, n, dst, n, n, 1);
}

} // namespace

void xc_copy_pixels_rgba_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n)
{
    if (n > 0)
        memcpy(dst, src, static_cast<size_t>(n) * sizeof *dst);
}

void xc_copy_pixels_rgb_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n)
{
    run(kernels->rgb_to_argb, src, dst, n);
}

void xc_blend_pixels_rgba_to_rgba(const uint32_t *src, uint32_t *dst, int32_t n)
{
    run(kernels->over, src, dst, n);
}

// Computing the unused byte too is quicker than keeping it.
void xc_blend_pixels_rgba_to_rgb(const uint32_t *src, uint32_t *dst, int32_t n)
{
    run(kernels->over, src, dst, n);
}
