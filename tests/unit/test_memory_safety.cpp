// SPDX-License-Identifier: MIT
// No size, stride, rectangle or device makes a pass touch memory that is not there. Clients' pixels and the devices'
// memory end at guard pages here, so that a stray access ends the test; what exists has to come out right.
#include <climits>

#include <gmock/gmock.h>

#include "../support/compositor_test.h"
#include "../support/random_cases.h"
#include "../support/stderr_capture.h"

namespace {

class MemorySafety : public CompositorTest {
protected:
    // A surface over exactly `bytes` bytes, whatever its size says. The stride x height that the server counts with
    // must not be more.
    ImageSurface *add_over(size_t bytes, const char *name, Place place, int32_t stride, int32_t format,
                           int32_t rotation = 0)
    {
        memories.push_back(std::make_unique<GuardedBuffer>(bytes, GuardedBuffer::AT_END, pixel_gap(bytes)));
        uint8_t *pixels = memories.back()->data();
        for (size_t i = 0; i < bytes; i++)
            pixels[i] = 0x11;
        return fs_add_surface(server, place.x, place.y, place.w, place.h, stride, format, 0, rotation, pixels, name);
    }

    void settle_quietly()
    {
        const StdoutCapture quiet;
        const StderrCapture silent;
        settle();
    }

