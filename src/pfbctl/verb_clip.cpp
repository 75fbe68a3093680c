// SPDX-License-Identifier: MIT
#include "verbs.h"

#include "selected.h"

int verb_clip(int argc, char **argv)
{
    const SelectedVerb verb = {
        {"NAME X Y WIDTH HEIGHT",
         "Limits another program's surface to a rectangle of the screen. A clip cannot be removed, only made larger;\n"
         "an empty one leaves nothing of the surface.",
         SELECTED_TEXT, false, true},
        4,
        [](pfb_client *client, const int *n) { return selected_result(pfb_set_clip(client, n[0], n[1], n[2], n[3])); },
    };
    return selected_verb(verb, argc, argv);
}
