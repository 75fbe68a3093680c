// SPDX-License-Identifier: MIT
// A framebuffer to be looked at: a running panel's, or a real device's. Nothing is ever written to it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/fb.h>
#include <string>
#include <vector>

#include "panel_state.h"

// What the command line says of it. Empty strings where it says nothing.
struct ScreenChoice {
    std::string name;   // of a panel
    std::string folder; // of a panel
    std::string device; // a real framebuffer's node
    bool second_layer;
};

struct Screen {
    std::string title;       // for messages
    const PanelState *panel; // null: a real device
    int layer;               // PANEL_FB0 or PANEL_FB2, of the panel
    int fd;                  // of the real device, else -1
    uint32_t stride;
    fb_var_screeninfo var; // as of the last screen_refresh
    const uint8_t *memory;
    size_t size;
};

// The panel that is meant: by name, by folder, the one that this process runs on, or else the only one that runs.
// Empty after a message, or, when no choice was made and no panel runs, without one.
std::string screen_panel(const ScreenChoice &choice);

// Without a choice and without a panel it is /dev/fb0, or /dev/fb2 for the second layer. False after a message.
bool screen_open(const ScreenChoice &choice, Screen *screen);
void screen_close(Screen *screen);

// Reads again which part of the memory is shown. False after a message.
bool screen_refresh(Screen *screen);

// Whether the panel's second layer is switched on: never before its settings were applied.
bool screen_second_layer_is_on(const PanelState &panel);

uint32_t screen_pixel_bytes(const Screen &screen);
size_t screen_row_bytes(const Screen &screen);
// Copies what is shown, row after row without padding; rows beyond the memory are zero.
void screen_copy(const Screen &screen, std::vector<uint8_t> *rows);
