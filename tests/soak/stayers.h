// SPDX-License-Identifier: MIT
// Those who stay while the others come and go.
#pragma once

#include <memory>
#include <vector>

#include "../support/test_client.h"
#include "soak.h"

// Holds the lowest surfaces of the stack: a few that clients may select, and below the others some more, in case that
// clients select a place in the stack while those are made again.
class Keeper {
public:
    explicit Keeper(int32_t rotation) { make(rotation); }
    // Makes all surfaces again for another turn of the display.
    void make(int32_t rotation);
    // In a forked process: its copies of the connections must not outlive those of the process that has made them.
    void let_go();
    // Everything that clients sent before has been handled.
    void settle() { surfaces_.front()->settle(); }
    // A surface of the present turn comes and goes: turns that clients have left behind end with it.
    void settle_turn(int32_t rotation);

private:
    std::vector<std::unique_ptr<TestClient>> surfaces_;
};
