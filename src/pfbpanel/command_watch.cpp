// SPDX-License-Identifier: MIT
#include "commands.h"

#include <cstdio>

#include "../panelimage/message.h"
#include "../panelimage/options.h"
#include "../panelimage/sampling.h"

namespace {

constexpr double DEFAULT_SECONDS = 5;
constexpr int DEFAULT_RATE = 200;
constexpr int RATE_MAX = 10000;

double seconds = DEFAULT_SECONDS;
int rate = DEFAULT_RATE;

const GOptionEntry ENTRIES[] = {
    SCREEN_OPTION_ENTRIES,
    {"seconds", 's', 0, G_OPTION_ARG_DOUBLE, &seconds, "How long (5)", "N"},
    {"rate", 'r', 0, G_OPTION_ARG_INT, &rate, "Samples per second (200)", "N"},
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "",
    "Counts how often a panel's picture changes: samples what is shown and compares each sample with the one before.\n"
    "SIGINT and SIGTERM end it early, with the counts so far.",
    "Changes that fall between the same two samples count once, and a sample taken in the midst of drawing counts as\n"
    "a change of its own.",
    false,
};

struct Counts {
    unsigned long samples;
    unsigned long changed;
};

} // namespace

int command_watch(int argc, char **argv)
{
    ScreenChoice choice;
    if (!options_parse(TEXT, ENTRIES, &argc, &argv) || !options_screen(&choice))
        return STATUS_USAGE;
    if (argc > 1 || !(seconds > 0 && seconds <= 1e6) || rate < 1 || rate > RATE_MAX) {
        complain("watch takes up to a million --seconds, a --rate of 1 to %d, and nothing else (see --help)", RATE_MAX);
        return STATUS_USAGE;
    }
    Screen screen;
    if (!screen_open(choice, &screen))
        return STATUS_FAILED;
    Counts counts = {};
    double elapsed = 0;
    const auto count = [&counts](const Sample &sample) {
        counts.samples++;
        counts.changed += sample.now != sample.before;
    };
    const bool sampled = sampling_run(&screen, {seconds, rate}, count, &elapsed);
    screen_close(&screen);
    if (!sampled)
        return STATUS_FAILED;
    printf("%lu samples in %.2f s, %lu changed: %.1f frames that changed per second\n", counts.samples, elapsed,
           counts.changed, elapsed > 0 ? static_cast<double>(counts.changed) / elapsed : 0);
    return STATUS_DONE;
}
