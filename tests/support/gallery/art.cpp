// SPDX-License-Identifier: MIT
#include "art.h"

#include <algorithm>

namespace {

struct Light {
    Paint sky, far, middle, near, lake;
    uint32_t disc, glint, shore;
};

// Heights of a chain of hills, thousandths of the canvas.
std::vector<int> hills(const Canvas &canvas, std::vector<int> heights)
{
    for (int &h : heights)
        h = h * canvas.height * EIGHTHS / 1000;
    return heights;
}

void draw_sky(Canvas &c, const Light &light, bool stars)
{
    draw_rectangle(c, 0, 0, c.width, c.height * 64 / 100, light.sky);
    const int size = std::min(c.width, c.height);
    const Point places[] = {{80, 90},   {190, 210}, {300, 60},  {410, 170}, {520, 80},
                            {600, 260}, {860, 70},  {930, 230}, {140, 330}, {470, 310}};
    for (Point p : places) {
        if (stars)
            draw_disc(c, {p.x * c.width / 125, p.y * c.height / 125}, size / 25, 0xFFE8ECF8);
    }
    const Point centre{c.width * EIGHTHS * 70 / 100, c.height * EIGHTHS * 30 / 100};
    for (int ring : {26, 20, 15})
        draw_disc(c, centre, size * EIGHTHS * ring / 100, (stars ? 0x10FFFFFFu : 0x28FFFFFFu) & light.disc);
    draw_disc(c, centre, size * EIGHTHS * 11 / 100, light.disc);
}

// A fir: three tapering storeys, each a row of lines from the tip down.
void draw_fir(Canvas &c, Point foot, int height, uint32_t colour)
{
    draw_line(c, {foot, {foot.x, foot.y - height}}, height / 9, colour);
    for (int storey = 0; storey < 4; storey++) {
        const int y = foot.y - height + height * storey / 5;
        const int reach = height * (storey + 2) / 16;
        const Point tip{foot.x, y};
        draw_line(c, {{tip.x - reach, y + height / 4}, tip, {tip.x + reach, y + height / 4}}, height / 8, colour);
    }
}

Canvas landscape(int width, int height, const Light &light, bool stars)
{
    Canvas c = canvas_new(width, height);
    draw_sky(c, light, stars);
    draw_hills(c, hills(c, {470, 430, 360, 420, 330, 270, 350, 310, 400, 440, 390, 450}), light.far);
    draw_hills(c, hills(c, {400, 460, 520, 470, 540, 560, 500, 460, 520, 430, 480, 420}), light.middle);
    draw_hills(c, hills(c, {560, 590, 610, 570, 600, 630, 620, 590, 560, 600, 570, 540}), light.near);
    const int lake = height * 64 / 100;
    draw_rectangle(c, 0, lake, width, height - lake, light.lake);
    const int size = std::min(width, height);
    for (int i = 0; i < 7; i++) {
        const int reach = (9 - i) * size * EIGHTHS / 100 * (i % 2 == 0 ? 2 : 1);
        const Point middle{width * EIGHTHS * 70 / 100, (lake + (i + 1) * (height - lake) * 10 / 100) * EIGHTHS};
        draw_line(c, {{middle.x - reach, middle.y}, {middle.x + reach, middle.y}}, size * EIGHTHS / 90, light.glint);
    }
    draw_hills(c, hills(c, {860, 880, 920, 955, 980, 1000, 1000, 1000, 985, 960, 940}), light.shore);
    const Point firs[] = {{50, 290}, {130, 210}, {200, 150}, {900, 120}, {965, 190}};
    for (Point f : firs)
        draw_fir(c, {f.x * width * EIGHTHS / 1000, height * EIGHTHS * 97 / 100}, f.y * size * EIGHTHS / 1000,
                 light.shore);
    return c;
}

// Sixteenths of a three-quarter turn, from the lower left over the top to the lower right: x and y in thousandths.
constexpr Point AROUND[] = {{-707, 707},  {-882, 471},  {-981, 195}, {-995, -98}, {-924, -383}, {-773, -634},
                            {-556, -831}, {-290, -957}, {0, -1000},  {290, -957}, {556, -831},  {773, -634},
                            {924, -383},  {995, -98},   {981, 195},  {882, 471},  {707, 707}};

Point on_circle(Point centre, int radius, int position)
{
    const Point p = AROUND[std::clamp(position, 0, 16)];
    return {centre.x + p.x * radius / 1000, centre.y + p.y * radius / 1000};
}

// In the middle of a row whose top edge is given in pixels; not wider than four fifths of the canvas.
void draw_centred(Canvas &c, int y, int height, const char *digits, uint32_t colour)
{
    Canvas unseen = canvas_new(1, 1);
    const auto width = [&](int tall) { return draw_digits(unseen, {0, 0}, tall, tall / 7, digits, colour); };
    const int room = c.width * EIGHTHS * 4 / 5, wanted = height * EIGHTHS;
    const int tall = width(wanted) > room ? wanted * room / width(wanted) : wanted;
    draw_digits(c, {(c.width * EIGHTHS - width(tall)) / 2, y * EIGHTHS + (wanted - tall) / 2}, tall, tall / 7, digits,
                colour);
}

} // namespace

