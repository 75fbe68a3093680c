// SPDX-License-Identifier: MIT
// The commands, one file each. They take the argument vector from their own word on (for command_panel: the program's
// whole one) and return the exit status.
#pragma once

#include <glib.h>

int command_panel(int argc, char **argv);
int command_run(int argc, char **argv);
int command_list(int argc, char **argv);
int command_shot(int argc, char **argv);
int command_watch(int argc, char **argv);
