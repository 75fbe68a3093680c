// SPDX-License-Identifier: MIT
// Values on the command line.
#pragma once

#include <cstdint>

// All of them: false after a message that names `what`.

bool value_number(const char *what, const char *text, int *number);
// `count` words, each a number.
bool value_numbers(const char *what, char *const *words, int count, int *numbers);
// "X,Y"
bool value_position(const char *what, const char *text, int *x, int *y);
// "WxH", both at least 1
bool value_size(const char *what, const char *text, int *width, int *height);
// A name ("red"), "#rgb", "#rrggbb", or with alpha "#rgba", "#rrggbbaa"; 0xAARRGGBB, not multiplied by alpha.
bool value_colour(const char *what, const char *text, uint32_t *colour);
// 0 to 100
bool value_percent(const char *what, double percent);
// Degrees: 0, 90, 270.
bool value_rotation(int degrees);
