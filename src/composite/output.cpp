// SPDX-License-Identifier: MIT
// Outputs: opened when the first surface names them, released when the last one goes.
#include "composite.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "../backend/backend.h"
#include "../base/output.h"
#include "../base/wrap.h"

namespace {

Backend null_backend; // "x": accepts surfaces and shows nothing
Backend fb_backend;
Backend fb2_backend;

void print_screen_info(const ScreenInfo &info)
{
    out_puts("screen info is");
    out_printf("width = %d height = %d depth = %d stride = %d\n", info.width, info.height,
               static_cast<int32_t>(info.depth), static_cast<int32_t>(info.stride));
    out_printf("colormask = red:%08x, green:%08x, blue:%08x, alpha:%08x, has_alph = %d\n", info.red_mask,
               info.green_mask, info.blue_mask, info.alpha_mask, info.has_alpha);
    out_printf("pixel unit: %d bytes, byte order: %s\n", static_cast<int32_t>(info.pixel_unit),
               info.byte_order != 0 ? "MSB" : "LSB");
}

int screen_format(const ScreenInfo &info)
{
    if (info.depth < 24)
        return info.depth == 18 ? XC_FORMAT_RGB18 : XC_FORMAT_RGB16;
    return info.has_alpha != 0 ? XC_FORMAT_ARGB32 : XC_FORMAT_XRGB32;
}

// A server without a size of its own takes over that of the first device which it opens, as if it had stood on the
// command line: surfaces that were laid out before are laid out again.
void take_over_size(FbServer *fs, const ScreenInfo &info)
{
    if (fs->native_w != -1 || fs->native_h != -1)
        return;
    fs->w = fs->native_w = info.width;
    fs->h = fs->native_h = info.height;
    if (fs->rotation == 90 || fs->rotation == 270) {
        fs->w = fs->native_h;
        fs->h = fs->native_w;
    }
    for (int32_t i = 0; i < fs->n_surface; i++)
        fs_update_drawing_area(fs, fs->surfaces[i]);
}

void make_images(const FbServer *fs, Backend *backend, const ScreenInfo &info, void *pixels)
{
    const int format = screen_format(info);
    backend->work_img = xc_image_new_with_data(fs->w, fs->h, nullptr, format, 0, 0, wrap_mul(fs->w, 4));
    backend->frame_img =
        xc_image_new_with_data(info.width, info.height, pixels, format, 0, 1, static_cast<int32_t>(info.stride));
    // The declared size may be larger than the device, or stand for another turn: the mapped bytes are what counts.
    if (backend->frame_img != nullptr)
        backend->frame_img->extent = info.memory;
}

// False where there is no memory now. An image that is too large, or has no size, is never had: the output works
// without.
bool found_memory(const FbServer *fs, const Backend *backend, const ScreenInfo &info)
{
    const int32_t stride = wrap_mul(fs->w, 4);
    const bool has_work = fs->w > 0 && fs->h > 0 && stride > 0 && int64_t{stride} * fs->h <= INT32_MAX;
    const bool has_frame = info.width > 0 && info.height > 0;
    return (backend->work_img != nullptr || !has_work) && (backend->frame_img != nullptr || !has_frame);
}

void drop_images(Backend *backend)
{
    xc_image_unref(backend->frame_img);
    xc_image_unref(backend->work_img);
    pixman_region_destroy(backend->clear_region);
    pixman_region_destroy(backend->damage_region);
    pixman_region_destroy(backend->direct_region);
    backend->frame_img = backend->work_img = nullptr;
    backend->clear_region = backend->damage_region = backend->direct_region = nullptr;
}

// As when its last surface goes: nothing of it stays mapped.
void give_up(FbServer *fs, Backend *backend)
{
    backend->displayfunc->release(fs);
    drop_images(backend);
}

bool append_backend(FbServer *fs, Backend *backend)
{
    // The count goes up before the array does, and stays up when there is no memory: a missing array, or a missing
    // entry in it, is an output that is not there.
    const int32_t n = ++fs->n_backend;
    const bool was_missing = fs->backends == nullptr;
    fs->backends = static_cast<Backend **>(realloc(fs->backends, sizeof(Backend *) * static_cast<size_t>(n)));
    if (fs->backends == nullptr) {
        err_printf("***********************error\n");
        return false;
    }
    if (was_missing)
        memset(fs->backends, 0, sizeof(Backend *) * static_cast<size_t>(n));
    fs->backends[n - 1] = backend;
    return true;
}

bool initialise(FbServer *fs, Backend *backend)
{
    ScreenInfo info{};
    info.width = fs->w;
    info.height = fs->h;
    void *pixels = backend->displayfunc->init(fs, &info);
    if (pixels == nullptr) {
        err_printf("init failed\n");
        return false;
    }
    print_screen_info(info);
    take_over_size(fs, info);
    make_images(fs, backend, info, pixels);
    if (!found_memory(fs, backend, info)) {
        err_printf("init failed\n");
        give_up(fs, backend);
        return false;
    }
    backend->clear_region = region_new();
    backend->damage_region = region_new();
    backend->direct_region = region_new();
    if (!append_backend(fs, backend)) {
        give_up(fs, backend);
        return false;
    }
    backend->state = BACKEND_READY;
    return true;
}

void choose(Backend *backend, const char *name, const display_func *displayfunc, int32_t secondary)
{
    backend->state = BACKEND_CHOSEN;
    backend->use_count = backend->sync_count = 0;
    backend->secondary = secondary;
    backend->name = strdup(name);
    backend->displayfunc = displayfunc;
}

int32_t find_backend(const FbServer *fs, const char *name)
{
    for (int32_t i = 0; fs->backends != nullptr && i < fs->n_backend; i++) {
        const Backend *backend = fs->backends[i];
        if (backend != nullptr && backend->name != nullptr && strcmp(backend->name, name) == 0)
            return i;
    }
    return -1;
}

} // namespace

