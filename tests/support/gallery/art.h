// SPDX-License-Identifier: MIT
// What the clients of the gallery draw. Every picture has a clear top and left, and fills the canvas.
#pragma once

#include "canvas.h"

Canvas art_evening(int width, int height); // a lake below mountains
Canvas art_night(int width, int height);   // the same place later
// A window with a title bar in a colour and a large digit.
Canvas art_card(int width, int height, uint32_t colour, const char *digits);
// A pane with round corners, from clear at the left to solid at the right, and a smooth opaque knob.
Canvas art_glass(int width, int height);
// A pane, one half of it clear, with round corners and an opaque card in its middle.
Canvas art_frame(int width, int height);
Canvas art_gauge(int width, int height, int position); // a dial; the hand's position is 0 to 16
Canvas art_thermostat(int width, int height);          // a window with a temperature and a bar
Canvas art_icon(int size);                             // a cup
Canvas art_menu(int width, int height);                // round buttons on a clear ground
Canvas art_colour(int width, int height, uint32_t colour);
