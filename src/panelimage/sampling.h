// SPDX-License-Identifier: MIT
// Looking at a screen again and again.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "screen.h"

struct Sample {
    const std::vector<uint8_t> &before; // rows as screen_copy gives them, of the sample before
    const std::vector<uint8_t> &now;
    double time; // seconds since the first look
};

struct SamplingPlan {
    double seconds; // how long
    int rate;       // samples per second, at least 1
};

// Seconds of the monotonic clock.
double sampling_clock();

// Calls `each` for every sample but the first look. Samples that the machine was too slow for are left out, not made up
// for. SIGINT and SIGTERM end it early. `elapsed` gets the seconds. False after a message: the screen cannot be read.
bool sampling_run(Screen *screen, const SamplingPlan &plan, const std::function<void(const Sample &)> &each,
                  double *elapsed);
