// SPDX-License-Identifier: MIT
#include "canvas.h"

#include <algorithm>

namespace {

constexpr int SAMPLES[] = {1, 3, 5, 7}; // of a pixel, in both directions
constexpr int ALL_SAMPLES = 16;

struct Box {
    int x1, y1, x2, y2; // pixels, x2 and y2 exclusive
};

uint32_t channel(uint32_t word, int shift)
{
    return word >> shift & 255;
}

// Draws a colour over a pixel that `hits` of the samples cover.
void blend(uint32_t &word, uint32_t colour, int hits)
{
    const uint32_t alpha = (channel(colour, 24) * static_cast<uint32_t>(hits) + ALL_SAMPLES / 2) / ALL_SAMPLES;
    uint32_t result = 0;
    for (int shift = 0; shift < 32; shift += 8) {
        const uint32_t full = shift == 24 ? 255 : channel(colour, shift);
        result |= (full * alpha + channel(word, shift) * (255 - alpha) + 127) / 255 << shift;
    }
    word = result;
}

Box visible(const Canvas &canvas, const Box &box)
{
    return {std::max(box.x1, 0), std::max(box.y1, 0), std::min(box.x2, canvas.width), std::min(box.y2, canvas.height)};
}

uint32_t paint_at(const Paint &paint, int y, const Box &shape)
{
    return colour_mix(paint.top, paint.bottom, 256 * (y - shape.y1) / std::max(1, shape.y2 - shape.y1 - 1));
}

// Every shape is a question: is this point, in eighths, inside?
template <class Inside> void draw_shape(Canvas &canvas, const Box &shape, const Paint &paint, Inside inside)
{
    const Box seen = visible(canvas, shape);
    for (int y = seen.y1; y < seen.y2; y++) {
        const uint32_t colour = paint_at(paint, y, shape);
        for (int x = seen.x1; x < seen.x2; x++) {
            int hits = 0;
            for (int sy : SAMPLES) {
                for (int sx : SAMPLES)
                    hits += inside(x * EIGHTHS + sx, y * EIGHTHS + sy) ? 1 : 0;
            }
            if (hits > 0)
                blend(canvas.words[static_cast<size_t>(y * canvas.width + x)], colour, hits);
        }
    }
}

int64_t square(int64_t value)
{
    return value * value;
}

// Whether a point lies within `radius` of the line from a to b.
bool near_line(int x, int y, Point a, Point b, int radius)
{
    const int64_t dx = b.x - a.x, dy = b.y - a.y, px = x - a.x, py = y - a.y;
    const int64_t length = dx * dx + dy * dy;
    const int64_t along = px * dx + py * dy;
    if (along <= 0)
        return px * px + py * py <= square(radius);
    if (along >= length)
        return square(x - b.x) + square(y - b.y) <= square(radius);
    return square(px * dy - py * dx) <= square(radius) * length;
}

Box around(const std::vector<Point> &points, int radius)
{
    Box box{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN};
    for (Point p : points) {
        box = {std::min(box.x1, p.x - radius), std::min(box.y1, p.y - radius), std::max(box.x2, p.x + radius),
               std::max(box.y2, p.y + radius)};
    }
    const auto down = [](int v) { return (v >= 0 ? v : v - EIGHTHS + 1) / EIGHTHS; };
    return {down(box.x1), down(box.y1), down(box.x2) + 1, down(box.y2) + 1};
}

// A curve by its four control points, as straight pieces.
void add_curve(std::vector<Point> &points, const Point (&c)[4])
{
    constexpr int n = 16;
    for (int i = 0; i <= n; i++) {
        const int j = n - i;
        const int part[] = {j * j * j, 3 * j * j * i, 3 * j * i * i, i * i * i};
        Point p{0, 0};
        for (int k = 0; k < 4; k++) {
            p.x += part[k] * c[k].x;
            p.y += part[k] * c[k].y;
        }
        points.push_back({p.x / (n * n * n), p.y / (n * n * n)});
    }
}

struct Glyph {
    int width;                              // hundredths of the height
    std::vector<std::vector<Point>> pieces; // hundredths of the height
};

Glyph glyph(char letter)
{
    std::vector<Point> line;
    switch (letter) {
    case '0':
        add_curve(line, {{0, 50}, {0, -17}, {60, -17}, {60, 50}});
        add_curve(line, {{60, 50}, {60, 117}, {0, 117}, {0, 50}});
        return {60, {line}};
    case '1':
        return {32, {{{0, 22}, {26, 0}, {26, 100}}}};
    case '2':
        add_curve(line, {{2, 30}, {2, -10}, {58, -10}, {58, 28}});
        add_curve(line, {{58, 28}, {58, 50}, {22, 74}, {0, 100}});
        line.push_back({60, 100});
        return {60, {line}};
    case '3':
        add_curve(line, {{3, 18}, {14, -8}, {56, -6}, {56, 24}});
        add_curve(line, {{56, 24}, {56, 42}, {40, 47}, {24, 47}});
        add_curve(line, {{24, 47}, {42, 47}, {60, 54}, {60, 73}});
        add_curve(line, {{60, 73}, {60, 107}, {10, 109}, {0, 80}});
        return {60, {line}};
    case ':':
        return {4, {{{2, 30}, {2, 32}}, {{2, 72}, {2, 74}}}};
    default: // degrees
        add_curve(line, {{0, 15}, {0, -5}, {30, -5}, {30, 15}});
        add_curve(line, {{30, 15}, {30, 35}, {0, 35}, {0, 15}});
        return {30, {line}};
    }
}

} // namespace

