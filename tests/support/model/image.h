// SPDX-License-Identifier: MIT
// Pixels in memory. A pixel is found by its byte offset alone: it exists when all its bytes lie inside the image's
// extent, whatever the declared size says; reading or writing one that does not exist does nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "region.h"

namespace model {

// A client's shared memory as the test holds it. The server may have mapped more bytes than there are (any more): those
// read as 0, and the first look at a page of which nothing is there is told of once.
struct ClientMemory {
    const uint8_t *data = nullptr;
    size_t size = 0;
    mutable enum { WHOLE, FOUND_SHORT, TOLD } state = WHOLE;
};

inline constexpr size_t PAGE = 4096;

enum { ARGB32 = 0, XRGB32 = 1, RGB16 = 3, RGB18 = 8 };

struct Image {
    int32_t width = 0, height = 0;
    int32_t stride = 0; // bytes
    int depth = 32;
    int format = XRGB32;
    bool alpha = false;
    int64_t extent = 0;                   // bytes
    const ClientMemory *shared = nullptr; // a client's image; not owned
    std::vector<uint8_t> bytes;           // every other image
};

int depth_of_format(int format);
inline int pixel_bytes(const Image &image)
{
    return image.depth == 16 ? 2 : 4;
}
// Pixels from one row to the next: the stride rounded down to whole pixels, taken as unsigned.
inline int64_t pitch(const Image &image)
{
    return static_cast<uint32_t>(image.stride) >> (image.depth == 16 ? 1 : 2);
}

// `n` bytes (2 or 4), little-endian. False: the pixel does not exist.
inline bool image_read(const Image &image, int64_t offset, int n, uint32_t &value)
{
    if (offset < 0 || offset > image.extent - n)
        return false;
    size_t size = image.shared ? image.shared->size : image.bytes.size();
    const uint8_t *data = image.shared ? image.shared->data : image.bytes.data();
    value = 0;
    for (int i = 0; i < n; i++) {
        size_t at = static_cast<size_t>(offset + i);
        if (at >= size && at >= (size + PAGE - 1) / PAGE * PAGE && image.shared->state == ClientMemory::WHOLE)
            image.shared->state = ClientMemory::FOUND_SHORT;
        value |= static_cast<uint32_t>(at < size ? data[at] : 0) << 8 * i;
    }
    return true;
}

inline void image_write(Image &image, int64_t offset, int n, uint32_t value)
{
    if (offset < 0 || offset > image.extent - n)
        return;
    for (int i = 0; i < n; i++)
        image.bytes[static_cast<size_t>(offset + i)] = static_cast<uint8_t>(value >> 8 * i);
}

// One rectangle's way from image to image.
struct Conversion {
    enum Rule { COPY, OPAQUE, OVER, RGB_TO_16, RGB_TO_18, P16_TO_32, P18_TO_32, P16_TO_18, P18_TO_16 } rule;
    bool turned; // by 90 degrees
    bool chatty; // prints its arguments
};

// Chooses by depths, alpha flags and rotation. False: there is none.
bool conversion_choose(const Image &src, const Image &dst, int32_t rotation, Conversion &result);
// Converts one rectangle: (sx, sy) in the source, (dx, dy) in the destination before it is turned. `native_w` is the
// panel's width in pixels.
void conversion_run(const Conversion &c, const Image &src, Image &dst, int64_t sx, int64_t sy, int64_t dx, int64_t dy,
                    int64_t w, int64_t h, int64_t native_w);

} // namespace model
