// SPDX-License-Identifier: MIT
// Random tests that can be repeated. Each case has its own generator, seeded by the run's seed and the case's number.
//   PFB_TEST_SEED=n    the seed (otherwise the clock's; it is printed)
//   PFB_TEST_CASE=n    runs that one case
//   PFB_TEST_CASES=n   runs so many
// A case that fails or dies by a memory trap says how to repeat it.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

namespace random_cases {

using Random = std::mt19937;

// low..high, both included.
inline int32_t between(Random &random, int32_t low, int32_t high)
{
    return std::uniform_int_distribution<int32_t>(low, high)(random);
}

inline uint32_t setting(const char *name, uint32_t otherwise)
{
    const char *text = getenv(name);
    return text == nullptr ? otherwise : static_cast<uint32_t>(strtoul(text, nullptr, 10));
}

inline uint32_t seed()
{
    static const uint32_t value =
        setting("PFB_TEST_SEED", static_cast<uint32_t>(std::chrono::system_clock::now().time_since_epoch().count()));
    return value;
}

inline char repeat_hint[128]; // of the running case, ready for a signal handler

// Says on a memory trap which case it was, then leaves the trap to whom it belonged (a sanitizer reports it).
class TrapReport {
public:
    TrapReport()
    {
        struct sigaction action = {};
        action.sa_handler = [](int signo) {
            const size_t n = std::char_traits<char>::length(repeat_hint);
            [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, repeat_hint, n);
            sigaction(signo, &previous, nullptr); // the access is tried again
        };
        sigaction(SIGSEGV, &action, &previous);
    }
    ~TrapReport() { sigaction(SIGSEGV, &previous, nullptr); }
    TrapReport(const TrapReport &) = delete;
    TrapReport &operator=(const TrapReport &) = delete;

private:
    static inline struct sigaction previous;
};

// Runs body(random) for each case, until one fails.
template <typename Body> void run(uint32_t count, Body body)
{
    printf("PFB_TEST_SEED=%u\n", seed());
    fflush(stdout);
    uint32_t number = setting("PFB_TEST_CASE", 0);
    const uint32_t end = getenv("PFB_TEST_CASE") ? number + 1 : setting("PFB_TEST_CASES", count);
    const TrapReport report;
    for (; number < end && !testing::Test::HasFailure(); number++) {
        snprintf(repeat_hint, sizeof repeat_hint, "repeat with PFB_TEST_SEED=%u PFB_TEST_CASE=%u\n", seed(), number);
        SCOPED_TRACE(repeat_hint);
        std::seed_seq sequence{seed(), number};
        Random random(sequence);
        body(random);
    }
}

} // namespace random_cases
