// SPDX-License-Identifier: MIT
#pragma once

// Writes what standard output still holds as soon as a reader that was behind takes it again, also when no request
// comes in meanwhile. Wakes nobody up while everything is written.
void output_watch_start();
