// SPDX-License-Identifier: MIT
// Requests on a surface of another program.
#pragma once

#include "../panelimage/options.h"
#include "pfb.h"

// What the help says of all of them.
#define SELECTED_TEXT                                                                                                  \
    "NAME is the surface's name as \"pfbctl status\" has it; of several with the same name the lowest is meant."

// A verb whose words are a surface's name and `count` numbers.
struct SelectedVerb {
    OptionText text;
    int count;
    // Makes the request. Returns an exit status, after a message where it failed.
    int (*request)(pfb_client *client, const int *numbers);
    bool (*check)(const int *numbers) = nullptr; // false after a message: they are wrong
};

// For `request`: an exit status for what a pfb_ function returned, with its message.
int selected_result(int result);

// Selects the surface, from a connection without one, makes the request and waits until the server has handled it.
// Returns the exit status.
int selected_verb(const SelectedVerb &verb, int argc, char **argv);
