// SPDX-License-Identifier: MIT
// What the commands' option parsing has in common.
#pragma once

#include <glib.h>
#include <string>

#include "screen.h"

struct OptionText {
    const char *usage;       // what follows the options
    const char *summary;     // before the list of options
    const char *description; // after it; may be null
    bool before_program;     // the first word that is no option is a program, and what follows is the program's
    bool numbers = false;    // words may begin with a minus and a digit
};

// Takes the options, and a "--" that ends them, out of the vector.
// False after a message.
bool options_parse(const OptionText &text, const GOptionEntry *entries, int *argc, char ***argv);

// The options --name, --panel, --fb and --layer2, filled in by GLib.
struct ScreenOptions {
    char *name;
    char *panel;
    char *fb;
    gboolean layer2;
};

extern ScreenOptions screen_options;

// clang-format off
#define SCREEN_OPTION_ENTRIES \
    {"name", 'n', 0, G_OPTION_ARG_STRING, &screen_options.name, "The panel of this name", "NAME"}, \
    {"panel", 0, 0, G_OPTION_ARG_FILENAME, &screen_options.panel, "The panel in this folder", "DIR"}, \
    {"fb", 0, 0, G_OPTION_ARG_FILENAME, &screen_options.fb, "A framebuffer device", "DEVICE"}, \
    {"layer2", 0, 0, G_OPTION_ARG_NONE, &screen_options.layer2, "The second layer", nullptr}
// clang-format on

// False after a message: more than one was chosen.
bool options_screen(ScreenChoice *choice);
