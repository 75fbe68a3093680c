// SPDX-License-Identifier: MIT
#include "population.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// No plan takes so long, beside much other work neither.
constexpr int LONGEST_LIFE_SECONDS = 20 * WAIT_SECONDS;

bool may_be_killed(const RunningClient &client)
{
    return client.plan.killed_after_ms >= 0;
}

bool is_due(const RunningClient &client)
{
    const auto age = std::chrono::steady_clock::now() - client.started;
    return may_be_killed(client) && age >= std::chrono::milliseconds(client.plan.killed_after_ms);
}

bool is_too_old(const RunningClient &client)
{
    return std::chrono::steady_clock::now() - client.started > std::chrono::seconds(LONGEST_LIFE_SECONDS);
}

// An end by SIGKILL is in many plans; any other signal is in none.
void bury(Population &population, const RunningClient &client, int status)
{
    if (WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL)
        shared_fault(population.shared, "client " + std::to_string(client.plan.number) + " died of signal " +
                                            std::to_string(WTERMSIG(status)));
    population.dead.push_back({client.pid, client.born, WIFSIGNALED(status)});
    population.served++;
}

// The process of whose memory this is a name, or 0: libpfb's "pfb.PID.NUMBER", and the test clients' PREFIX-PID-NUMBER.
pid_t owner_of(const std::string &name)
{
    const std::string prefix = shared_memory_prefix().substr(1);
    if (name.rfind("pfb.", 0) == 0)
        return static_cast<pid_t>(strtol(name.c_str() + 4, nullptr, 10));
    if (name.rfind(prefix, 0) == 0)
        return static_cast<pid_t>(strtol(name.c_str() + prefix.size(), nullptr, 10));
    return 0;
}

// Process ids come again: an older file of that name was left by somebody else, in another soak or test.
bool is_of(const std::string &name, pid_t pid, time_t born)
{
    struct stat file {};
    return owner_of(name) == pid && stat(("/dev/shm/" + name).c_str(), &file) == 0 && file.st_ctime >= born;
}

const DeadClient *find_dead(const Population &population, const std::string &name)
{
    for (const DeadClient &client : population.dead) {
        if (is_of(name, client.pid, client.born))
            return &client;
    }
    return nullptr;
}

bool is_of_a_running_one(const Population &population, const std::string &name)
{
    const auto is_its = [&name](const RunningClient &client) { return is_of(name, client.pid, client.born); };
    return std::any_of(population.running.begin(), population.running.end(), is_its);
}

} // namespace

void population_start_next(Population &population)
{
    RunningClient client{-1, time(nullptr), plan_client(population.seed, population.next_number++),
                         std::chrono::steady_clock::now()};
    const std::string who = "client " + std::to_string(client.plan.number) + " (" + kind_name(client.plan.kind) + ")";
    client.pid = process_fork(population.shared, who, [&] {
        population.in_child();
        client_run(client.plan, population.shared, population.socket_path);
    });
    ASSERT_GT(client.pid, 0) << strerror(errno);
    population.running.push_back(client);
}

void population_tend(Population &population)
{
    for (size_t i = 0; i < population.running.size();) {
        const RunningClient &client = population.running[i];
        if (is_due(client))
            kill(client.pid, SIGKILL);
        if (is_too_old(client)) {
            shared_fault(population.shared, "client " + std::to_string(client.plan.number) + " (" +
                                                kind_name(client.plan.kind) + ") does not end");
            kill(client.pid, SIGKILL);
        }
        int status = 0;
        if (waitpid(client.pid, &status, WNOHANG) != client.pid) {
            i++;
            continue;
        }
        bury(population, client, status);
        population.running.erase(population.running.begin() + static_cast<long>(i));
    }
}

void population_end(Population &population)
{
    while (!population.running.empty() && population.shared->n_faults == 0) {
        for (RunningClient &client : population.running)
            client.started -= may_be_killed(client) ? std::chrono::seconds(1) : std::chrono::seconds(0);
        population_tend(population);
        usleep(1000);
    }
}

void population_kill(Population &population)
{
    for (const RunningClient &client : population.running) {
        kill(client.pid, SIGKILL);
        waitpid(client.pid, nullptr, 0);
        population.dead.push_back({client.pid, client.born, true});
    }
    population.running.clear();
}

std::vector<std::string> population_memory_names(const Population &population)
{
    std::vector<std::string> names;
    for (const std::string &name : folder_entries("/dev/shm")) {
        if (find_dead(population, name) != nullptr || is_of_a_running_one(population, name))
            names.push_back(name);
    }
    return names;
}

void population_clean(Population &population)
{
    for (const std::string &name : population_memory_names(population)) {
        const DeadClient *owner = find_dead(population, name);
        if (owner == nullptr || is_of_a_running_one(population, name))
            continue;
        if (!owner->killed)
            shared_fault(population.shared, name + " is still there");
        shm_unlink(("/" + name).c_str());
    }
    population.dead.clear();
}
