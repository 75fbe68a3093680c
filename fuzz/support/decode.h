// SPDX-License-Identifier: MIT
// Bytes as a history: the devices and the server's size first, then actions. Values that mean something are frequent
// and any others possible, so that a changed byte is mostly another history of some interest.
#pragma once

#include <linux/fb.h>

#include "../../tests/support/history/history.h"
#include "fuzz.h"
#include "mc.h"
#include "system.h"

// How a device describes itself.
struct DeviceForm {
    fb_fix_screeninfo fix;
    fb_var_screeninfo var;
};

struct Decoder {
    static constexpr int SLOTS = 4; // clients at the same time

    FuzzInput in;
    bool hostile; // with troubles, odd devices and names, and any command line
    Config config;
    DeviceForm forms[2];            // of the devices
    bool other_names;               // the devices have the names that the server falls back to
    std::vector<std::string> words; // of the command line
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
        bool is_troubled; // there is no memory for them
        Random random;
    } burst;
    // Beside the last action: what goes wrong during it, who reads the log from now on, and which device (-1: none) is
    // another one from now on.
    Trouble trouble;
    Trouble other_trouble; // at the server's start, and of each hang-up at the end
    Readers readers;
    int described;
};

Decoder decode_start(FuzzInput in, bool hostile);
Action decode_action(Decoder &d);