Canvas canvas_new(int width, int height)
{
    return {width, height, std::vector<uint32_t>(static_cast<size_t>(width * height), 0)};
}

Pixels canvas_pixels(const Canvas &canvas, PixelFormat format)
{
    Pixels pixels = pixels_new(format, canvas.width, canvas.height);
    for (int y = 0; y < canvas.height; y++) {
        for (int x = 0; x < canvas.width; x++) {
            const uint32_t p = canvas.words[static_cast<size_t>(y * canvas.width + x)];
            const uint32_t r = channel(p, 16), g = channel(p, 8), b = channel(p, 0);
            const uint32_t word = format == PixelFormat::RGB565   ? r >> 3 << 11 | g >> 2 << 5 | b >> 3
                                  : format == PixelFormat::RGB666 ? r >> 2 << 12 | g >> 2 << 6 | b >> 2
                                  : format == PixelFormat::XRGB   ? p | 0xFF000000
                                                                  : p;
            pixels.set(x, y, word);
        }
    }
    return pixels;
}

uint32_t colour_mix(uint32_t a, uint32_t b, int part)
{
    const uint32_t of_b = static_cast<uint32_t>(std::clamp(part, 0, 256));
    uint32_t result = 0;
    for (int shift = 0; shift < 32; shift += 8)
        result |= (channel(a, shift) * (256 - of_b) + channel(b, shift) * of_b + 128) / 256 << shift;
    return result;
}

void draw_rectangle(Canvas &canvas, int x, int y, int width, int height, const Paint &paint)
{
    draw_shape(canvas, {x, y, x + width, y + height}, paint, [](int, int) { return true; });
}

void draw_across(Canvas &canvas, int x, int y, int width, int height, uint32_t left, uint32_t right)
{
    for (int i = 0; i < width; i++)
        draw_rectangle(canvas, x + i, y, 1, height, colour_mix(left, right, 256 * i / std::max(1, width - 1)));
}

void draw_rounded(Canvas &canvas, int x, int y, int width, int height, int radius, const Paint &paint)
{
    const Point first = at(x + radius, y + radius), last = at(x + width - radius, y + height - radius);
    draw_shape(canvas, {x, y, x + width, y + height}, paint, [&](int px, int py) {
        const int64_t dx = px - std::clamp(px, first.x, last.x), dy = py - std::clamp(py, first.y, last.y);
        return dx * dx + dy * dy <= square(radius * EIGHTHS);
    });
}

void draw_frame(Canvas &canvas, int x, int y, int width, int height, int thick, uint32_t colour)
{
    draw_rectangle(canvas, x, y, width, thick, colour);
    draw_rectangle(canvas, x, y + height - thick, width, thick, colour);
    draw_rectangle(canvas, x, y + thick, thick, height - 2 * thick, colour);
    draw_rectangle(canvas, x + width - thick, y + thick, thick, height - 2 * thick, colour);
}

void draw_checks(Canvas &canvas, int x, int y, int width, int height, int cell, uint32_t a, uint32_t b)
{
    for (int j = 0; j < height; j += cell) {
        for (int i = 0; i < width; i += cell) {
            const uint32_t colour = (i + j) / cell % 2 == 0 ? a : b;
            draw_rectangle(canvas, x + i, y + j, std::min(cell, width - i), std::min(cell, height - j), colour);
        }
    }
}

void draw_disc(Canvas &canvas, Point centre, int radius, const Paint &paint)
{
    draw_line(canvas, {centre}, 2 * radius, paint);
}

void draw_line(Canvas &canvas, const std::vector<Point> &points, int thickness, const Paint &paint)
{
    const int radius = thickness / 2;
    draw_shape(canvas, around(points, radius), paint, [&](int x, int y) {
        if (points.size() == 1)
            return square(x - points[0].x) + square(y - points[0].y) <= square(radius);
        for (size_t i = 0; i + 1 < points.size(); i++) {
            if (near_line(x, y, points[i], points[i + 1], radius))
                return true;
        }
        return false;
    });
}

void draw_hills(Canvas &canvas, const std::vector<int> &heights, const Paint &paint)
{
    const int width = canvas.width * EIGHTHS;
    const int pieces = static_cast<int>(heights.size()) - 1;
    std::vector<int> line;
    for (int x = 0; x < width; x++) {
        const int64_t place = int64_t{x} * pieces;
        const size_t piece = static_cast<size_t>(place / width);
        const int64_t part = place % width;
        line.push_back(static_cast<int>((heights[piece] * (width - part) + heights[piece + 1] * part) / width));
    }
    const Box shape{0, *std::min_element(heights.begin(), heights.end()) / EIGHTHS, canvas.width, canvas.height};
    draw_shape(canvas, shape, paint, [&](int x, int y) { return y >= line[static_cast<size_t>(x)]; });
}

int draw_digits(Canvas &canvas, Point from, int height, int thickness, const char *text, const Paint &paint)
{
    const int start = from.x;
    for (const char *letter = text; *letter != '\0'; letter++) {
        const Glyph g = glyph(*letter);
        for (std::vector<Point> piece : g.pieces) {
            for (Point &p : piece)
                p = {from.x + p.x * height / 100, from.y + p.y * height / 100};
            draw_line(canvas, piece, thickness, paint);
        }
        from.x += (g.width + 22) * height / 100 + thickness / 2;
    }
    return from.x - start - 22 * height / 100 - thickness / 2;
}
