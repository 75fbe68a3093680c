// SPDX-License-Identifier: MIT
// Faults that a panel can be given, so that a program's answers to bad hardware can be tried.
#pragma once

#include <cstdint>
#include <string>

#include "panel_state.h"

// Which of a device's two nodes there is.
enum class PanelNode { USUAL, OTHER, NONE };

struct PanelFaults {
    uint32_t faults[PANEL_DEVICES]; // PANEL_FAULT_...
    PanelNode node[PANEL_DEVICES];
};

// Takes "WORD,WORD...". An empty string, or the word that there is not.
std::string fault_parse(const std::string &words, PanelFaults *faults);
// One line for each word with its meaning, for the help text.
std::string fault_help();
