// SPDX-License-Identifier: MIT
#include "composite.h"

#include "../base/output.h"

namespace {

const char *or_null(const char *text)
{
    return text != nullptr ? text : "(null)";
}

void dump_surface(int32_t index, const ImageSurface *surface)
{
    const Rect &area = surface->area;
    const Rect &drawing = surface->drawing_area;
    out_printf("\t[%02d]: backend = %s name=%s level=%d shown=%d dirty=%d direct=%d\n", index,
               or_null(surface->backend != nullptr ? surface->backend->name : nullptr), or_null(surface->name),
               surface->level, surface_has(surface, SURFACE_SHOWN), surface_has(surface, SURFACE_DIRTY),
               surface_has(surface, SURFACE_DIRECT));
    out_printf("\t\t[%d,%d] - [%d,%d]\n", area.x1, area.y1, area.x2, area.y2);
    out_printf("\t\tdrawing area: [%d,%d] - [%d,%d]\n", drawing.x1, drawing.y1, drawing.x2, drawing.y2);
    // Under the clip's label stands the drawing area, which the clip has cut: tools that read this dump count on it.
    if (surface->clip != nullptr)
        out_printf("\t\tclip area: [%d,%d] - [%d,%d]\n", drawing.x1, drawing.y1, drawing.x2, drawing.y2);
    else
        out_puts("\t\tclip area: not set");
    const xc_image *img = surface->img;
    out_printf("\t\tdepth = %d stride = %d alpha = %d\n", img != nullptr ? img->depth : 0,
               img != nullptr ? img->stride : 0, image_has_alpha(img));
}

} // namespace

void fs_dump_status(FbServer *fs)
{
    out_printf("# of surface: %d\n", fs->n_surface);
    out_printf("count of lock: %d\n", fs->lock_count);
    for (int32_t i = 0; i < fs->n_surface; i++)
        dump_surface(i, fs->surfaces[i]);
}
