// SPDX-License-Identifier: MIT
// Both display outputs of the server, in memory: linked in place of the framebuffer ones, for tests without a device.
// The pixels end flush against a guard page, so that one byte too far traps at once.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "../../src/backend/backend.h"
#include "guarded_buffer.h"

struct OutputCall {
    enum Kind { INIT, UPDATE, FLUSH, RELEASE };
    Kind kind;
    std::vector<Rect> region; // of an update
};

struct MemoryOutput {
    // What the device is; set before its first surface is made.
    int32_t width = 320; // pixels
    int32_t height = 240;
    uint32_t depth = 32; // 8, 16, 18, 24 or 32; the masks follow from it
    uint32_t stride = 0; // bytes; 0: rows without padding
    uint32_t memory = 0; // bytes; 0: stride x height
    uint8_t content = 0; // every byte of the memory when it is opened
    uint32_t alpha_mask = 0;
    uint32_t byte_order = 0;
    bool refuses = false; // init returns null

    // What happened to it.
    std::vector<OutputCall> calls;
    int32_t requested_w = 0; // of the last init
    int32_t requested_h = 0;
    std::unique_ptr<GuardedBuffer> pixels; // from init to release

    int count(OutputCall::Kind kind) const;
    // Regions handed to update since `calls` was last cleared.
    std::vector<std::vector<Rect>> updates() const;
    // The word of the pixel at panel column x, row y: 16 or 32 bits.
    uint32_t pixel(int32_t x, int32_t y) const;
    uint32_t row_bytes() const;
};

extern MemoryOutput primary_output; // behind fb_displayfunc, no alpha
extern MemoryOutput second_output;  // behind fb2_displayfunc, with alpha

// Both as described above.
void memory_outputs_reset();
