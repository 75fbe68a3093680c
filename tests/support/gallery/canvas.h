// SPDX-License-Identifier: MIT
// Drawing with smooth edges, in integers alone: the same bytes come out on every machine, whatever its libraries and
// its floating point.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "../pixels.h"

// Lengths on a canvas are in eighths of a pixel, so that coverage can be counted between pixels.
inline constexpr int EIGHTHS = 8;

struct Point {
    int x, y; // eighths
};
constexpr Point at(int x, int y)
{
    return {x * EIGHTHS, y * EIGHTHS};
}

struct Canvas {
    int width, height;           // pixels
    std::vector<uint32_t> words; // ARGB, colours multiplied by alpha
};

// A colour is 0xAARRGGBB, not multiplied by alpha. From one at a shape's top to the other at its bottom.
struct Paint {
    uint32_t top, bottom;
    Paint(uint32_t both) : top(both), bottom(both) {}
    Paint(uint32_t first, uint32_t last) : top(first), bottom(last) {}
};

Canvas canvas_new(int width, int height); // transparent
// In a surface's format; bits that it has no place for are cut off.
Pixels canvas_pixels(const Canvas &canvas, PixelFormat format);

// How much of b, 0 to 256, goes into a.
uint32_t colour_mix(uint32_t a, uint32_t b, int part);

// Pixels: the first column and row, and the size.
void draw_rectangle(Canvas &canvas, int x, int y, int width, int height, const Paint &paint);
// From one colour at the left to the other at the right.
void draw_across(Canvas &canvas, int x, int y, int width, int height, uint32_t left, uint32_t right);
void draw_rounded(Canvas &canvas, int x, int y, int width, int height, int radius, const Paint &paint);
// The outline of a rectangle, `thick` pixels inwards.
void draw_frame(Canvas &canvas, int x, int y, int width, int height, int thick, uint32_t colour);
void draw_checks(Canvas &canvas, int x, int y, int width, int height, int cell, uint32_t a, uint32_t b);

void draw_disc(Canvas &canvas, Point centre, int radius, const Paint &paint);
// A line through the points, with round ends.
void draw_line(Canvas &canvas, const std::vector<Point> &points, int thickness, const Paint &paint);
// What lies below a line that runs through `heights` at equal distances from the left edge to the right one.
void draw_hills(Canvas &canvas, const std::vector<int> &heights, const Paint &paint);
// Digits of `text` ('0' to '3', ':' and '*' for degrees), `height` eighths high, with their top left corner at `from`.
// Returns the width.
int draw_digits(Canvas &canvas, Point from, int height, int thickness, const char *text, const Paint &paint);
