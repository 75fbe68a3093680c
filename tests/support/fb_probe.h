/* SPDX-License-Identifier: MIT */
/* What the probe's two files share. */
#ifndef FB_PROBE_H
#define FB_PROBE_H

/* "ok", or errno's name when the result is negative. */
const char *error_name(int result);
/* Prints which device the descriptor is, by what it answers. */
void print_device(int fd);
/* Opens for reading and writing; ends the program when it cannot. */
int open_device(const char *path);

int command_open(char **args);
int command_constructor(char **args);

#endif
