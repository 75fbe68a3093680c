// SPDX-License-Identifier: MIT
// The clients that run at a time: started by number, killed when their plan says so, buried.
#pragma once

#include <chrono>
#include <ctime>
#include <vector>

#include "soak.h"

struct RunningClient {
    pid_t pid;
    time_t born;
    Plan plan;
    std::chrono::steady_clock::time_point started;
};

struct DeadClient {
    pid_t pid;
    time_t born;
    bool killed;
};

struct Population {
    uint32_t seed;
    Shared *shared;
    std::string socket_path;
    std::function<void()> in_child; // what each client's process does first
    uint32_t next_number = 0;
    uint64_t served = 0; // have gone
    std::vector<RunningClient> running;
    std::vector<DeadClient> dead; // names of memory that they left may still be there
};

void population_start_next(Population &population);
// Kills those whose time has come and buries the dead. One that neither ends nor is killed is a fault.
void population_tend(Population &population);
// Kills all who may be killed and waits for the others.
void population_end(Population &population);
// Kills everybody, for when all is lost.
void population_kill(Population &population);
// Names of memory that clients of this population have, or have left, in /dev/shm.
std::vector<std::string> population_memory_names(const Population &population);
// Removes the names that the killed have left; any other client's is a fault: the server takes the name of what it
// opens. Everything that they sent must have been handled: the server ends over a name that is not there any more.
void population_clean(Population &population);
