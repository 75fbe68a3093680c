// SPDX-License-Identifier: MIT
// The stack of surfaces: a plain array ordered by level, which a pass walks without sorting.
#pragma once

#include "records.h"

// Room for one more, so that adding it does not fail. False without memory, with the list as it was.
bool surface_list_reserve(FbServer *fs);
// Above all surfaces of the same or a lower level. Without memory for a larger array the list is lost, after a message
// on standard error, and the surface is in no list.
void surface_list_add(FbServer *fs, ImageSurface *surface);
// Its index, or n_surface when it is not there.
int32_t surface_list_find(const FbServer *fs, const ImageSurface *surface);
// Takes the entry at `index` out and closes the gap.
void surface_list_take(FbServer *fs, int32_t index);
// Frees a surface that is in no list, with all that it owns; the client's pixels are not its own. In surface.cpp.
void surface_free(ImageSurface *surface);
