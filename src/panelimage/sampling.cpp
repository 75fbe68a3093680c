// SPDX-License-Identifier: MIT
#include "sampling.h"

#include <csignal>
#include <ctime>

namespace {

constexpr int64_t NANOSECONDS = 1000000000;
volatile sig_atomic_t stopped;

int64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NANOSECONDS + now.tv_nsec;
}

double seconds_since(int64_t begin)
{
    return static_cast<double>(now_ns() - begin) / NANOSECONDS;
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

} // namespace

double sampling_clock()
{
    return seconds_since(0);
}

bool sampling_run(Screen *screen, const SamplingPlan &plan, const std::function<void(const Sample &)> &each,
                  double *elapsed)
{
    catch_signals();
    const int64_t begin = now_ns(), end = begin + static_cast<int64_t>(plan.seconds * NANOSECONDS);
    const int64_t period = NANOSECONDS / plan.rate;
    std::vector<uint8_t> before, now;
    screen_copy(*screen, &before);
    for (int64_t due = begin + period; due <= end && !stopped; due += period) {
        wait_until(due);
        if (!screen_refresh(screen))
            return false;
        screen_copy(*screen, &now);
        each({before, now, seconds_since(begin)});
        now.swap(before);
        const int64_t late = now_ns() - due;
        due += late / period * period;
    }
    *elapsed = seconds_since(begin);
    return true;
}
