// SPDX-License-Identifier: MIT
#include "verbs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "../panelimage/message.h"
#include "../panelimage/options.h"
#include "../panelimage/sampling.h"
#include "values.h"

namespace {

constexpr int RATE_MAX = 1000, CELLS_MAX = 16;

char *grid_text;
double seconds = 1e6, interval = 1;
int rate = 100;

const GOptionEntry ENTRIES[] = {
    SCREEN_OPTION_ENTRIES,
    {"for", 'f', 0, G_OPTION_ARG_DOUBLE, &seconds, "How long (until a signal)", "SECONDS"},
    {"interval", 'i', 0, G_OPTION_ARG_DOUBLE, &interval, "Time between two tables (1)", "SECONDS"},
    {"rate", 0, 0, G_OPTION_ARG_INT, &rate, "Looks at the panel per second (100)", "N"},
    {"grid", 'g', 0, G_OPTION_ARG_STRING, &grid_text, "Columns and rows of the table (4x3)", "CxR"},
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "",
    "Shows a table of the panel's updates per second: one cell for each part of the screen, as its memory has it, and\n"
    "the whole screen below. On a terminal the table stays in place.",
    "The panel is looked at --rate times a second: changes between two looks count as one, and a look in the midst of\n"
    "drawing counts as an update of its own.",
    false,
};

// Of one interval: how many samples have changed in a cell, and anywhere.
struct Table {
    int columns, rows;
    std::vector<unsigned> cells;
    unsigned total;
    uint64_t pixels;
    double begin; // of the interval, in the samples' time
};

void clear(Table *table, double now)
{
    table->cells.assign(static_cast<size_t>(table->columns) * static_cast<size_t>(table->rows), 0);
    table->total = 0;
    table->pixels = 0;
    table->begin = now;
}

// The part of a row of `size` pixels that belongs to cell `i` of `n`.
uint32_t edge(uint32_t size, int i, int n)
{
    return static_cast<uint32_t>(uint64_t{size} * static_cast<uint64_t>(i) / static_cast<uint64_t>(n));
}

struct Rect {
    uint32_t x1, y1, x2, y2; // pixels of the panel's memory
};

uint64_t changed_pixels(const Sample &sample, const Screen &screen, const Rect &rect)
{
    const size_t pixel = screen_pixel_bytes(screen), row = screen_row_bytes(screen);
    uint64_t changed = 0;
    for (uint32_t y = rect.y1; y < rect.y2; y++) {
        const uint8_t *before = sample.before.data() + y * row, *now = sample.now.data() + y * row;
        if (memcmp(before + rect.x1 * pixel, now + rect.x1 * pixel, (rect.x2 - rect.x1) * pixel) == 0)
            continue;
        for (uint32_t x = rect.x1; x < rect.x2; x++)
            changed += memcmp(before + x * pixel, now + x * pixel, pixel) != 0;
    }
    return changed;
}

void count(const Sample &sample, const Screen &screen, Table *table)
{
    uint64_t pixels = 0;
    for (int i = 0; i < table->columns * table->rows; i++) {
        const int column = i % table->columns, row = i / table->columns;
        const uint32_t width = screen.var.xres, height = screen.var.yres;
        const Rect rect = {edge(width, column, table->columns), edge(height, row, table->rows),
                           edge(width, column + 1, table->columns), edge(height, row + 1, table->rows)};
        const uint64_t changed = changed_pixels(sample, screen, rect);
        table->cells[static_cast<size_t>(i)] += changed > 0;
        pixels += changed;
    }
    table->total += pixels > 0;
    table->pixels += pixels;
}

void print(const Table &table, const Screen &screen, double now)
{
    const double time = std::max(now - table.begin, 1e-9);
    if (isatty(STDOUT_FILENO) != 0)
        printf("\033[H\033[J"); // to the upper left corner, and empty from there on
    printf("%s, %u x %u pixels of %u bits: updates per second\n", screen.title.c_str(), screen.var.xres,
           screen.var.yres, screen.var.bits_per_pixel);
    for (size_t i = 0; i < table.cells.size(); i++) {
        const bool last = (i + 1) % static_cast<size_t>(table.columns) == 0;
        printf("%8.1f%s", table.cells[i] / time, last ? "\n" : "");
    }
    printf("whole screen: %.1f updates per second, %.3f Mpixel per second\n", table.total / time,
           static_cast<double>(table.pixels) / time / 1e6);
    fflush(stdout);
}

bool check_options(int argc, Table *table)
{
    *table = {4, 3, {}, 0, 0, 0};
    if (grid_text != nullptr && !value_size("--grid", grid_text, &table->columns, &table->rows))
        return false;
    if (argc == 1 && seconds > 0 && seconds <= 1e6 && interval > 0 && interval <= 1e6 && rate >= 1 &&
        rate <= RATE_MAX && table->columns <= CELLS_MAX && table->rows <= CELLS_MAX)
        return true;
    complain(
        "watch takes up to a million --for and --interval seconds, a --rate of 1 to %d, a --grid up to %dx%d, and no "
        "words (see --help)",
        RATE_MAX, CELLS_MAX, CELLS_MAX);
    return false;
}

bool watch(Screen *screen, Table *table)
{
    double elapsed = 0;
    clear(table, 0);
    const bool sampled = sampling_run(
        screen, {seconds, rate},
        [&](const Sample &sample) {
            if (sample.now.size() == sample.before.size())
                count(sample, *screen, table);
            if (sample.time - table->begin < interval)
                return;
            print(*table, *screen, sample.time);
            clear(table, sample.time);
        },
        &elapsed);
    if (sampled && elapsed - table->begin > interval / 2)
        print(*table, *screen, elapsed);
    return sampled;
}

} // namespace

int verb_watch(int argc, char **argv)
{
    ScreenChoice choice;
    Table table;
    if (!options_parse(TEXT, ENTRIES, &argc, &argv) || !options_screen(&choice) || !check_options(argc, &table))
        return STATUS_USAGE;
    Screen screen;
    if (!screen_open(choice, &screen))
        return STATUS_FAILED;
    const bool watched = watch(&screen, &table);
    screen_close(&screen);
    return watched ? STATUS_DONE : STATUS_FAILED;
}
