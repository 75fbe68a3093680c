// SPDX-License-Identifier: MIT
#include "surface_list.h"

#include <cstdlib>
#include <cstring>

#include "../base/output.h"

namespace {

constexpr int32_t FIRST_CAPACITY = 4;

size_t bytes(int32_t entries)
{
    return sizeof(ImageSurface *) * static_cast<size_t>(entries);
}

bool make_room(FbServer *fs)
{
    if (fs->n_surface < fs->surface_capacity)
        return true;
    fs->surface_capacity = fs->surface_capacity == 0 ? FIRST_CAPACITY : 2 * fs->surface_capacity;
    fs->surfaces = static_cast<ImageSurface **>(realloc(fs->surfaces, bytes(fs->surface_capacity)));
    if (fs->surfaces != nullptr)
        return true;
    err_printf("***********************error\n");
    fs->n_surface = fs->surface_capacity = 0;
    return false;
}

int32_t first_above(const FbServer *fs, int32_t level)
{
    int32_t i = 0;
    while (i < fs->n_surface && fs->surfaces[i]->level <= level)
        i++;
    return i;
}

} // namespace

void surface_list_add(FbServer *fs, ImageSurface *surface)
{
    if (!make_room(fs))
        return;
    const int32_t index = first_above(fs, surface->level);
    memmove(fs->surfaces + index + 1, fs->surfaces + index, bytes(fs->n_surface - index));
    fs->surfaces[index] = surface;
    fs->n_surface++;
}

int32_t surface_list_find(const FbServer *fs, const ImageSurface *surface)
{
    int32_t i = 0;
    while (i < fs->n_surface && fs->surfaces[i] != surface)
        i++;
    return i;
}

void surface_list_take(FbServer *fs, int32_t index)
{
    fs->n_surface--;
    memmove(fs->surfaces + index, fs->surfaces + index + 1, bytes(fs->n_surface - index));
    fs->surfaces[fs->n_surface] = nullptr;
}
