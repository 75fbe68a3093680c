// SPDX-License-Identifier: MIT
// The panel's program as pfbpanel's child.
#pragma once

#include <csignal>
#include <sys/types.h>

#include "../panelimage/folder.h"

// Holds back the signals that are meant for the program, and SIGCHLD, for child_wait. `before` is the mask to go back
// to in the program.
void child_hold_signals(sigset_t *before);

// Starts the program on the panel and notes its process id there. If pfbpanel is killed, it gets SIGTERM. -1 after a
// message.
pid_t child_start(char **argv, const PanelFolder &folder, const sigset_t &signals);

// Passes signals on until the program has ended. Returns its exit status, or 128 + signal.
int child_wait(pid_t pid);
