// SPDX-License-Identifier: MIT
// Bytes that lie flush against an inaccessible page, or near one at any alignment; what lies around them is poisoned.
#pragma once

#include <vector>

#include "../../tests/support/guarded_buffer.h"
#include "fuzz.h"

struct Buffer {
    GuardedBuffer memory;
    size_t size;

    // `unit`: bytes of a pixel. Drawn full by what the input says.
    Buffer(size_t bytes, FuzzInput &in, size_t unit) : Buffer(bytes, in, unit, in.chance(96)) {}
    ~Buffer() { bare(); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;

    uint8_t *data() const { return memory.data(); }
    std::vector<uint8_t> bytes() const { return {data(), data() + size}; }
    // That it holds this, and that nothing was written around it.
    void check(const std::vector<uint8_t> &expected, const char *what) const;

private:
    Buffer(size_t bytes, FuzzInput &in, size_t unit, bool at_start);
    void hide() const;
    void bare() const;
};