    // Draws the surface alone, with others above and below it, as damage and scaled.
    void draw_in_every_way(ImageSurface *surface)
    {
        fs_show_surface(server, surface);
        settle_quietly();
        ImageSurface *below = add_shown("fb.below", {0, 0, 64, 48}, XRGB32, -1, server->rotation);
        ImageSurface *above = add_shown("fb.above", {0, 0, 64, 48}, ARGB32, 1, server->rotation);
        settle_quietly();
        fs_add_dirty(server, surface, 0, 0, INT_MAX, INT_MAX);
        settle_quietly();
        const int32_t w = surface->img->width, h = surface->img->height;
        fs_set_scale(server, surface, 0, 0, w, h, 0, 0, 40, 30);
        settle_quietly();
        fs_set_scale(server, surface, 0, 0, w, h, 0, 0, w, h);
        settle_quietly();
        fs_remove_surface(server, above);
        fs_remove_surface(server, below);
        settle_quietly();
    }
};

constexpr int32_t FORMATS[] = {ARGB32, XRGB32, RGB16, RGB18};

TEST_F(MemorySafety, AStrideThatIsTooSmallShowsWhatExists)
{
    for (const int32_t format : FORMATS) {
        for (const int32_t stride : {1, 2, 3, 4, 7, 20, 39, 40, 41}) {
            SCOPED_TRACE(testing::Message() << "format " << format << " stride " << stride);
            memory_outputs_reset();
            open_server(64, 48);
            draw_in_every_way(add_over(static_cast<size_t>(stride) * 10, "fb.a", {5, 5, 20, 10}, stride, format));
            close_server();
        }
    }
}

TEST_F(MemorySafety, OfOverlappingRowsTheExistingPixelsAreDrawn)
{
    open_server(64, 48);
    ImageSurface *surface = add_over(40, "fb.a", {5, 5, 20, 10}, 4, XRGB32);
    auto *words = static_cast<uint32_t *>(surface->img->pixels);
    for (uint32_t i = 0; i < 10; i++)
        words[i] = 100 + i;
    fs_show_surface(server, surface);
    settle_quietly();
    for (int32_t y = 0; y < 10; y++) {
        for (int32_t x = 0; x < 20; x++)
            EXPECT_EQ(primary_output.pixel(5 + x, 5 + y), x + y < 10 ? static_cast<uint32_t>(100 + x + y) : 0u);
    }
}

TEST_F(MemorySafety, AZeroStrideANegativeOrAnOverflowingOneShowsNothing)
{
    for (const int32_t format : FORMATS) {
        for (const auto &[stride, height] : {std::pair{0, 10}, {-80, 10}, {INT_MIN, 10}, {-1, 1}, {INT_MIN, 2}}) {
            SCOPED_TRACE(testing::Message() << "format " << format << " stride " << stride);
            memory_outputs_reset();
            open_server(64, 48);
            draw_in_every_way(add_over(4096, "fb.a", {5, 5, 20, height}, stride, format));
            close_server();
        }
    }
}

TEST_F(MemorySafety, AScaleWhoseSourceLeavesTheImage)
{
    for (const int32_t format : FORMATS) {
        open_server(64, 48);
        ImageSurface *surface = add_over(20 * 10 * 4, "fb.a", {5, 5, 20, 10}, 20 * pixel_size_of(format), format);
        fs_show_surface(server, surface);
        for (const auto &[from, to] : {std::pair<Place, Place>{{0, 0, 20, 500}, {0, 0, 30, 30}},
                                       {{0, -300, 20, 10}, {0, 0, 30, 30}},
                                       {{-300, 0, 20, 10}, {0, 0, 30, 30}},
                                       {{0, 5000, 20, 10}, {0, 0, 30, 30}},
                                       {{0, INT_MAX, 20, 10}, {0, 0, 30, 30}},
                                       {{INT_MIN, INT_MIN, 20, 10}, {0, 0, 30, 30}},
                                       {{0, 0, 20, INT_MAX}, {0, 0, 30, 30}},
                                       {{0, 0, 1, 1}, {0, 0, 60, 45}},
                                       {{0, 0, 20, 10}, {0, 0, 1, 1}}}) {
            fs_set_scale(server, surface, from.x, from.y, from.w, from.h, to.x, to.y, to.w, to.h);
            fs_add_dirty(server, surface, -50, -50, 100000, 100000);
            settle_quietly();
        }
        close_server();
    }
}

TEST_F(MemorySafety, ARemovedScaleWithARectangleLargerThanTheImage)
{
    for (const int32_t format : FORMATS) {
        open_server(64, 48);
        const auto bytes = static_cast<size_t>(20 * 10 * pixel_size_of(format));
        ImageSurface *surface = add_over(bytes, "fb.a", {5, 5, 20, 10}, 20 * pixel_size_of(format), format);
        fs_show_surface(server, surface);
        fs_set_scale(server, surface, 0, 0, 20, 10, 0, 0, 40, 40);
        settle_quietly();
        fs_set_scale(server, surface, 0, 0, 60, 40, 0, 0, 60, 40);
        settle_quietly();
        EXPECT_EQ(surface->area, (Rect{0, 0, 60, 40}));
        add_shown("fb.b", {0, 0, 64, 48}, ARGB32);
        settle_quietly();
        close_server();
    }
}

TEST_F(MemorySafety, AnEighteenBitSurfaceScaledStaysWithinItsMemory)
{
    open_server(64, 48);
    ImageSurface *surface = add_over(20 * 10 * 4, "fb.a", {0, 0, 20, 10}, 80, RGB18);
    fs_show_surface(server, surface);
    for (const int32_t size : {1, 19, 40, 47}) {
        fs_set_scale(server, surface, 0, 0, 20, 10, 0, 0, size, size);
        settle_quietly();
    }
}

TEST_F(MemorySafety, AScreenLargerThanTheDevicesMemory)
{
    for (const uint32_t depth : {8u, 16u, 18u, 24u, 32u}) {
        for (const int32_t format : FORMATS) {
            SCOPED_TRACE(testing::Message() << "format " << format << " on " << depth << " bits");
            memory_outputs_reset();
            primary_output.depth = second_output.depth = depth;
            primary_output.width = second_output.width = 33;
            primary_output.height = second_output.height = 21;
            open_server(128, 96);
            draw_in_every_way(add("fb.a", {0, 0, 128, 96}, format));
            ImageSurface *layer = add_shown("fb2.a", {0, 0, 128, 96}, format);
            settle_quietly();
            add_shown("fb2.b", {0, 0, 128, 96}, ARGB32);
            settle_quietly();
            fs_remove_surface(server, layer);
            settle_quietly();
            close_server();
        }
    }
}

TEST_F(MemorySafety, OfAScreenLargerThanTheDeviceTheExistingPixelsAreShown)
{
    primary_output.width = 32;
    primary_output.height = 24;
    open_server(64, 48);
    ImageSurface *surface = add_shown("fb.a", {0, 0, 64, 48}, XRGB32);
    paint(surface, 0x00ABCDEF);
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(0, 0), 0xABCDEFu);
    EXPECT_EQ(primary_output.pixel(31, 23), 0xABCDEFu);
}

