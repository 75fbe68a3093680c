// SPDX-License-Identifier: MIT
// Lines that wait for a slow reader are written as soon as he reads.
#pragma once

// Called before the main loop waits. True when a source was added to it: lines wait that nobody looked after yet. It
// goes when they are written, so that a loop without such lines has nothing to ask.
bool output_watch_begin();
