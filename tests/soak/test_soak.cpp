// SPDX-License-Identifier: MIT
// The real server and clients that come and go all the time: nothing of them may stay with it.
//   PFB_SOAK_SECONDS=n    for so long (otherwise until SHORT_RUN clients have gone); from GROWTH_SECONDS on, what grows
//                         in that time counts as well
//   PFB_SOAK_CLIENTS=n    so many at a time, instead of 20
//   PFB_TEST_SEED=n       plans of another seed; it is printed. A client's plan follows from it and the client's
//   number.
// Under the address sanitizer the server's quarantine of freed memory is small, so that what it holds says something,
// and its leaks are looked for when it ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>

#include "../support/running_server.h"
#include "population.h"
#include "stayers.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t FIRST_CLIENTS = 200; // allocators fill their stores, and what is left for good is left
constexpr uint32_t SHORT_RUN = 300;     // clients, after these
constexpr double LONGEST_INTERVAL = 10; // seconds between two samples
constexpr int TICK_US = 5000;
constexpr double CLEANING_INTERVAL = 1; // seconds

const char *const ADDRESS_SANITIZER = "detect_leaks=1:quarantine_size_mb=1:thread_local_quarantine_size_kb=64:"
                                      "malloc_context_size=8:allocator_release_to_os_interval_ms=1000";

struct Soak {
    explicit Soak(const ServerOptions &options) : server(options), keeper(0) {}

    RunningServer server;
    Shared *shared = nullptr;
    Keeper keeper;
    Population population{};
    pid_t bystander = -1;
    Clock::time_point started = Clock::now();
    std::vector<Sample> samples;
};

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void say(const std::string &line)
{
    printf("%s\n", line.c_str());
    fflush(stdout);
}

bool all_is_well(const Soak &soak)
{
    return soak.shared->n_faults == 0 && process_exists(soak.server.pid()) && !testing::Test::HasFailure();
}

Sample take_sample(Soak &soak)
{
    Sample sample{};
    sample.seconds = seconds_since(soak.started);
    sample.served = soak.population.served;
    sample.requests = soak.shared->requests;
    sample.frames = soak.shared->frames;
    sample_measure(&sample, soak.server.pid());
    sample.runtime_names = static_cast<long>(folder_entries(soak.server.folder()).size());
    sample.memory_names = static_cast<long>(population_memory_names(soak.population).size());
    say(sample_text(sample));
    return sample;
}

// What the server prints at clients' request is of no interest, and much in an hour.
void empty_its_output(const Soak &soak)
{
    EXPECT_EQ(truncate((soak.server.folder() + "/out").c_str(), 0), 0);
}

void start_bystander(Soak &soak)
{
    soak.bystander = process_fork(soak.shared, "the bystander", [&] {
        soak.keeper.let_go();
        bystander_run(soak.shared, soak.server.panel());
    });
    ASSERT_GT(soak.bystander, 0) << strerror(errno);
}

void stop_bystander(Soak &soak)
{
    soak.shared->bystander_ends = true;
    EXPECT_EQ(shell_status(program_wait(soak.bystander)), 0);
    soak.shared->bystander_ends = false;
    soak.bystander = -1;
}

// Outputs open a descriptor with their first surface and keep it: from then on none may be added.
void open_outputs(Soak &soak)
{
    TestClient second("fb2.first");
    second.create({.width = 10, .height = 10});
    second.send("show");
    EXPECT_EQ(second.native_depth(), 16);
    second.hang_up();
    soak.keeper.settle();
}

void turn(Soak &soak, int32_t rotation)
{
    soak.keeper.make(rotation);
    soak.shared->rotation = rotation;
}

void start_clients(Soak &soak, size_t at_a_time)
{
    while (soak.population.running.size() < at_a_time && !testing::Test::HasFatalFailure()) {
        const int32_t rotation = plan_client(soak.population.seed, soak.population.next_number).rotation;
        if (rotation != soak.shared->rotation)
            turn(soak, rotation);
        population_start_next(soak.population);
    }
}

void clean(Soak &soak)
{
    soak.keeper.settle();
    population_clean(soak.population);
}

struct Length {
    double seconds; // 0: counted in clients
    uint32_t clients;
};

struct Progress {
    Length length;
    Clock::time_point started;
    uint64_t served;

    double done(const Soak &soak) const
    {
        return length.seconds > 0 ? seconds_since(started) / length.seconds
                                  : static_cast<double>(soak.population.served - served) / length.clients;
    }
};

