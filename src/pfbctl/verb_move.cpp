// SPDX-License-Identifier: MIT
#include "verbs.h"

#include "selected.h"

int verb_move(int argc, char **argv)
{
    const SelectedVerb verb = {
        {"NAME X Y", "Moves the upper left corner of another program's surface to X, Y on the screen.", SELECTED_TEXT,
         false, true},
        2,
        [](pfb_client *client, const int *n) { return selected_result(pfb_move(client, n[0], n[1])); },
    };
    return selected_verb(verb, argc, argv);
}
