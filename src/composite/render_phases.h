// SPDX-License-Identifier: MIT
// What the phases of a pass share.
#pragma once

#include "composite.h"

// The surfaces that draw in this pass, by their places in the list.
struct Drawers {
    int32_t count;
    int32_t lowest;
    int32_t highest;
    bool may_go_direct; // straight into the frame, where nothing above hides them
};

inline Backend *backend_at(const FbServer *fs, int32_t i)
{
    return fs->backends != nullptr ? fs->backends[i] : nullptr;
}

inline bool has_alpha_output(const ImageSurface *surface)
{
    return surface->backend != nullptr && image_has_alpha(surface->backend->frame_img);
}

// `b` is a Box or a Rect.
template <typename Rectangle> bool are_apart(const Box &a, const Rectangle &b)
{
    return b.x1 >= a.x2 || b.x2 <= a.x1 || b.y1 >= a.y2 || b.y2 <= a.y1;
}

// The last phase: bottom to top, then every output that something was drawn for. `cleared`: phase three cleared
// something.
void pass_draw(FbServer *fs, const Drawers &drawers, bool cleared);
