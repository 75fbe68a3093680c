// SPDX-License-Identifier: MIT
#include "verbs.h"

#include "selected.h"

int verb_hide(int argc, char **argv)
{
    const SelectedVerb verb = {
        {"NAME", "Hides another program's surface. What stands on the screen stays where no other surface lies below.",
         SELECTED_TEXT, false, true},
        0,
        [](pfb_client *client, const int *) { return selected_result(pfb_hide(client)); },
    };
    return selected_verb(verb, argc, argv);
}
