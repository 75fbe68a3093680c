// SPDX-License-Identifier: MIT
// Where memory runs out while the server, a surface or a backend is made.
#include <gmock/gmock.h>

#include "../support/child_process.h"
#include "../support/compositor_test.h"
#include "../support/failing_memory.h"
#include "../support/stderr_capture.h"

namespace {

constexpr Place SOMEWHERE{0, 0, 10, 10};
constexpr const char *GROWTH_FAILED = "***********************error\n";

class SurfaceMemory : public CompositorTest {
protected:
    SurfaceMemory() { open_server(); }
};

TEST_F(SurfaceMemory, WithoutMemoryThereIsNoServer)
{
    const std::string message = complained([&] {
        fail_allocation(ANY_ALLOCATION, 1);
        EXPECT_EQ(fs_new(320, 240), nullptr);
    });
    EXPECT_TRUE(allocation_failed());
    EXPECT_EQ(message, "fs_new:Can't alloc FbServer\n");
}

TEST_F(SurfaceMemory, WithoutMemoryThereIsNoSurface)
{
    uint8_t pixels[400];
    const std::string message = complained([&] {
        fail_allocation(ANY_ALLOCATION, 1);
        EXPECT_EQ(fs_add_surface(server, 0, 0, 10, 10, 40, XRGB32, 0, 0, pixels, "fb.a"), nullptr);
    });
    EXPECT_TRUE(allocation_failed());
    EXPECT_EQ(message, "ImageSurface malloc error\n");
    EXPECT_EQ(server->n_surface, 0);
}

TEST_F(SurfaceMemory, WhereTheListCannotGrowTheNewSurfaceIsInNoList)
{
    in_child([this] {
        for (int i = 0; i < 4; i++)
            add("x", SOMEWHERE, RGB16);
        uint8_t pixels[400];
        ImageSurface *fifth = nullptr;
        const std::string message = complained([&] {
            fail_allocation(REALLOC, 1);
            fifth = fs_add_surface(server, 0, 0, 10, 10, 40, XRGB32, 0, 0, pixels, "x");
        });
        EXPECT_TRUE(allocation_failed());
        EXPECT_EQ(message, GROWTH_FAILED);
        ASSERT_NE(fifth, nullptr);
        EXPECT_EQ(server->surfaces, nullptr);
    });
}

TEST_F(SurfaceMemory, TheServerLivesOnAfterItsListIsLost)
{
    in_child([this] {
        for (int i = 0; i < 4; i++)
            add("x", SOMEWHERE, RGB16);
        const StderrCapture quiet;
        fail_allocation(REALLOC, 1);
        ImageSurface *lost = add("x", SOMEWHERE, RGB16);
        ASSERT_TRUE(allocation_failed());
        fs_show_surface(server, lost);
        settle();
        fs_set_level_surface(server, lost, 3);
        fs_dump_status(server);
        ImageSurface *next = add("x", SOMEWHERE, RGB16);
        ASSERT_NE(next, nullptr);
        settle();
    });
}

TEST_F(SurfaceMemory, WhereTheBackendsArrayCannotGrowTheBackendIsNotHad)
{
    in_child([this] {
        Backend *backend = nullptr;
        const std::string message = complained([&] {
            fail_allocation(REALLOC, 1);
            backend = fs_add_backend(server, "fb");
        });
        EXPECT_TRUE(allocation_failed());
        EXPECT_EQ(message, GROWTH_FAILED);
        EXPECT_EQ(backend, nullptr);
        EXPECT_EQ(server->backends, nullptr);
        EXPECT_EQ(server->n_backend, 1);
        EXPECT_EQ(primary_output.count(OutputCall::RELEASE), 1) << "nothing of the device stays mapped";
    });
}

TEST_F(SurfaceMemory, TheServerLivesOnAfterItsBackendsAreLost)
{
    in_child([this] {
        add_shown("fb2.a", SOMEWHERE, RGB16);
        const StderrCapture quiet;
        fail_allocation(REALLOC, 1);
        ImageSurface *surface = add("fb.a", SOMEWHERE, RGB16);
        ASSERT_TRUE(allocation_failed());
        EXPECT_EQ(surface->backend, nullptr);
        fs_show_surface(server, surface);
        settle();
        add_shown("fb.b", SOMEWHERE, RGB16);
        settle();
        fs_rotate_display(server, 90);
        fs_remove_surface(server, surface);
        settle();
    });
}

TEST_F(SurfaceMemory, WithoutMemoryForItsNameABackendStillWorks)
{
    in_child([this] {
        const StderrCapture quiet;
        bool seen = false;
        for (int nth = 1; nth <= 3 && !seen; nth++) {
            close_server();
            open_server();
            fail_allocation(MALLOC | STRDUP, nth);
            Backend *backend = fs_add_backend(server, "fb");
            seen = allocation_failed() && backend != nullptr && backend->name == nullptr;
            if (seen) {
                EXPECT_EQ(backend->state, BACKEND_READY);
            }
        }
        EXPECT_TRUE(seen);
    });
}

// Otherwise it would show nothing until its last surface goes.
TEST_F(SurfaceMemory, WithoutMemoryForItsImagesAnOutputIsNotHadAndTheNextSurfaceTriesAgain)
{
    in_child([this] {
        int refused = 0;
        for (int nth = 1; nth <= 3; nth++) { // the work image, its pixels, the frame image
            SCOPED_TRACE(nth);
            close_server();
            open_server();
            primary_output.calls.clear();
            ImageSurface *first = nullptr;
            const std::string message = complained([&] {
                fail_allocation(CALLOC, nth + 1); // after the surface's own record
                first = add("fb.first", SOMEWHERE, XRGB32);
            });
            ASSERT_TRUE(allocation_failed());
            ASSERT_NE(first, nullptr);
            if (first->backend != nullptr)
                continue; // it was another allocation
            refused++;
            EXPECT_EQ(message, "init failed\n");
            EXPECT_EQ(primary_output.count(OutputCall::RELEASE), 1);
            ImageSurface *second = add_shown("fb.second", SOMEWHERE, XRGB32);
            ASSERT_NE(second->backend, nullptr);
            paint(second, 0x123456);
            settle();
            EXPECT_EQ(primary_output.pixel(5, 5) & 0xFFFFFF, 0x123456u);
        }
        EXPECT_GE(refused, 2);
    });
}

// Each allocation of the whole way from the first surface to its picture fails once. None of it may end the server.
TEST_F(SurfaceMemory, NoFailedAllocationEndsTheServer)
{
    in_child([this] {
        const StderrCapture quiet;
        bool failed = true;
        int nth = 1;
        for (; failed; nth++) {
            SCOPED_TRACE(nth);
            close_server();
            open_server();
            fail_allocation(ANY_ALLOCATION, nth);
            ImageSurface *surface = add("fb.a", {0, 0, 20, 20}, ARGB32);
            if (surface != nullptr) {
                fs_show_surface(server, surface);
                fs_set_clip(server, surface, 0, 0, 15, 15);
                fs_set_scale(server, surface, 0, 0, 20, 20, 0, 0, 30, 30);
                settle();
                fs_set_scale(server, surface, 0, 0, 20, 20, 0, 0, 20, 20);
                settle();
                fs_dump_status(server);
            }
            failed = allocation_failed();
        }
        EXPECT_GT(nth, 8);
    });
}

TEST_F(SurfaceMemory, WithoutMemoryForAClipTheOldPlaceIsStillDamaged)
{
    ImageSurface *surface = add("fb.a", SOMEWHERE, RGB16);
    fail_allocation(ANY_ALLOCATION, 1);
    fs_set_clip(server, surface, 0, 0, 5, 5);
    ASSERT_TRUE(allocation_failed());
    EXPECT_EQ(damage_of(surface), (Rects{{0, 0, 10, 10}}));
}

TEST_F(SurfaceMemory, WithoutMemoryForAScaleItIsRefusedAndTheSurfaceStays)
{
    ImageSurface *surface = add("fb.a", SOMEWHERE, XRGB32);
    const xc_image *image = surface->img;
    for (int nth = 1; nth <= 3; nth++) { // the image, its pixels, the record
        const std::string text = printed([&] {
            fail_allocation(ANY_ALLOCATION, nth);
            fs_set_scale(server, surface, 0, 0, 10, 10, 0, 0, 20, 20);
        });
        EXPECT_TRUE(allocation_failed());
        EXPECT_EQ(text, "fs_set_scale: invalid size: source 10 x 10 destination 20 x 20\n");
        EXPECT_EQ(surface->img, image);
        EXPECT_EQ(surface->scale_state, nullptr);
        EXPECT_EQ(surface->area, (Rect{0, 0, 10, 10}));
    }
    fs_set_scale(server, surface, 0, 0, 10, 10, 0, 0, 20, 20);
    EXPECT_NE(surface->scale_state, nullptr);
}

} // namespace
