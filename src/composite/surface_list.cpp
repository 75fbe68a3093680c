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

void lose(FbServer *fs)
{
    err_printf("***********************error\n");
    free(fs->surfaces);
    fs->surfaces = nullptr;
    fs->n_surface = fs->surface_capacity = 0;
}

int32_t first_above(const FbServer *fs, int32_t level)
{
    int32_t i = 0;
    while (i < fs->n_surface && fs->surfaces[i]->level <= level)
        i++;
    return i;
}

} // namespace

bool surface_list_reserve(FbServer *fs)
{
    if (fs->n_surface < fs->surface_capacity)
        return true;
    const int32_t capacity = fs->surface_capacity == 0 ? FIRST_CAPACITY : 2 * fs->surface_capacity;
    auto *larger = static_cast<ImageSurface **>(realloc(fs->surfaces, bytes(capacity)));
    if (larger == nullptr)
        return false;
    fs->surfaces = larger;
    fs->surface_capacity = capacity;
    return true;
}

void surface_list_add(FbServer *fs, ImageSurface *surface)
{
    if (!surface_list_reserve(fs)) {
        lose(fs);
        return;
    }
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
