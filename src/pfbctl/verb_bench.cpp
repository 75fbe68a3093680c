// SPDX-License-Identifier: MIT
#include "verbs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "../panelimage/message.h"
#include "../panelimage/options.h"
#include "../panelimage/sampling.h"
#include "connect.h"
#include "hold.h"
#include "pixels.h"
#include "surface.h"
#include "values.h"

namespace {

constexpr double DEFAULT_SECONDS = 3, PATIENCE_SECONDS = 5;
// All bits of the two change, in every format.
constexpr uint32_t COLOURS[2] = {0x000000, 0xffffff};

char *size_text, *format_text;
ScreenOptions &panel = screen_options;

const GOptionEntry ENTRIES[] = {
    {"size", 's', 0, G_OPTION_ARG_STRING, &size_text, "Size of the frames (320x200)", "WxH"},
    {"format", 'F', 0, G_OPTION_ARG_STRING, &format_text, "rgb16, rgb18, xrgb32 or argb32 (xrgb32)", "FORMAT"},
    {"panel", 0, 0, G_OPTION_ARG_FILENAME, &panel.panel, "The panel in this folder", "DIR"},
    {"fb", 0, 0, G_OPTION_ARG_FILENAME, &panel.fb, "A framebuffer device", "DEVICE"},
    SURFACE_OPTION_ENTRIES,
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "",
    "Measures how fast frames reach the panel: draws a frame under the lock, waits until the panel's memory shows it,\n"
    "draws the next one, for 3 seconds or --for. It has to be the topmost surface, and may be disturbed by others "
    "that\n"
    "change the same part of the screen.",
    "A display that is turned otherwise than --rotation says is turned, for everybody: say what the device uses.",
    false,
};

struct Format {
    const char *name;
    enum pfb_format format;
};

constexpr Format FORMATS[] = {
    {"xrgb32", PFB_FORMAT_XRGB32},
    {"argb32", PFB_FORMAT_ARGB32},
    {"rgb16", PFB_FORMAT_RGB16},
    {"rgb18", PFB_FORMAT_RGB18},
};

const Format *find_format(const char *name)
{
    for (const Format &format : FORMATS) {
        if (name == nullptr || strcmp(format.name, name) == 0)
            return &format;
    }
    complain("--format: %s is none of xrgb32, argb32, rgb16, rgb18", name);
    return nullptr;
}

// Two bytes of the panel's rows in which the two colours differ: the first and the last one that a frame changes.
struct Probe {
    size_t at[2];
    uint8_t value[2][2]; // by colour, by place
};

struct Bench {
    pfb_client *client;
    Screen *screen;
    const Format *format;
    Probe probe;
    double unlocked;           // when the last frame was given to the server, by sampling_clock
    std::vector<double> times; // seconds from unlock to panel, a frame each
};

bool draw(Bench *bench, int colour)
{
    pfb_client *client = bench->client;
    if (pfb_lock(client, 0, 0, pfb_width(client), pfb_height(client)) != PFB_OK)
        return false;
    pixels_fill(client, bench->format->format, pixels_word(bench->format->format, COLOURS[colour]));
    bench->unlocked = sampling_clock(); // before: the server may have drawn when the call returns
    return pfb_unlock(client) == PFB_OK;
}

void sleep_a_little()
{
    const timespec time = {0, 20000};
    nanosleep(&time, nullptr);
}

// The rows' bytes as they stand in the panel's memory.
uint8_t byte_at(const Screen &screen, size_t at)
{
    const size_t row = screen_row_bytes(screen);
    const size_t offset = (at / row + screen.var.yoffset) * screen.stride +
                          size_t{screen.var.xoffset} * screen_pixel_bytes(screen) + at % row;
    return offset < screen.size ? static_cast<const volatile uint8_t *>(screen.memory)[offset] : uint8_t{0};
}

bool shows(const Bench &bench, int colour)
{
    const Probe &probe = bench.probe;
    return byte_at(*bench.screen, probe.at[0]) == probe.value[colour][0] &&
           byte_at(*bench.screen, probe.at[1]) == probe.value[colour][1];
}

// False when the panel does not show it in time.
bool wait_for(const Bench &bench, int colour)
{
    const double end = sampling_clock() + PATIENCE_SECONDS;
    while (!shows(bench, colour)) {
        if (sampling_clock() > end)
            return false;
        sleep_a_little();
    }
    return true;
}

// Draws a colour and waits until the panel is another than `before` and rests.
bool settle(Bench *bench, int colour, const std::vector<uint8_t> &before, std::vector<uint8_t> *rows)
{
    std::vector<uint8_t> last;
    const double end = sampling_clock() + PATIENCE_SECONDS;
    if (!draw(bench, colour))
        return false;
    do {
        last.swap(*rows);
        const timespec time = {0, 50000000};
        nanosleep(&time, nullptr);
        screen_copy(*bench->screen, rows);
    } while ((*rows != last || *rows == before) && sampling_clock() < end);
    return true;
}

enum class Found { YES, NOTHING_SEEN, FAILED };

Found find_probe(Bench *bench)
{
    std::vector<uint8_t> rows[2];
    if (!settle(bench, 0, {}, &rows[0]) || !settle(bench, 1, rows[0], &rows[1]))
        return Found::FAILED;
    const auto first = std::mismatch(rows[0].begin(), rows[0].end(), rows[1].begin());
    const auto last = std::mismatch(rows[0].rbegin(), rows[0].rend(), rows[1].rbegin());
    if (first.first == rows[0].end())
        return Found::NOTHING_SEEN;
    bench->probe.at[0] = static_cast<size_t>(first.first - rows[0].begin());
    bench->probe.at[1] = static_cast<size_t>(rows[0].rend() - last.first) - 1;
    for (const int colour : {0, 1}) {
        for (const int place : {0, 1})
            bench->probe.value[colour][place] = rows[colour][bench->probe.at[place]];
    }
    return Found::YES;
}

// False after a message.
bool measure(Bench *bench, double seconds)
{
    const double begin = sampling_clock();
    for (int colour = 0; sampling_clock() - begin < seconds && !hold_is_told_to_end(); colour = 1 - colour) {
        if (!draw(bench, colour)) {
            connect_complain();
            return false;
        }
        if (!wait_for(*bench, colour)) {
            complain("a frame has not reached the panel within %.0f seconds", PATIENCE_SECONDS);
            return false;
        }
        bench->times.push_back(sampling_clock() - bench->unlocked);
    }
    return true;
}

double part(const std::vector<double> &sorted, double share)
{
    return sorted[static_cast<size_t>(share * static_cast<double>(sorted.size() - 1))] * 1000;
}

void print(Bench *bench, double elapsed)
{
    std::vector<double> &times = bench->times;
    const double frames = static_cast<double>(times.size());
    const int width = pfb_width(bench->client), height = pfb_height(bench->client);
    printf("%d x %d %s on %u bits: %zu frames in %.2f s: %.1f frames per second, %.1f Mpixel per second\n", width,
           height, bench->format->name, bench->screen->var.bits_per_pixel, times.size(), elapsed, frames / elapsed,
           frames * width * height / elapsed / 1e6);
    std::sort(times.begin(), times.end());
    if (!times.empty())
        printf("from unlock to panel: median %.2f ms, 95 %% within %.2f ms, longest %.2f ms\n", part(times, 0.5),
               part(times, 0.95), part(times, 1));
}

int run(Bench *bench)
{
    if (pfb_show(bench->client) != PFB_OK)
        return connect_complain();
    const Found found = find_probe(bench);
    if (found == Found::FAILED)
        return connect_complain();
    if (found == Found::NOTHING_SEEN) {
        complain("%s shows nothing of the frames: is it this server's panel, and is the surface the topmost one there?",
                 bench->screen->title.c_str());
        return STATUS_FAILED;
    }
    const double begin = sampling_clock();
    const double seconds = surface_options.seconds > 0 ? surface_options.seconds : DEFAULT_SECONDS;
    const bool measured = measure(bench, seconds);
    if (measured)
        print(bench, sampling_clock() - begin);
    return measured ? STATUS_DONE : STATUS_FAILED;
}

int run_on(Screen *screen, const Format *format, int width, int height)
{
    int status = STATUS_FAILED;
    pfb_client *client = surface_open(
        {format->format, width, height, nullptr}, [](pfb_client *) { return true; }, &status);
    if (client == nullptr)
        return status;
    Bench bench = {client, screen, format, {}, 0, {}};
    status = run(&bench);
    pfb_disconnect(client);
    return status;
}

} // namespace

int verb_bench(int argc, char **argv)
{
    ScreenChoice choice;
    surface_options.level = 1000;
    if (!surface_parse(TEXT, ENTRIES, &argc, &argv) || !options_screen(&choice))
        return STATUS_USAGE;
    const Format *format = find_format(format_text);
    int width = 320, height = 200;
    if (format == nullptr || (size_text != nullptr && !value_size("--size", size_text, &width, &height)))
        return STATUS_USAGE;
    if (argc > 1) {
        complain("bench takes no words (see --help)");
        return STATUS_USAGE;
    }
    Screen screen;
    if (!screen_open(choice, &screen))
        return STATUS_FAILED;
    const int status = run_on(&screen, format, width, height);
    screen_close(&screen);
    return status;
}
