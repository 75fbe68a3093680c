// SPDX-License-Identifier: MIT
// A surface of pfbctl's own: the options that all verbs which make one share, and its life.
#pragma once

#include <functional>
#include <glib.h>

#include "../panelimage/options.h"
#include "pfb.h"

// The options --name, --at, --level, --rotation and --for, filled in by GLib and surface_options().
struct SurfaceOptions {
    char *name;
    char *at;
    int level;
    int rotation; // degrees
    double seconds;
    int x, y; // of --at, screen coordinates
};

extern SurfaceOptions surface_options;

// clang-format off
#define SURFACE_OPTION_ENTRIES \
    {"name", 'n', 0, G_OPTION_ARG_STRING, &surface_options.name, "Name of the surface (pfbctl)", "NAME"}, \
    {"at", 'a', 0, G_OPTION_ARG_STRING, &surface_options.at, "Upper left corner on the screen (0,0)", "X,Y"}, \
    {"level", 'l', 0, G_OPTION_ARG_INT, &surface_options.level, "Level; higher is nearer to the viewer (0)", "N"}, \
    {"rotation", 'r', 0, G_OPTION_ARG_INT, &surface_options.rotation, \
     "How the display is turned: 0, 90 or 270 ($PFB_ROTATION, else 0)", "DEGREES"}, \
    {"for", 'f', 0, G_OPTION_ARG_DOUBLE, &surface_options.seconds, "How long (until a signal)", "SECONDS"}
// clang-format on

// What the help says of all of them.
#define SURFACE_TEXT                                                                                                   \
    "It stays in the foreground: the surface lives until SIGINT, SIGTERM or SIGHUP, or the end of --for. When the\n"   \
    "server ends, it waits for the next one and shows the same there.\n"                                               \
    "A display that is turned otherwise than --rotation says is turned, for everybody: say what the device uses."

// Parses the options of a verb that makes a surface, and checks those above. False after a message.
bool surface_parse(const OptionText &text, const GOptionEntry *entries, int *argc, char ***argv);

struct SurfaceWish {
    enum pfb_format format;
    int width, height;        // pixels
    const char *alpha_use;    // what a screen without alpha makes of the surface, for a warning; null: it needs none
    bool needs_alpha = false; // there it is refused
};

// Connects, makes the surface, and runs `draw`, which returns false when a function of pfb.h has failed.
// Null after a message, with the exit status in `status`.
pfb_client *surface_open(const SurfaceWish &wish, const std::function<bool(pfb_client *)> &draw, int *status);

// surface_open, shows the surface and stays in the foreground. Returns the exit status.
int surface_run(const SurfaceWish &wish, const std::function<bool(pfb_client *)> &draw);
