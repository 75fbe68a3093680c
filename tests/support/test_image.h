// SPDX-License-Identifier: MIT
// Images for tests: over memory that ends at a guard page, filled with numbers that depend on nothing but a seed.
#pragma once

#include <cstring>
#include <random>
#include <vector>

#include "guarded_buffer.h"
#include "xc.h"

class TestImage {
public:
    // `stride` 0: rows without padding. `extent` 0: all rows.
    TestImage(int32_t width, int32_t height, int format, uint32_t seed, int32_t stride = 0, size_t extent = 0)
        : bytes(bytes_of(width, height, format, stride, extent)), memory(bytes, GuardedBuffer::AT_END)
    {
        const int32_t pitch = stride != 0 ? stride : width * size_of(format);
        image = xc_image_new_with_data(width, height, memory.data(), format, 0, 1, pitch);
        image->extent = bytes;
        std::mt19937 random(seed);
        for (size_t i = 0; i < bytes; i++)
            memory.data()[i] = static_cast<uint8_t>(random());
    }
    ~TestImage() { xc_image_unref(image); }
    TestImage(const TestImage &) = delete;
    TestImage &operator=(const TestImage &) = delete;

    std::vector<uint8_t> content() const { return {memory.data(), memory.data() + bytes}; }

    const size_t bytes;
    GuardedBuffer memory;
    xc_image *image;

private:
    static int32_t size_of(int format) { return format == XC_FORMAT_RGB16 ? 2 : 4; }
    static size_t bytes_of(int32_t width, int32_t height, int format, int32_t stride, size_t extent)
    {
        const int32_t pitch = stride != 0 ? stride : width * size_of(format);
        return extent != 0 ? extent : static_cast<size_t>(pitch) * static_cast<size_t>(height);
    }
};
