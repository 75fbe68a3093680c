// SPDX-License-Identifier: MIT
// What the tests of surfaces and passes share: a server over the outputs in memory, clients' pixels on guard pages,
// and the main loop turned by hand.
#pragma once

#include <map>
#include <memory>
#include <string>

#include <glib.h>
#include <gtest/gtest.h>

#include "../../src/composite/composite.h"
#include "guarded_buffer.h"
#include "memory_output.h"
#include "rects.h"

// Pixel formats by their numbers on the wire.
enum Format : int32_t { ARGB32 = 0, XRGB32 = 1, RGB16 = 3, RGB18 = 8 };

inline int32_t pixel_size_of(int32_t format)
{
    return format == RGB16 ? 2 : 4;
}

struct Place {
    int32_t x, y, w, h;
};

// Runs everything that the main loop has to do.
inline void settle()
{
    while (g_main_context_pending(nullptr))
        g_main_context_iteration(nullptr, FALSE);
}

class CompositorTest : public testing::Test {
protected:
    CompositorTest() { memory_outputs_reset(); }
    ~CompositorTest() override { close_server(); }

    void open_server(int32_t w = 320, int32_t h = 240)
    {
        server = fs_new(w, h);
        ASSERT_NE(server, nullptr);
    }

    void close_server()
    {
        const uint32_t pending = server != nullptr ? server->idle_source : 0;
        fs_destroy(server);
        server = nullptr;
        if (pending != 0 && g_main_context_find_source_by_id(nullptr, pending) != nullptr)
            g_source_remove(pending);
    }

    // A hidden surface over zeroed pixels, with rows that touch each other.
    ImageSurface *add(const char *name, Place place, int32_t format, int32_t level = 0, int32_t rotation = 0)
    {
        return add_with_stride(name, place, place.w * pixel_size_of(format), format, level, rotation);
    }

    ImageSurface *add_with_stride(const char *name, Place place, int32_t stride, int32_t format, int32_t level = 0,
                                  int32_t rotation = 0)
    {
        const auto bytes = static_cast<size_t>(stride) * static_cast<size_t>(place.h);
        auto pixels = std::make_unique<GuardedBuffer>(bytes, GuardedBuffer::AT_END, pixel_gap(bytes));
        ImageSurface *surface = fs_add_surface(server, place.x, place.y, place.w, place.h, stride, format, level,
                                               rotation, pixels->data(), name);
        memories.push_back(std::move(pixels)); // outlives the surface
        return surface;
    }

    // The same, shown.
    ImageSurface *add_shown(const char *name, Place place, int32_t format, int32_t level = 0, int32_t rotation = 0)
    {
        ImageSurface *surface = add(name, place, format, level, rotation);
        fs_show_surface(server, surface);
        return surface;
    }

    // Stores one word in every pixel of the client's image.
    static void paint(ImageSurface *surface, uint32_t word)
    {
        const xc_image *image = surface_client_image(surface);
        for (int32_t y = 0; y < image->height; y++) {
            for (int32_t x = 0; x < image->width; x++)
                put(image, x, y, word);
        }
    }

    static void put(const xc_image *image, int32_t x, int32_t y, uint32_t word)
    {
        if (image->depth == 16)
            *static_cast<uint16_t *>(xc_image_pointer(image, x, y)) = static_cast<uint16_t>(word);
        else
            *static_cast<uint32_t *>(xc_image_pointer(image, x, y)) = word;
    }

    static uint32_t get(const xc_image *image, int32_t x, int32_t y)
    {
        return image->depth == 16 ? *static_cast<const uint16_t *>(xc_image_pointer(image, x, y))
                                  : *static_cast<const uint32_t *>(xc_image_pointer(image, x, y));
    }

    // Forgets damage that is waiting, so that a test sees only its own.
    void forget_damage()
    {
        for (int32_t i = 0; i < server->n_backend; i++) {
            region_make_empty(server->backends[i]->damage_region);
            region_make_empty(server->backends[i]->clear_region);
        }
        if (server->idle_source != 0)
            g_source_remove(server->idle_source);
        server->idle_source = 0;
    }

    bool render_is_pending() const { return server->idle_source != 0; }
    static Rects damage_of(const ImageSurface *surface) { return rects_of(surface->backend->damage_region); }

    FbServer *server = nullptr;
    std::vector<std::unique_ptr<GuardedBuffer>> memories;
};
