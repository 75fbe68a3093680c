// SPDX-License-Identifier: MIT
#include "verbs.h"

#include "selected.h"

int verb_level(int argc, char **argv)
{
    const SelectedVerb verb = {
        {"NAME LEVEL",
         "Moves another program's surface to a level of the stack, there on top of all others of that level.",
         SELECTED_TEXT, false, true},
        1,
        [](pfb_client *client, const int *n) { return selected_result(pfb_set_layer(client, n[0])); },
    };
    return selected_verb(verb, argc, argv);
}
