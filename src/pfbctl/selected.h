// SPDX-License-Identifier: MIT
// Requests on a surface of another program.
#pragma once

#include <functional>

#include "../panelimage/options.h"
#include "pfb.h"

// What the help says of all of them.
#define SELECTED_TEXT                                                                                                  \
    "NAME is the surface's name as \"pfbctl status\" has it; of several with the same name the lowest is meant."

// Selects the surface of that name, from a connection without one, and makes `request`, which returns what its pfb_
// function does. Waits until the server has done it. Returns the exit status.
int selected_run(const char *surface, const std::function<int(pfb_client *)> &request);

// A verb whose words are a surface's name and `count` numbers.
struct SelectedVerb {
    OptionText text;
    int count;
    int (*request)(pfb_client *client, const int *numbers);
};

int selected_verb(const SelectedVerb &verb, int argc, char **argv);
