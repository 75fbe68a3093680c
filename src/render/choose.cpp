// SPDX-License-Identifier: MIT
// Which converter serves a pair of images at a rotation.
#include "render.h"

namespace {

constexpr int ANY = -1;

// One line of the table: what the pair must be, and the converter. ANY is not looked at, so that there even a rotation
// that no converter knows will do.
struct Rule {
    int src_depth;
    int dst_depth;
    int src_alpha;
    int dst_alpha;
    int rotation;
    ConverterChoice choice;
};

// Three things are meant as they stand: alpha counts only where a 32-bit source meets a destination of 32-bit words;
// pairs of different depth are turned only from 32 bits onto 16 and 18; 18 bits onto 18 are copied as plain words.
// A panel that calls its depth 24 is written in whole words like one of 32.
constexpr Rule RULES[] = {
    {32, 32, 1, 1, ANY, {render_argb_to_32a, nullptr, 4, 4, false}},
    {32, 32, 1, 0, ANY, {render_argb_to_32, nullptr, 4, 4, false}},
    {32, 32, 0, 1, ANY, {render_rgb_to_32a, nullptr, 4, 4, false}},
    {32, 32, 0, 0, ANY, {render_rgb_to_32, nullptr, 4, 4, false}},
    {32, 24, 1, 1, ANY, {render_argb_to_32a, nullptr, 4, 4, false}},
    {32, 24, 1, 0, ANY, {render_argb_to_32, nullptr, 4, 4, false}},
    {32, 24, 0, 1, ANY, {render_rgb_to_32a, nullptr, 4, 4, false}},
    {32, 24, 0, 0, ANY, {render_rgb_to_32, nullptr, 4, 4, false}},
    {32, 16, ANY, ANY, 0, {render_rgb_to_16, nullptr, 4, 2, false}},
    {32, 16, ANY, ANY, 90, {render_rgb_to_16_90_quiet, render_rgb_to_16_90_announce, 4, 2, true}},
    {32, 16, ANY, ANY, 270, {render_rgb_to_16_270, nullptr, 4, 2, false}},
    {32, 18, ANY, ANY, 0, {render_rgb_to_18, nullptr, 4, 4, false}},
    {32, 18, ANY, ANY, 90, {render_rgb_to_18_90, nullptr, 4, 4, false}},
    {32, 18, ANY, ANY, 270, {render_rgb_to_18_270, nullptr, 4, 4, false}},
    {16, 32, ANY, ANY, ANY, {render_16_to_32, nullptr, 2, 4, false}},
    {16, 18, ANY, ANY, ANY, {render_16_to_18, nullptr, 2, 4, false}},
    {16, 16, ANY, ANY, 0, {render_16_to_16, nullptr, 2, 2, false}},
    {16, 16, ANY, ANY, 90, {render_16_to_16_90, nullptr, 2, 2, true}},
    {16, 16, ANY, ANY, 270, {render_16_to_16_270, nullptr, 2, 2, false}},
    {18, 32, ANY, ANY, ANY, {render_18_to_32, nullptr, 4, 4, false}},
    {18, 16, ANY, ANY, ANY, {render_18_to_16, nullptr, 4, 2, false}},
    {18, 18, ANY, ANY, 0, {render_32_to_32, nullptr, 4, 4, false}},
    {18, 18, ANY, ANY, 90, {render_32_to_32_90, nullptr, 4, 4, true}},
    {18, 18, ANY, ANY, 270, {render_32_to_32_270, nullptr, 4, 4, false}},
};

constexpr bool allows(int wanted, int value)
{
    return wanted == ANY || wanted == value;
}

} // namespace

[[gnu::hot]] const ConverterChoice *find_converter(const xc_image *src, const xc_image *dst, int32_t rotation)
{
    for (const Rule &rule : RULES) {
        if (rule.src_depth == src->depth && rule.dst_depth == dst->depth &&
            allows(rule.src_alpha, image_has_alpha(src)) && allows(rule.dst_alpha, image_has_alpha(dst)) &&
            allows(rule.rotation, rotation))
            return &rule.choice;
    }
    return nullptr;
}
