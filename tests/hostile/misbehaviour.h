// SPDX-License-Identifier: MIT
// The table of misbehaviours. docs/robustness.md shows the same rows; a test compares them, and `make hostile` writes
// them there, with what was measured.
#pragma once

#include <string>
#include <vector>

#include "stage.h"

struct Misbehaviour {
    const char *name;           // of the test
    const char *words;          // what is done
    const char *outcome;        // what has to come of it
    const char *unit;           // of Stage::done
    std::vector<LogLine> lines; // what the server's log then has; it has no others
    void (*run)(Stage &stage);
    StageOptions stage = {};
};

std::vector<Misbehaviour> packet_rows();
std::vector<Misbehaviour> connection_rows();
std::vector<Misbehaviour> name_rows();
std::vector<Misbehaviour> memory_rows();
std::vector<Misbehaviour> flood_rows();
std::vector<Misbehaviour> lock_rows();
std::vector<Misbehaviour> device_rows();
std::vector<Misbehaviour> system_rows();
std::vector<Misbehaviour> folder_rows();
std::vector<Misbehaviour> access_rows();
std::vector<Misbehaviour> end_rows();
