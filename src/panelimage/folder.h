// SPDX-License-Identifier: MIT
// Panel folders: where they are, how they come, are found and go.
//
// They stand in $XDG_RUNTIME_DIR, $TMPDIR or /tmp: the first that can be written to.
//
// A folder is made under a hidden name, filled, locked, and then renamed to "pfbpanel-NAME" (an unnamed panel's NAME
// has a dot in it, which a given name cannot have). So a folder that can be found is complete, two panels cannot take
// the same name, and a folder whose lock nobody holds belonged to a pfbpanel that was killed.
#pragma once

#include <string>
#include <vector>

#include "fault.h"
#include "panel_state.h"

struct PanelFolder {
    std::string path;
    int lock; // descriptor, closed on exec
    PanelState *state;
};

bool folder_name_is_valid(const std::string &name);

// Makes the folder with its files and takes its lock. `name` may be empty. False after a message.
bool folder_make(const std::string &name, const PanelState &state, const PanelFaults &faults, PanelFolder *folder);
// Removes the folder with all that is in it, and lets go of lock and state.
void folder_remove(PanelFolder *folder);

// The user's running panels.
std::vector<std::string> folder_list();
// The running panel of that name; empty: none.
std::string folder_find(const std::string &name);
bool folder_is_running(const std::string &path);
// "-" for an unnamed panel's folder.
std::string folder_name(const std::string &path);

// Maps the state, to be read. Null after a message.
const PanelState *folder_read(const std::string &path);
// The panel's file for a device; empty: it has no such node.
std::string folder_device(const std::string &path, int device);
