// SPDX-License-Identifier: MIT
// Clients that go, stop or cut their memory at a bad moment.
#include "word_client.h"

#include <csignal>
#include <unistd.h>

// Its memory becomes shorter, and longer again, while the server draws from it.
void client_truncating(Plan &plan, Shared *shared)
{
    WordClient c(plan, shared);
    c.create_and_show();
    const auto size = static_cast<int32_t>(c.wire.memory_size());
    for (int32_t i = 0; i < plan.steps; i++) {
        client_pause(plan, i);
        c.wire.cut_memory(static_cast<size_t>(chance(plan.random, 30) ? 0 : between(plan.random, 0, size)));
        c.send("dirty", {0, 0, plan.width, plan.height});
        if (chance(plan.random, 30))
            c.send("move", {between(plan.random, 0, PANEL_WIDTH), plan.y});
        if (chance(plan.random, 20))
            c.send("set_scale", {0, 0, plan.width, plan.height, plan.x, plan.y, plan.width * 2, plan.height});
    }
}

void client_locking(Plan &plan, Shared *shared)
{
    WordClient c(plan, shared);
    c.create_and_show();
    const int n = between(plan.random, 1, 4);
    for (int i = 0; i < n; i++) {
        client_pause(plan, i);
        c.lock();
    }
    if (chance(plan.random, 50))
        c.wire.hang_up();
}

// As long as others can bear a lock.
void client_stopped(Plan &plan, Shared *shared)
{
    WordClient c(plan, shared);
    c.create_and_show();
    if (chance(plan.random, 30))
        c.lock();
    raise(SIGSTOP); // until it is killed
}

void client_turning(Plan &plan, Shared *shared)
{
    static constexpr int32_t TURNS[] = {0, 90, 270};
    plan.rotation = TURNS[between(plan.random, 0, 2)];
    WordClient c(plan, shared);
    c.create_and_show();
    c.ask();
    client_pause(plan, 0);
    if (chance(plan.random, 50))
        c.send("hide");
    c.ask();
}

// A second surface, which leaves the first one without an owner (hidden: a shown one would hold the next turn for
// good); or a depth that no surface has, whose memory stays mapped.
void client_leaving(Plan &plan, Shared *shared)
{
    WordClient c(plan, shared);
    if (chance(plan.random, 50)) {
        plan.depth = 24;
        c.wire.create(planned_surface(plan));
        if (!wait_until([&] { return c.wire.memory_is_taken(); })) // its name must stay until then
            shared_fault(shared, "the name of a client's memory stays");
        c.shared->requests++;
        return;
    }
    c.create_and_show();
    c.send("set_scale", {0, 0, plan.width, plan.height, 0, 0, 30, 20});
    c.send("hide");
    c.ask();
    c.create_and_show();
    c.ask();
}
