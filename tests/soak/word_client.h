// SPDX-License-Identifier: MIT
// A client that sends words of the protocol itself, and counts them.
#pragma once

#include "../support/test_client.h"
#include "soak.h"

struct WordClient {
    WordClient(Plan &its_plan, Shared *its_shared) : plan(its_plan), shared(its_shared), wire(its_plan.name) {}

    void send(const char *word, std::initializer_list<int32_t> values = {})
    {
        wire.send(word, values);
        shared->requests++;
    }
    // The answer tells that everything before has been done.
    void ask()
    {
        wire.native_depth();
        shared->requests++;
    }
    void lock()
    {
        wire.lock(0, 0, plan.width, plan.height);
        shared->requests++;
    }
    // The plan's surface, shown.
    void create_and_show();

    Plan &plan;
    Shared *shared;
    TestClient wire;
    int32_t locks = 0;
};

SurfaceRequest planned_surface(const Plan &plan);
