/* SPDX-License-Identifier: MIT */
/* What the floor and its clients agree on. */
#ifndef FLOOR_H
#define FLOOR_H

#include <stdint.h>

enum { FLOOR_WIDTH = 480, FLOOR_HEIGHT = 272 };

typedef struct FloorSurface {
    int32_t x, y, width, height; /* on the panel */
    char name[64];               /* of the shared memory */
} FloorSurface;

#endif
