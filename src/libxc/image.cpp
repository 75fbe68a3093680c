// SPDX-License-Identifier: MIT
// Images over memory: what they describe, how long they live, where their pixels are.
#include "xc.h"

#include <algorithm>
#include <cstdlib>

namespace {

struct FormatInfo {
    int format;
    uint8_t depth;
    uint32_t flags;
};

constexpr FormatInfo FORMATS[] = {
    {XC_FORMAT_ARGB32, 32, XC_IMAGE_ALPHA},
    {XC_FORMAT_XRGB32, 32, 0},
    {XC_FORMAT_RGB16, 16, 0},
    {XC_FORMAT_RGB18, 18, 0},
};

const FormatInfo *find_format(int format)
{
    for (const FormatInfo &info : FORMATS) {
        if (info.format == format)
            return &info;
    }
    return nullptr;
}

constexpr int pixel_size(int depth)
{
    return depth == 16 ? 2 : 4;
}

// The product of two 32-bit numbers always fits 64 bits; in size_t it may not.
constexpr size_t bytes_declared(int32_t stride, int32_t height)
{
    const int64_t bytes = int64_t{stride} * height;
    return static_cast<size_t>(std::clamp<int64_t>(bytes, 0, PTRDIFF_MAX));
}

bool attach_borrowed(xc_image *image, void *pixels)
{
    image->pixels = pixels;
    image->extent = pixels == nullptr ? 0 : bytes_declared(image->stride, image->height);
    return true;
}

// calloc, not malloc and memset: fresh pages are zero already and stay untouched until somebody draws on them.
bool attach_own(xc_image *image, const void *pixels)
{
    const int64_t bytes = int64_t{image->stride} * image->height;
    if (pixels != nullptr || image->stride < 1 || bytes > INT32_MAX)
        return false;
    image->pixels = calloc(1, static_cast<size_t>(bytes));
    image->extent = static_cast<size_t>(bytes);
    image->owned = 1;
    return image->pixels != nullptr;
}

} // namespace

xc_image *xc_image_new_with_data(int32_t width, int32_t height, void *pixels, int format, [[maybe_unused]] int reserved,
                                 int borrowed, int32_t stride)
{
    const FormatInfo *info = find_format(format);
    if (info == nullptr || width < 1 || height < 1)
        return nullptr;
    auto *image = static_cast<xc_image *>(calloc(1, sizeof(xc_image)));
    if (image == nullptr)
        return nullptr;
    image->width = width;
    image->height = height;
    image->stride = stride;
    image->depth = info->depth;
    image->format = static_cast<uint8_t>(format);
    image->flags = info->flags;
    image->refs = 1;
    if (borrowed != 0 ? attach_borrowed(image, pixels) : attach_own(image, pixels))
        return image;
    free(image);
    return nullptr;
}

xc_image *xc_image_ref(xc_image *image)
{
    image->refs++;
    return image;
}

void xc_image_unref(xc_image *image)
{
    if (image == nullptr || --image->refs > 0)
        return;
    if (image->owned)
        free(image->pixels);
    free(image);
}

void *xc_image_pointer(const xc_image *image, int32_t x, int32_t y)
{
    // In whole numbers: the address of a pixel far outside is still a defined one.
    const int64_t offset = int64_t{y} * image->stride + int64_t{x} * xc_image_pixel_size(image);
    return reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(image->pixels) + static_cast<uintptr_t>(offset));
}

int xc_image_pixel_size(const xc_image *image)
{
    return pixel_size(image->depth);
}

void xg_area_cross(const xc_rect *a, const xc_rect *b, xc_rect *result)
{
    *result = {std::max(a->x1, b->x1), std::max(a->y1, b->y1), std::min(a->x2, b->x2), std::min(a->y2, b->y2)};
}
