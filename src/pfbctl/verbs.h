// SPDX-License-Identifier: MIT
// The verbs, one file each. They take the argument vector from their own word on and return the exit status.
#pragma once

int verb_bench(int argc, char **argv);
int verb_clip(int argc, char **argv);
int verb_fill(int argc, char **argv);
int verb_hide(int argc, char **argv);
int verb_level(int argc, char **argv);
int verb_move(int argc, char **argv);
int verb_scale(int argc, char **argv);
int verb_shot(int argc, char **argv);
int verb_show(int argc, char **argv);
int verb_status(int argc, char **argv);
int verb_text(int argc, char **argv);
int verb_unhide(int argc, char **argv);
int verb_veil(int argc, char **argv);
int verb_watch(int argc, char **argv);
