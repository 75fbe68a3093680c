/* SPDX-License-Identifier: MIT */
/*
 * What the examples share, so that each of them shows only its own point: common options, the surface, and a loop that
 * keeps time and ends on SIGTERM, SIGINT or at the end of --seconds.
 *
 *	if (!example_start(&argc, &argv, "What it shows", own_options, PFB_FORMAT_XRGB32))
 *		return EXIT_FAILURE;
 *	pfb_show(example_client());
 *	while (example_next_frame())
 *		draw(example_client(), example_time());
 *	return example_end();
 */
#ifndef EXAMPLE_H
#define EXAMPLE_H

#include <glib.h>
#include <stdbool.h>
#include <stdint.h>

#include "pfb.h"

/* Values of the common options. Set them before example_start to choose other defaults. */
struct example_options {
    const char *name; /* of the client, see pfb_connect */
    int x, y;         /* position on the screen, pixels */
    int width, height;
    int level;
    double seconds; /* how long it runs; 0: until it is told to end */
    double rate;    /* frames per second; 0: none, example_next_frame only waits for the end */
};
extern struct example_options example_options;

/* Parses the common options and `own` ones, connects and makes the surface. After a message, false. */
bool example_start(int *argc, char ***argv, const char *summary, const GOptionEntry *own, enum pfb_format format);
pfb_client *example_client(void);

/* Waits until the next frame is due. False when it is time to end. */
bool example_next_frame(void);
/* Seconds since example_start. */
double example_time(void);

/* Reports a failed pfb_ function, if `result` is one, and makes the loop end. Returns whether all is well. */
bool example_check(int result);
/* Disconnects. Returns the program's exit status: 0, or 1 after a failure. */
int example_end(void);

#endif
