// SPDX-License-Identifier: MIT
#include "fault.h"

#include <sstream>

namespace {

struct FaultWord {
    const char *word;
    int device;
    uint32_t fault;
    PanelNode node;
    const char *meaning;
};

constexpr FaultWord WORDS[] = {
    {"fb0-open", PANEL_FB0, PANEL_FAULT_OPEN, PanelNode::USUAL, "opening /dev/fb0 fails with ENODEV"},
    {"fb0-fix", PANEL_FB0, PANEL_FAULT_FIX, PanelNode::USUAL, "FBIOGET_FSCREENINFO fails with EIO"},
    {"fb0-var", PANEL_FB0, PANEL_FAULT_VAR, PanelNode::USUAL, "FBIOGET_VSCREENINFO fails with EIO"},
    {"fb0-mmap", PANEL_FB0, PANEL_FAULT_MMAP, PanelNode::USUAL, "mapping the memory fails with ENODEV"},
    {"fb0-zero-width", PANEL_FB0, PANEL_FAULT_ZERO_WIDTH, PanelNode::USUAL, "the device reports an xres of 0"},
    {"fb0-other", PANEL_FB0, 0, PanelNode::OTHER, "there is /dev/fb/0 instead of /dev/fb0"},
    {"fb0-none", PANEL_FB0, 0, PanelNode::NONE, "there is neither"},
    {"fb2-open", PANEL_FB2, PANEL_FAULT_OPEN, PanelNode::USUAL, "the same for the second layer"},
    {"fb2-fix", PANEL_FB2, PANEL_FAULT_FIX, PanelNode::USUAL, ""},
    {"fb2-var", PANEL_FB2, PANEL_FAULT_VAR, PanelNode::USUAL, ""},
    {"fb2-mmap", PANEL_FB2, PANEL_FAULT_MMAP, PanelNode::USUAL, ""},
    {"fb2-zero-width", PANEL_FB2, PANEL_FAULT_ZERO_WIDTH, PanelNode::USUAL, ""},
    {"fb2-other", PANEL_FB2, 0, PanelNode::OTHER, ""},
    {"fb2-none", PANEL_FB2, 0, PanelNode::NONE, ""},
    {"fb2-control", PANEL_FB2, PANEL_FAULT_CONTROL, PanelNode::USUAL, "the layer control fails with EINVAL"},
    {"tty0-open", PANEL_CONSOLE, PANEL_FAULT_OPEN, PanelNode::USUAL, "opening the console fails with ENODEV"},
    {"tty0-mode", PANEL_CONSOLE, PANEL_FAULT_CONTROL, PanelNode::USUAL, "KDSETMODE fails with EINVAL"},
    {"tty0-other", PANEL_CONSOLE, 0, PanelNode::OTHER, "there is /dev/vc/0 instead of /dev/tty0"},
    {"tty0-none", PANEL_CONSOLE, 0, PanelNode::NONE, "there is neither"},
};

const FaultWord *find(const std::string &word)
{
    for (const FaultWord &entry : WORDS) {
        if (word == entry.word)
            return &entry;
    }
    return nullptr;
}

} // namespace

std::string fault_parse(const std::string &words, PanelFaults *faults)
{
    std::istringstream list(words);
    std::string word;
    while (std::getline(list, word, ',')) {
        const FaultWord *entry = find(word);
        if (entry == nullptr)
            return word;
        faults->faults[entry->device] |= entry->fault;
        if (entry->node != PanelNode::USUAL)
            faults->node[entry->device] = entry->node;
    }
    return "";
}

std::string fault_help()
{
    std::string help;
    for (const FaultWord &entry : WORDS) {
        std::string line = std::string("  ") + entry.word;
        line.resize(18, ' ');
        help += line + entry.meaning + "\n";
    }
    return help;
}
