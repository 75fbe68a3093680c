// SPDX-License-Identifier: MIT
// Two framebuffer devices and a console in this process, under the server's own outputs. Their memory ends where its
// bytes end (system.h).
#pragma once

#include "decode.h"

// As the input describes them; named as the devices of the server are, or by the names it falls back to.
void panel_open(const DeviceForm forms[2], bool other_names);
// `released`: the server has given back all that it opened, so the screens have to be black.
void panel_close(bool released);
void panel_toggle(int device); // its next openings fail at a request, or work again
void panel_describe(int device, const DeviceForm &form);
// What came of the devices that the server has tried to open since this was asked last: all could be had, some were
// not there (it may go on by another name), or one was there and could not be had (it has to end).
enum class Opening { FINE, MISSING, REFUSED };
Opening panel_opening();
