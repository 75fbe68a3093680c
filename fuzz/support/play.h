// SPDX-License-Identifier: MIT
// Bytes as a session: several clients, the main loop and the devices, on the server in this process. What stands under
// the server and who judges it differs by the target.
#pragma once

#include <map>

#include "../../src/composite/composite.h"
#include "decode.h"
#include "fuzz.h"
#include "mc.h"

struct Stage {
    bool hostile; // the decoder brings troubles and anything odd
    // Sets up the outputs and starts the server (fs). False when it has refused its command line.
    bool (*start)(const Decoder &d);
    // Takes the outputs down, which the server has left by now. `whole`: no assertion has ended it.
    void (*end)(bool whole);
    void (*toggle)(int device); // its next openings fail, or work again
    void (*describe)(int device, const DeviceForm &form);
    // Before and after each action. `object` is the name of the action's object.
    void (*expect)(const Action &a, const std::string &object);
    void (*compare)(const Action &a, const model::Reply &reply);
    // The assertion that has failed instead.
    void (*judge)(const Action &a, const FailedAssertion &failed);
    // After a status dump.
    void (*compare_status)();
    // That the outputs' memory is unharmed.
    void (*check)();
};

// PFB_FUZZ_PRINT=1: print what the clients do.
bool fuzz_prints();
// True when this action can make this assertion fail, which is known by expression, file and function. The surface that
// the action is about, or null, is told before.
void abort_before(const ImageSurface *surface);
bool may_abort(const Action &a, const FailedAssertion &failed);

void session_play(const uint8_t *data, size_t size, const Stage &stage);
