// SPDX-License-Identifier: MIT
// Two framebuffers in memory in place of the devices: a touch beyond their last word traps, others beside their bytes
// are found by memory_outputs_unharmed. They note what they are called with.
#pragma once

#include <string>
#include <vector>

#include "../model/model.h"

struct MemoryOutput {
    model::Device device;
    bool broken;
    uint8_t *memory;             // device.memory bytes
    const uint8_t *first, *last; // of the accessible bytes around it, last excluded
};

extern MemoryOutput memory_outputs[2]; // model::PRIMARY and SECOND
extern std::vector<std::string> memory_output_calls;

// `contents`: device.memory bytes that the device shows before it is opened.
void memory_output_set(int which, const model::Device &device, const uint8_t *contents);
void memory_output_drop(int which);
bool memory_outputs_unharmed();