Canvas art_evening(int width, int height)
{
    return landscape(width, height,
                     {{0xFF35619E, 0xFFFBD3A0},
                      {0xFF9A90B4, 0xFFC9A9A6},
                      {0xFF6A6B98, 0xFF8B7F98},
                      {0xFF3C4B76, 0xFF54587C},
                      {0xFFE2B394, 0xFF33507F},
                      0xFFFFF3CF,
                      0x90FFF3CF,
                      0xFF172238},
                     false);
}

Canvas art_night(int width, int height)
{
    return landscape(width, height,
                     {{0xFF060A1E, 0xFF35457E},
                      {0xFF2E3A6C, 0xFF3A4878},
                      {0xFF202C58, 0xFF2A3664},
                      {0xFF141D40, 0xFF1A2448},
                      {0xFF2C3A6C, 0xFF0A1028},
                      0xFFF0F3FA,
                      0x70F0F3FA,
                      0xFF03060E},
                     true);
}

Canvas art_card(int width, int height, uint32_t colour, const char *digits)
{
    Canvas c = canvas_new(width, height);
    const int bar = height / 6;
    draw_rectangle(c, 0, 0, width, height, {0xFFFFFFFF, 0xFFDCE3EC});
    draw_rectangle(c, 0, 0, width, bar, {colour_mix(colour, 0xFFFFFFFF, 60), colour});
    for (int i = 0; i < 3; i++)
        draw_disc(c, {(bar * EIGHTHS * (2 + 3 * i)) / 4, bar * EIGHTHS / 2}, bar * EIGHTHS / 5, 0xD0FFFFFF);
    draw_centred(c, bar + (height - bar) * 22 / 100, (height - bar) * 56 / 100, digits, colour);
    draw_frame(c, 0, 0, width, height, 1, colour_mix(colour, 0xFF000000, 90));
    return c;
}

Canvas art_glass(int width, int height)
{
    Canvas c = canvas_new(width, height);
    const int r = std::min(width, height) / 6;
    draw_rounded(c, 0, 0, width, height, r, 0xFFFFFFFF);
    // The shape's own alpha times one that grows from left to right.
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++) {
            uint32_t &word = c.words[static_cast<size_t>(y * width + x)];
            const uint32_t alpha = (word >> 24) * static_cast<uint32_t>(20 + 235 * x / (width - 1)) / 255;
            word = alpha << 24 | (0xE8 * alpha / 255) << 16 | (0xF2 * alpha / 255) << 8 | alpha;
        }
    }
    const int knob = height / 4;
    draw_disc(c, at(width / 2, height / 2), knob * EIGHTHS, {0xFFF08A4B, 0xFFC8452F});
    draw_disc(c, at(width / 2, height / 2), knob * EIGHTHS * 2 / 3, 0x60FFFFFF);
    return c;
}

Canvas art_frame(int width, int height)
{
    Canvas c = canvas_new(width, height);
    draw_rounded(c, 0, 0, width, height, 16, 0x80FFFFFF);
    const int border = 14;
    const Canvas card = art_card(width - 2 * border, height - 2 * border, 0xFF2F7D6B, "12:30");
    for (int y = 0; y < card.height; y++)
        std::copy_n(&card.words[static_cast<size_t>(y * card.width)], card.width,
                    &c.words[static_cast<size_t>((y + border) * width + border)]);
    return c;
}

Canvas art_gauge(int width, int height, int position)
{
    Canvas c = canvas_new(width, height);
    draw_rectangle(c, 0, 0, width, height, {0xFF2A3550, 0xFF161D30});
    const Point centre = at(width / 2, height * 54 / 100);
    const int r = std::min(width, height) * EIGHTHS * 42 / 100;
    draw_disc(c, centre, r + r / 10, {0xFF4A5878, 0xFF2C3854});
    draw_disc(c, centre, r, {0xFF0E1424, 0xFF1B2338});
    for (int i = 0; i <= 16; i++) {
        const uint32_t colour = i > 12 ? 0xFFF0654A : 0xFFD8E2F2;
        draw_line(c, {on_circle(centre, r * 86 / 100, i), on_circle(centre, r * (i % 4 == 0 ? 68 : 76) / 100, i)},
                  r / (i % 4 == 0 ? 14 : 24), colour);
    }
    draw_line(c, {centre, on_circle(centre, r * 72 / 100, position)}, r / 10, 0xFFF8B84A);
    draw_disc(c, centre, r / 7, 0xFFF8B84A);
    draw_frame(c, 0, 0, width, height, 1, 0xFF6A7A9C);
    return c;
}

