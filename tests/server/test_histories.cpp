// SPDX-License-Identifier: MIT
// Random histories of clients and devices, played on the server and on the model.
//   PFB_HISTORY=config:seed       plays one history (a negative seed: one that may end in an abort)
//   PFB_HISTORY_SECONDS=n         plays for n seconds per configuration, from a new seed
//   PFB_HISTORY_COMMANDS=n        plays at least n commands per configuration, instead of 20000
//   PFB_HISTORY_SEED=n            starts from another seed
//   PFB_HISTORY_SHRINK=0          reports a history that goes wrong as it is
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "../support/history/history.h"

namespace {

constexpr int COMMANDS = 20000; // at least, in each configuration
constexpr int LENGTH = 250;     // of one history
constexpr int ABORT_EVERY = 6;  // histories of which one may end in an abort
constexpr int MAY_ABORT = 1000; // its length at most

class Histories : public testing::TestWithParam<Config> {};

long environment_number(const char *name, long otherwise)
{
    const char *value = getenv(name);
    return value ? strtol(value, nullptr, 0) : otherwise;
}

History planned(const Config &config, long seed)
{
    uint64_t number = static_cast<uint64_t>(labs(seed)) * 1000003u;
    for (const char *c = config.name; *c; c++)
        number = number * 31 + static_cast<uint64_t>(*c);
    return history_plan(config, number, seed < 0 ? MAY_ABORT : LENGTH, seed < 0);
}

size_t play(const Config &config, long seed)
{
    History history = planned(config, seed);
    std::string wrong = history_play(config, history);
    if (!wrong.empty()) {
        bool shrinks = environment_number("PFB_HISTORY_SHRINK", 1) != 0;
        History shortest = shrinks ? history_shrink(config, history) : history;
        ADD_FAILURE() << "PFB_HISTORY=" << config.name << ":" << seed << "\n"
                      << wrong << "shortest form:\n"
                      << history_text(shortest) << history_play(config, shortest);
    }
    return history.size();
}

bool is_config(const std::string &name)
{
    for (const Config &config : history_configs()) {
        if (name == config.name)
            return true;
    }
    return false;
}

TEST_P(Histories, ServerDoesWhatTheModelDoes)
{
    const Config &config = GetParam();
    const char *one = getenv("PFB_HISTORY");
    if (one) {
        std::string wanted = one;
        size_t colon = wanted.rfind(':');
        ASSERT_NE(colon, std::string::npos) << "PFB_HISTORY=config:seed";
        std::string name = wanted.substr(0, colon);
        ASSERT_TRUE(is_config(name)) << name << " is no configuration";
        if (name == config.name)
            play(config, strtol(wanted.c_str() + colon + 1, nullptr, 0));
        return;
    }
    long seconds = environment_number("PFB_HISTORY_SECONDS", 0);
    long first = environment_number("PFB_HISTORY_SEED", seconds ? time(nullptr) * 10 : 1);
    time_t end = time(nullptr) + seconds;
    const auto wanted = static_cast<size_t>(environment_number("PFB_HISTORY_COMMANDS", COMMANDS));
    size_t played = 0;
    printf("%s: seeds from %ld\n", config.name, first);
    for (long i = 0; !HasFailure() && (seconds ? time(nullptr) < end : played < wanted); i++)
        played += play(config, i % ABORT_EVERY == ABORT_EVERY - 1 ? -(first + i) : first + i);
    printf("%s: %zu commands\n", config.name, played);
}

INSTANTIATE_TEST_SUITE_P(Outputs, Histories, testing::ValuesIn(history_configs()), [](const auto &info) {
    std::string name = info.param.name;
    for (char &c : name)
        c = c == '-' ? '_' : c;
    return name;
});

} // namespace
