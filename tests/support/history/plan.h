// SPDX-License-Identifier: MIT
// What a history that is being planned has come to.
#pragma once

#include "history.h"

struct Planner {
    const Config &config;
    Random random;
    model::Model m; // without pixels
    History history;
    int next_client = 1, next_object = 1;
    std::vector<std::pair<int, uint32_t>> objects; // number and size
    model::ClientMemory no_memory;
};

// A rectangle near the screen, as origin and size.
std::vector<model::Argument> plan_rectangle(Planner &p);
Action plan_connect(Planner &p);
Action plan_create(Planner &p, int client);
Action plan_scale(Planner &p, int client);
// Any request but "create".
Action plan_request(Planner &p, int client);
