// SPDX-License-Identifier: MIT
// The server object.
#include "composite.h"

#include <cstdlib>

#include "../base/output.h"
#include "surface_list.h"

FbServer *fs_new(int32_t width, int32_t height)
{
    auto *fs = static_cast<FbServer *>(calloc(1, sizeof(FbServer)));
    if (fs == nullptr) {
        err_printf("%s:Can't alloc FbServer\n", "fs_new");
        return nullptr;
    }
    fs->w = fs->native_w = width;
    fs->h = fs->native_h = height;
    return fs;
}

void fs_destroy(FbServer *fs)
{
    if (fs == nullptr)
        return;
    // An entry that a failed growth left empty, or whose name found no memory, is passed over.
    for (int32_t i = 0; fs->backends != nullptr && i < fs->n_backend;) {
        if (fs->backends[i] != nullptr && fs->backends[i]->name != nullptr)
            fs_remove_backend(fs, fs->backends[i]->name);
        else
            i++;
    }
    for (int32_t i = 0; i < fs->n_surface; i++)
        surface_free(fs->surfaces[i]);
    free(fs->backends);
    free(fs->surfaces);
    free(fs);
}
