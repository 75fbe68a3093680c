// SPDX-License-Identifier: MIT
// Histories: what clients, the main loop and the devices do, one action after another. A history is planned with the
// model alone, from a seed, and played on the server and the model side by side.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../model/model.h"

struct Config {
    const char *name;
    int32_t requested_w, requested_h; // the server's size; -1: the device's
    model::Device primary, second;
    bool layers; // clients name the second layer
    bool turns;  // clients ask for rotations
};

struct Action {
    enum Kind { CONNECT, REQUEST, HANG_UP, DRAW, TRUNCATE, RENDER, TOGGLE_DEVICE } kind = RENDER;
    int client = 0;
    std::string word; // the command, or the name of a new connection
    std::vector<model::Argument> arguments;
    int object = 0;     // shared-memory object; 0: none
    bool makes = false; // the object is made before the request (its name is the request's last argument)
    uint32_t size = 0;  // of the object, bytes
    uint32_t seed = 0;  // of the pixels
    int style = 0;      // of the pixels
    int device = 0;     // model::PRIMARY or SECOND
};

using History = std::vector<Action>;

struct Random {
    uint64_t state;
    uint64_t next();
    int below(int n) { return static_cast<int>(next() % static_cast<uint64_t>(n)); }
    int between(int low, int high) { return low + below(high - low + 1); } // both included
    bool chance(int percent) { return below(100) < percent; }
};

// Rows of `padding` bytes more than the picture, and `more` bytes (or fewer) than all rows.
model::Device history_device(uint32_t depth, int32_t w, int32_t h, uint32_t padding, int more);
const std::vector<Config> &history_configs();
model::Model history_model(const Config &config);
// `length` actions or a few more. With `may_abort` the last one may be one that the server must abort at.
History history_plan(const Config &config, uint64_t seed, int length, bool may_abort);
// Tells the model. Objects are known to it by `object_name`. Throws model::Aborted.
model::Reply history_tell(model::Model &m, const Action &action, const std::string &object_name,
                          const model::ClientMemory *memory);
void history_draw(uint8_t *data, size_t size, int style, uint32_t seed);
std::string history_text(const History &history);

// Plays in a child process. Returns what went wrong, or nothing.
std::string history_play(const Config &config, const History &history);
// The shortest history found that still goes wrong, by leaving actions out.
History history_shrink(const Config &config, History history);
