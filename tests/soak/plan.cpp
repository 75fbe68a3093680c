// SPDX-License-Identifier: MIT
#include "soak.h"

#include <gtest/gtest.h>

#include <csignal>
#include <iterator>
#include <stdexcept>
#include <unistd.h>

namespace {

constexpr uint32_t SEASON = 600; // clients that expect the display to be turned in the same way
constexpr int32_t SEASONS[] = {0, 0, 90, 0, 0, 270};

struct Share {
    Kind kind;
    int percent;
};

constexpr Share SHARES[] = {
    {Kind::LIBRARY, 36}, {Kind::WORDS, 30},  {Kind::SELECTING, 6}, {Kind::TRUNCATING, 8}, {Kind::LOCKING, 5},
    {Kind::DEAF, 3},     {Kind::STOPPED, 4}, {Kind::NONSENSE, 6},  {Kind::TURNING, 2},
};

Kind plan_kind(Random &random, uint32_t number)
{
    if (number % 10 == 3 && number / 10 < LEAVING_CLIENTS)
        return Kind::LEAVING;
    int left = between(random, 1, 100);
    for (const Share &share : SHARES) {
        left -= share.percent;
        if (left <= 0)
            return share.kind;
    }
    return Kind::WORDS;
}

std::string plan_name(Random &random, uint32_t number)
{
    static const char *const names[] = {"fb.soak", "menu", "fb2.soak", "fb2.pane", "fb.pane", "x.soak", "..fb.soak"};
    const std::string name = names[between(random, 0, 6)];
    if (chance(random, 3))
        return name + "." + std::string(200, 'n');
    if (chance(random, 2))
        return chance(random, 50) ? "" : "...";
    return name + "." + std::to_string(number % 50);
}

int32_t plan_size(Random &random, int32_t whole)
{
    return chance(random, 15) ? whole : between(random, 1, whole / 2);
}

// Whom the parent may kill at any moment.
bool may_be_killed(Kind kind)
{
    return kind != Kind::LEAVING && kind != Kind::DEAF && kind != Kind::NONSENSE;
}

void plan_end(Plan &plan)
{
    plan.dies_at = plan.killed_after_ms = -1;
    if (plan.kind == Kind::STOPPED)
        plan.killed_after_ms = between(plan.random, 100, 600);
    else if (may_be_killed(plan.kind) && chance(plan.random, 20))
        plan.killed_after_ms = between(plan.random, 1, 800);
    else if (may_be_killed(plan.kind) && chance(plan.random, 20))
        plan.dies_at = between(plan.random, 0, plan.steps);
}

} // namespace

Plan plan_client(uint32_t seed, uint32_t number)
{
    std::seed_seq sequence{seed, number};
    Random random(sequence);
    static constexpr int32_t DEPTHS[] = {32, 32, 16, 18};
    Plan plan{};
    plan.number = number;
    plan.kind = plan_kind(random, number);
    plan.name = plan_name(random, number);
    plan.width = plan_size(random, PANEL_WIDTH);
    plan.height = plan_size(random, PANEL_HEIGHT);
    plan.x = between(random, -40, PANEL_WIDTH);
    plan.y = between(random, -40, PANEL_HEIGHT);
    plan.depth = DEPTHS[between(random, 0, 3)];
    plan.alpha = chance(random, 50);
    plan.level = between(random, -5, 5);
    plan.rotation = SEASONS[number / SEASON % std::size(SEASONS)];
    plan.steps = between(random, 3, 40);
    plan.pause_ms = chance(random, 20) ? 0 : between(random, 1, 60);
    plan.random = random;
    plan_end(plan);
    return plan;
}

const char *kind_name(Kind kind)
{
    static const char *const names[] = {"library", "words",   "selecting", "truncating", "locking",
                                        "deaf",    "stopped", "nonsense",  "turning",    "leaving"};
    return names[static_cast<int>(kind)];
}

void client_pause(Plan &plan, int32_t step)
{
    if (step == plan.dies_at)
        kill(getpid(), SIGKILL);
    if (plan.pause_ms > 0)
        usleep(static_cast<useconds_t>(between(plan.random, 0, plan.pause_ms * 1000)));
    if (testing::Test::HasFailure())
        throw std::runtime_error("goes on"); // each further answer that does not come would take its time
}

void client_run(Plan &plan, Shared *shared, const std::string &socket_path)
{
    static constexpr void (*RUN[])(Plan &, Shared *) = {
        client_library, client_words,   client_selecting, client_truncating, client_locking,
        nullptr,        client_stopped, nullptr,          client_turning,    client_leaving};
    if (plan.kind == Kind::DEAF)
        client_deaf(plan, shared, socket_path);
    else if (plan.kind == Kind::NONSENSE)
        client_nonsense(plan, shared, socket_path);
    else
        RUN[static_cast<int>(plan.kind)](plan, shared);
}
