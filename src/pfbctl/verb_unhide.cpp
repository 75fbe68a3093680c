// SPDX-License-Identifier: MIT
#include "verbs.h"

#include "selected.h"

int verb_unhide(int argc, char **argv)
{
    const SelectedVerb verb = {
        {"NAME", "Shows another program's surface, one that was hidden for example.", SELECTED_TEXT, false, true},
        0,
        [](pfb_client *client, const int *) { return selected_result(pfb_show(client)); },
    };
    return selected_verb(verb, argc, argv);
}