Canvas art_thermostat(int width, int height)
{
    Canvas c = canvas_new(width, height);
    draw_rectangle(c, 0, 0, width, height, {0xFFFFFFFF, 0xFFDCE3EC});
    draw_rectangle(c, 0, 0, width, height / 12, 0xFFC8553D);
    draw_centred(c, height * 22 / 100, height * 42 / 100, "21*", 0xFF24304C);
    const int y = height * 80 / 100;
    draw_rounded(c, width / 10, y, width * 8 / 10, height / 12, height / 24, 0xFFBAC4D4);
    draw_rounded(c, width / 10, y, width * 5 / 10, height / 12, height / 24, 0xFFC8553D);
    draw_frame(c, 0, 0, width, height, 1, 0xFF7C2F20);
    return c;
}

Canvas art_icon(int size)
{
    Canvas c = canvas_new(size, size);
    draw_rectangle(c, 0, 0, size, size, {0xFFFDF6E8, 0xFFF0DFC2});
    const int u = size * EIGHTHS / 32;
    draw_line(c, {{21 * u, 15 * u}, {26 * u, 15 * u}, {26 * u, 20 * u}, {21 * u, 21 * u}}, 2 * u, 0xFF8C3B2A);
    draw_rounded(c, size * 7 / 32, size * 12 / 32, size * 15 / 32, size * 14 / 32, size * 4 / 32,
                 {0xFFD0694A, 0xFF8C3B2A});
    draw_rectangle(c, size * 7 / 32, size * 12 / 32, size * 15 / 32, size * 4 / 32, 0xFFD0694A);
    for (int i = 0; i < 3; i++) {
        const int x = (10 + 9 * i / 2) * u;
        draw_line(c, {{x, 10 * u}, {x + u, 8 * u}, {x, 6 * u}, {x + u, 4 * u}}, u, 0xFF8898A8);
    }
    draw_line(c, {{5 * u, 28 * u}, {24 * u, 28 * u}}, u, 0xFF5A2A1C);
    draw_frame(c, 0, 0, size, size, 1, 0xFF5A2A1C);
    return c;
}

Canvas art_menu(int width, int height)
{
    Canvas c = canvas_new(width, height);
    draw_rounded(c, 0, 0, width, height, height / 2, {0xB0182238, 0xD0182238});
    const uint32_t colours[] = {0xFF3E8EDE, 0xFF46A868, 0xFFE0A030, 0xFFD85844};
    const int r = height * EIGHTHS * 32 / 100;
    for (int i = 0; i < 4; i++) {
        const Point centre{width * EIGHTHS * (1 + 2 * i) / 8, height * EIGHTHS / 2};
        draw_disc(c, centre, r, {colour_mix(colours[i], 0xFFFFFFFF, 70), colours[i]});
        const int n = r / 2;
        if (i == 0)
            draw_line(c,
                      {{centre.x - n / 2, centre.y - n},
                       {centre.x + n, centre.y},
                       {centre.x - n / 2, centre.y + n},
                       {centre.x - n / 2, centre.y - n}},
                      r / 5, 0xFFFFFFFF);
        if (i == 1)
            draw_line(c,
                      {{centre.x - n, centre.y},
                       {centre.x - n / 4, centre.y + n * 3 / 4},
                       {centre.x + n, centre.y - n * 3 / 4}},
                      r / 5, 0xFFFFFFFF);
        if (i == 2)
            for (int y = -1; y <= 1; y++)
                draw_line(c, {{centre.x - n, centre.y + y * n * 3 / 4}, {centre.x + n, centre.y + y * n * 3 / 4}},
                          r / 5, 0xFFFFFFFF);
        if (i == 3)
            for (int s : {-1, 1})
                draw_line(c,
                          {{centre.x - n * 3 / 4, centre.y - s * n * 3 / 4},
                           {centre.x + n * 3 / 4, centre.y + s * n * 3 / 4}},
                          r / 5, 0xFFFFFFFF);
    }
    return c;
}

Canvas art_colour(int width, int height, uint32_t colour)
{
    Canvas c = canvas_new(width, height);
    draw_rectangle(c, 0, 0, width, height, colour);
    return c;
}
