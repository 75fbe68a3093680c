// SPDX-License-Identifier: MIT
// What every converter has to do, said once more in the slowest and plainest way: pixel by pixel, by coordinates, in
// whole numbers of bytes and channels. It shares nothing with the converters, so that both cannot be wrong alike.
#pragma once

#include <cstdint>
#include <span>

#include "../../src/render/render.h"

enum class Placement { unturned, quarter_turn, doubled };

struct ConverterFacts {
    const char *name;
    Converter run;
    int src_size; // bytes per pixel
    int dst_size;
    uint32_t (*pixel)(uint32_t src, uint32_t dst); // new destination pixel
    Placement placement;
    bool announces; // prints its arguments
};

// All of them, each once.
std::span<const ConverterFacts> converter_facts();
const ConverterFacts &converter_facts_of(Converter run);

struct ConverterArguments {
    int32_t native_w;
    int32_t sx, sy, dx, dy, w, h;
    int32_t sstride, dstride;
};

// Bytes from the buffer's first pixel to the end of the last one that is read or written.
size_t bytes_read(const ConverterFacts &facts, const ConverterArguments &args);
size_t bytes_written(const ConverterFacts &facts, const ConverterArguments &args);

// Does to `dst` what the converter has to do.
void convert_slowly(const ConverterFacts &facts, const ConverterArguments &args, const uint8_t *src, uint8_t *dst);
// Calls the converter itself.
void convert_really(const ConverterFacts &facts, const ConverterArguments &args, const uint8_t *src, uint8_t *dst);

// The rule of OVER for one byte, from its definition: round(a x b / 255).
uint32_t over_slowly(uint32_t src, uint32_t dst);
