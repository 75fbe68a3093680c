// SPDX-License-Identifier: MIT
// Bytes as a history: the devices and the server's size first, then actions. Values that mean something are frequent
// and any others possible, so that a changed byte is mostly another history of some interest.
#pragma once

#include "../../tests/support/history/history.h"
#include "mc.h"
#include "fuzz.h"

struct Decoder {
    static constexpr int SLOTS = 4; // clients at the same time

    FuzzInput in;
    Config config;
    struct {
        int client;   // 0: none
        int32_t w, h; // of its last surface
    } slots[SLOTS];
    int next_client, next_object;
    struct Object {
        int number;
        uint32_t size; // bytes
    };
    std::vector<Object> objects;
    struct {
        int client, left; // reports of damage that are still to come
        int32_t w, h;     // all over this surface
        Random random;
    } burst;
};

Decoder decode_start(FuzzInput in);
Action decode_action(Decoder &d);