TEST_F(MemorySafety, TheSecondLayerIsSmallerThanTheFirst)
{
    second_output.width = 20;
    second_output.height = 10;
    open_server(-1, -1);
    ImageSurface *first = add_shown("fb.a", {0, 0, 320, 240}, XRGB32);
    ImageSurface *layer = add_shown("fb2.a", {0, 0, 320, 240}, ARGB32);
    paint(layer, 0xFF0A0B0C);
    settle_quietly();
    EXPECT_EQ(second_output.pixel(19, 0), 0xFF0A0B0Cu);
    fs_remove_surface(server, first);
    fs_remove_surface(server, layer);
}

TEST_F(MemorySafety, ADeviceWithLessMemoryThanItsSizeSays)
{
    for (const uint32_t memory : {1u, 2u, 3u, 4u, 100u, 5000u}) {
        memory_outputs_reset();
        primary_output.memory = second_output.memory = memory;
        open_server(64, 48);
        draw_in_every_way(add("fb.a", {0, 0, 64, 48}, RGB16));
        ImageSurface *layer = add_shown("fb2.a", {0, 0, 64, 48}, ARGB32);
        settle_quietly();
        fs_remove_surface(server, layer);
        settle_quietly();
        close_server();
    }
}

TEST_F(MemorySafety, ATurnedDisplayOfAnyShapeAndDepth)
{
    for (const int32_t rotation : {90, 270}) {
        for (const uint32_t depth : {8u, 16u, 18u, 24u, 32u}) {
            for (const auto &[w, h] : {std::pair{64, 20}, {20, 64}, {31, 31}, {1, 64}, {64, 1}}) {
                for (const int32_t format : FORMATS) {
                    SCOPED_TRACE(testing::Message() << rotation << " degrees, format " << format << " on " << depth
                                                    << " bits, " << w << " x " << h);
                    memory_outputs_reset();
                    primary_output.depth = second_output.depth = depth;
                    primary_output.width = second_output.width = w;
                    primary_output.height = second_output.height = h;
                    open_server(w, h);
                    draw_in_every_way(add("fb.a", {0, 0, 64, 64}, format, 0, rotation));
                    add_shown("fb2.a", {0, 0, 64, 64}, format, 0, rotation);
                    settle_quietly();
                    close_server();
                }
            }
        }
    }
}

TEST_F(MemorySafety, ABackendOpenedUpright)
{
    for (const int32_t rotation : {90, 270}) {
        for (const uint32_t depth : {8u, 16u, 18u, 24u, 32u}) {
            for (const auto &[w, h] : {std::pair{64, 20}, {20, 64}}) {
                for (const int32_t format : FORMATS) {
                    memory_outputs_reset();
                    primary_output.depth = depth;
                    primary_output.width = w;
                    primary_output.height = h;
                    open_server(w, h);
                    add("fb.keep", {0, 0, 5, 5}, RGB16);
                    draw_in_every_way(add("fb.a", {0, 0, 64, 64}, format, 0, rotation));
                    close_server();
                }
            }
        }
    }
}

// ---- any order of requests ----