// Takes samples on the way.
void run(Soak &soak, const Length &length)
{
    const double step = length.seconds > 0 ? std::min(1.0 / 60, LONGEST_INTERVAL / length.seconds) : 1.0 / 8;
    const size_t at_a_time = random_cases::setting("PFB_SOAK_CLIENTS", 20);
    const Progress progress{length, Clock::now(), soak.population.served};
    double next_sample = step;
    Clock::time_point cleaned = Clock::now();
    start_bystander(soak);
    while (progress.done(soak) < 1 && all_is_well(soak) && !testing::Test::HasFatalFailure()) {
        start_clients(soak, at_a_time);
        population_tend(soak.population);
        if (seconds_since(cleaned) >= CLEANING_INTERVAL) {
            clean(soak);
            cleaned = Clock::now();
        }
        if (progress.done(soak) >= next_sample) {
            soak.samples.push_back(take_sample(soak));
            empty_its_output(soak);
            next_sample += step;
        }
        usleep(TICK_US);
    }
}

// Everybody but the keeper goes, and the display is turned back. What is found to be wrong ends it.
Sample come_to_rest(Soak &soak)
{
    population_end(soak.population);
    soak.shared->rotation = 0;
    if (all_is_well(soak))
        soak.keeper.make(0);
    if (all_is_well(soak))
        soak.keeper.settle_turn(0);
    EXPECT_TRUE(wait_until([&] { return soak.shared->bystanders == 0 || !all_is_well(soak); }));
    const uint64_t frames = soak.shared->frames;
    EXPECT_TRUE(wait_until([&] { return soak.shared->frames > frames || !all_is_well(soak); }))
        << "the picture stands still";
    if (!all_is_well(soak))
        return {};
    stop_bystander(soak);
    clean(soak);
    return take_sample(soak);
}

// The others' complaints would hide the first fault.
void give_up(Soak &soak)
{
    EXPECT_TRUE(process_exists(soak.server.pid())) << "the server has ended";
    EXPECT_EQ(soak.shared->n_faults, 0u) << soak.shared->fault;
    population_kill(soak.population);
    if (soak.bystander > 0) {
        kill(soak.bystander, SIGKILL);
        program_wait(soak.bystander);
    }
    population_clean(soak.population);
}

// As much as a report takes; an hour's log has megabytes.
std::string end_of(const std::string &text)
{
    constexpr size_t MUCH = 20000;
    return text.size() > MUCH ? text.substr(text.size() - MUCH) : text;
}

void print_plans(uint32_t clients, uint32_t seed)
{
    std::string kinds;
    for (uint32_t i = 0; i < clients; i++)
        kinds += std::string(" ") + kind_name(plan_client(seed, i).kind);
    say("the first clients:" + kinds);
}

} // namespace

TEST(Soak, ClientsThatComeAndGo)
{
    const Length length{static_cast<double>(random_cases::setting("PFB_SOAK_SECONDS", 0)), SHORT_RUN};
    const uint32_t seed = random_cases::seed();
    say("PFB_TEST_SEED=" + std::to_string(seed));
    print_plans(10, seed);
    say(std::string("the server's ASAN_OPTIONS: ") + ADDRESS_SANITIZER);
    Soak soak({.size = std::to_string(PANEL_WIDTH) + "x" + std::to_string(PANEL_HEIGHT),
               .panel = {"--layer2", std::to_string(PANEL_WIDTH) + "x" + std::to_string(PANEL_HEIGHT) + ":rgb565"},
               .environment = {{"ASAN_OPTIONS", ADDRESS_SANITIZER}}});
    soak.shared = shared_new();
    ASSERT_NE(soak.shared, nullptr);
    soak.population.seed = seed;
    soak.population.shared = soak.shared;
    soak.population.socket_path = soak.server.socket_path();
    soak.population.in_child = [&soak] { soak.keeper.let_go(); };
    open_outputs(soak);
    say(sample_heading());
    run(soak, {0, FIRST_CLIENTS});
    const Sample before = all_is_well(soak) ? come_to_rest(soak) : Sample{};
    if (all_is_well(soak)) {
        soak.samples.clear();
        run(soak, length);
    }
    const Sample after = all_is_well(soak) ? come_to_rest(soak) : Sample{};
    if (all_is_well(soak)) {
        EXPECT_EQ(verdict_left(before, after), "");
        if (length.seconds >= GROWTH_SECONDS) {
            say("medians of the second quarter and of the last one:\n" + medians_text(soak.samples, {}));
            EXPECT_EQ(verdict_growth(soak.samples, {}), "");
        }
    } else {
        give_up(soak);
    }
    EXPECT_GT(soak.shared->frames, 0u);
    EXPECT_EQ(soak.server.stop(SIGTERM), 0);
    EXPECT_EQ(sanitizer_report(soak.server.err()), "") << end_of(soak.server.err());
    shared_delete(soak.shared);
}