Backend *fs_add_backend(FbServer *fs, const char *name)
{
    if (name == nullptr) {
        err_printf("%s:name=%s\n", "fs_add_backend", "(null)");
        return nullptr;
    }
    Backend *backend;
    if (strcmp(name, "x") == 0) {
        backend = &null_backend;
        if (backend->state == BACKEND_UNUSED) {
            backend->state = BACKEND_READY;
            backend->use_count = 0;
        }
    } else if (strcmp(name, "fb2") == 0) {
        backend = &fb2_backend;
        if (backend->state == BACKEND_UNUSED)
            choose(backend, "fb2", &fb2_displayfunc, 1);
    } else { // unknown names are shown too: on the primary framebuffer
        backend = &fb_backend;
        if (backend->state == BACKEND_UNUSED)
            choose(backend, "fb", &fb_displayfunc, 0);
    }
    if (backend->state < BACKEND_READY && !initialise(fs, backend))
        return nullptr;
    backend->use_count++;
    return backend;
}

void fs_remove_backend(FbServer *fs, const char *name)
{
    const int32_t index = name != nullptr ? find_backend(fs, name) : -1;
    if (index < 0)
        return;
    Backend *backend = fs->backends[index];
    fs->n_backend--;
    memmove(fs->backends + index, fs->backends + index + 1,
            sizeof(Backend *) * static_cast<size_t>(fs->n_backend - index));
    fs->backends[fs->n_backend] = nullptr;
    backend->displayfunc->release(fs);
    free(backend->name);
    backend->name = nullptr;
    backend->state = BACKEND_UNUSED;
    drop_images(backend);
    if (fs->n_backend == 0) {
        free(fs->backends);
        fs->backends = nullptr;
    }
}

int fs_set_surface_backend(FbServer *fs, ImageSurface *surface)
{
    if (surface->name == nullptr)
        return -1;
    const char *start = surface->name + strspn(surface->name, ".");
    const size_t length = strcspn(start, ".");
    if (length == 0)
        return -1;
    char *token = strndup(start, length);
    Backend *backend = token != nullptr ? fs_add_backend(fs, token) : nullptr;
    free(token);
    if (backend == nullptr)
        return -1;
    surface->backend = backend;
    return 1;
}