Rect random_rect(random_cases::Random &random)
{
    const auto number = [&random] {
        switch (random_cases::between(random, 0, 9)) {
        case 0:
            return random_cases::between(random, -70000, 70000);
        case 1:
            return random_cases::between(random, -3, 3);
        default:
            return random_cases::between(random, -20, 80);
        }
    };
    return {number(), number(), number(), number()};
}

void random_request(FbServer *server, ImageSurface *surface, random_cases::Random &random)
{
    const Rect r = random_rect(random), to = random_rect(random);
    const bool locked = surface->lock_counter > 0;
    switch (random_cases::between(random, 0, 13)) {
    case 0:
        return fs_show_surface(server, surface);
    case 1:
        return fs_hide_surface(server, surface);
    case 2:
        return fs_move_surface(server, surface, r.x1, r.y1);
    case 3:
        return r.x2 > 0 && r.y2 > 0 ? fs_resize_surface(server, surface, r.x2, r.y2) : settle();
    case 4:
        return fs_set_level_surface(server, surface, random_cases::between(random, -2, 2));
    case 5:
        return fs_set_clip(server, surface, r.x1, r.y1, r.x2, r.y2);
    case 6:
        return fs_set_opaque_surface(server, surface, r.x1, r.y1, r.x2, r.y2);
    case 7:
        return fs_set_color_plane(server, surface, random_cases::between(random, 0, 1) == 0 ? -1 : to.x1 * 30000);
    case 8:
    case 9:
        return fs_set_scale(server, surface, r.x1, r.y1, r.x2, r.y2, to.x1, to.y1, to.x2, to.y2);
    case 10:
        return fs_set_sync(server, surface, r.x1 & 1);
    case 11:
        return locked ? fs_set_unlock(server, surface) : fs_set_lock_area(server, surface, r.x1, r.y1, r.x2, r.y2);
    case 12:
        return settle();
    default:
        return fs_add_dirty(server, surface, r.x1, r.y1, r.x2, r.y2);
    }
}

TEST_F(MemorySafety, AnyOrderOfRequests)
{
    const char *const names[] = {"fb.a", "fb2.a", "x.a", "..."};
    constexpr uint32_t DEPTHS[] = {8, 16, 18, 24, 32};
    constexpr int32_t ROTATIONS[] = {0, 0, 0, 90, 270};
    random_cases::run(300, [&](random_cases::Random &random) {
        const auto between = [&](int32_t low, int32_t high) { return random_cases::between(random, low, high); };
        const StdoutCapture quiet;
        const StderrCapture silent;
        memory_outputs_reset();
        for (MemoryOutput *output : {&primary_output, &second_output}) {
            output->width = between(1, 70);
            output->height = between(1, 70);
            output->depth = DEPTHS[between(0, 4)];
            output->stride = between(0, 1) == 0 ? 0 : output->row_bytes() + static_cast<uint32_t>(between(0, 9));
        }
        if (between(0, 1) == 0)
            open_server(-1, -1);
        else
            open_server(between(1, 90), between(1, 90));
        for (int step = 0; step < 120; step++) {
            const int32_t n = server->n_surface;
            ImageSurface *surface = n == 0 ? nullptr : server->surfaces[between(0, n - 1)];
            const int32_t what = between(0, 30);
            if (surface == nullptr || (what == 0 && n < 6)) {
                const Place place = {between(-20, 80), between(-20, 80), between(1, 80), between(1, 80)};
                const int32_t stride = between(0, 3) == 0 ? between(-5, 400) : place.w * 4;
                const int32_t wanted = ROTATIONS[between(0, 4)];
                const int32_t bytes = std::max(stride * place.h, 1);
                surface = add_over(static_cast<size_t>(bytes), names[between(0, 3)], place, stride,
                                   FORMATS[between(0, 3)], wanted);
            } else if (what == 1) {
                fs_remove_surface(server, surface);
            } else {
                random_request(server, surface, random);
            }
        }
        settle();
        close_server();
        memories.clear();
    });
}

} // namespace
