// SPDX-License-Identifier: MIT
#include "commands.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "../panelimage/message.h"
#include "../panelimage/options.h"

namespace {

constexpr double DEFAULT_SECONDS = 5;
constexpr int DEFAULT_RATE = 200;
constexpr int RATE_MAX = 10000;
constexpr int64_t NANOSECONDS = 1000000000;

double seconds = DEFAULT_SECONDS;
int rate = DEFAULT_RATE;
volatile sig_atomic_t stopped;

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
    double elapsed; // seconds
};

int64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NANOSECONDS + now.tv_nsec;
}

// Comes back early when a signal has come in.
void wait_until(int64_t when)
{
    const timespec time = {static_cast<time_t>(when / NANOSECONDS), static_cast<long>(when % NANOSECONDS)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
}

void stop(int)
{
    stopped = 1;
}

void catch_signals()
{
    struct sigaction action = {};
    action.sa_handler = stop;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// Samples that the machine was too slow for are left out, not made up for.
bool sample(Screen *screen, Counts *counts)
{
    const int64_t begin = now_ns(), end = begin + static_cast<int64_t>(seconds * NANOSECONDS);
    const int64_t period = NANOSECONDS / rate;
    std::vector<uint8_t> before, now;
    screen_copy(*screen, &before);
    for (int64_t due = begin + period; due <= end && !stopped; due += period) {
        wait_until(due);
        if (!screen_refresh(screen))
            return false;
        screen_copy(*screen, &now);
        counts->samples++;
        if (now != before) {
            counts->changed++;
            now.swap(before);
        }
        const int64_t late = now_ns() - due;
        due += late / period * period;
    }
    counts->elapsed = static_cast<double>(now_ns() - begin) / NANOSECONDS;
    return true;
}

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
    catch_signals();
    Counts counts = {};
    const bool sampled = sample(&screen, &counts);
    screen_close(&screen);
    if (!sampled)
        return STATUS_FAILED;
    printf("%lu samples in %.2f s, %lu changed: %.1f frames that changed per second\n", counts.samples, counts.elapsed,
           counts.changed, counts.elapsed > 0 ? static_cast<double>(counts.changed) / counts.elapsed : 0);
    return STATUS_DONE;
}
