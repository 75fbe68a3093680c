// SPDX-License-Identifier: MIT
// Which output a surface gets by its name, how outputs are opened, described, counted and released.
#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/compositor_test.h"
#include "../support/stderr_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Place SOMEWHERE{0, 0, 10, 10};

class SurfaceBackends : public CompositorTest {
protected:
    SurfaceBackends() { open_server(); }

    // "primary", "second", "null" or "none".
    static std::string output_of(const Backend *backend)
    {
        if (backend == nullptr)
            return "none";
        if (backend->displayfunc == &fb_displayfunc)
            return "primary";
        return backend->displayfunc == &fb2_displayfunc ? "second" : "null";
    }
};

TEST_F(SurfaceBackends, TheBackendsNameSelectsItsRecord)
{
    const std::pair<const char *, const char *> cases[] = {
        {"fb", "primary"},   {"fb2", "second"},    {"x", "null"},    {"xemul", "primary"}, {"unknown", "primary"},
        {"fb22", "primary"}, {"fb2.a", "primary"}, {"X", "primary"}, {"", "primary"},      {"fb2 ", "primary"},
    };
    for (const auto &[name, output] : cases)
        EXPECT_EQ(output_of(fs_add_backend(server, name)), output) << name;
}

TEST_F(SurfaceBackends, TheTextBeforeTheFirstDotOfASurfacesNameSelectsItsBackend)
{
    const std::pair<const char *, const char *> cases[] = {
        {"fb", "primary"},      {"fb.menu", "primary"}, {"fb2", "second"},      {"fb2.video", "second"},
        {"fb2.a.b", "second"},  {"x", "null"},          {"x.anything", "null"}, {"xemul", "primary"},
        {"xemul.a", "primary"}, {"fb22", "primary"},    {"fb22.a", "primary"},  {"fb2a.b", "primary"},
        {"clock", "primary"},   {".fb2", "second"},     {"...fb2.a", "second"}, {".x.fb2", "null"},
        {"", "none"},           {".", "none"},          {"....", "none"},
    };
    for (const auto &[name, output] : cases)
        EXPECT_EQ(output_of(add(name, SOMEWHERE, RGB16)->backend), output) << name;
}

TEST_F(SurfaceBackends, BindingTellsWhetherThereIsABackend)
{
    ImageSurface *bound = add("fb.a", SOMEWHERE, RGB16);
    EXPECT_EQ(fs_set_surface_backend(server, bound), 1);
    ImageSurface *unbound = add("...", SOMEWHERE, RGB16);
    EXPECT_EQ(fs_set_surface_backend(server, unbound), -1);
    free(unbound->name);
    unbound->name = nullptr;
    EXPECT_EQ(fs_set_surface_backend(server, unbound), -1);
}

TEST_F(SurfaceBackends, ANullBackendNameIsRefusedWithAMessage)
{
    EXPECT_EQ(complained([&] { EXPECT_EQ(fs_add_backend(server, nullptr), nullptr); }), "fs_add_backend:name=(null)\n");
}

TEST_F(SurfaceBackends, FirstUseInitialisesAndDescribesTheScreen)
{
    primary_output.depth = 16;
    primary_output.stride = 1024;
    const std::string text = printed([&] { add("fb.a", SOMEWHERE, RGB16); });
    EXPECT_EQ(text, "screen info is\n"
                    "width = 320 height = 240 depth = 16 stride = 1024\n"
                    "colormask = red:0000f800, green:000007e0, blue:0000001f, alpha:00000000, has_alph = 0\n"
                    "pixel unit: 3 bytes, byte order: LSB\n");
}

TEST_F(SurfaceBackends, TheSecondLayerIsDescribedWithItsAlpha)
{
    second_output.alpha_mask = 0xFF000000;
    second_output.byte_order = 1;
    const std::string text = printed([&] { add("fb2.a", SOMEWHERE, RGB16); });
    EXPECT_EQ(text, "screen info is\n"
                    "width = 320 height = 240 depth = 32 stride = 1280\n"
                    "colormask = red:00ff0000, green:0000ff00, blue:000000ff, alpha:ff000000, has_alph = 1\n"
                    "pixel unit: 4 bytes, byte order: MSB\n");
}

TEST_F(SurfaceBackends, InitIsAskedForTheScreensSize)
{
    close_server();
    open_server(200, 100);
    ImageSurface *surface = add("fb.a", SOMEWHERE, RGB16);
    EXPECT_EQ(primary_output.requested_w, 200);
    EXPECT_EQ(primary_output.requested_h, 100);
    EXPECT_EQ(surface->backend->frame_img->width, 200);
    EXPECT_EQ(surface->backend->frame_img->height, 100);
}

TEST_F(SurfaceBackends, AReadyBackendHasImagesRegionsAndCounts)
{
    primary_output.stride = 1300;
    const Backend *backend = add("fb.a", SOMEWHERE, RGB16)->backend;
    EXPECT_EQ(backend->state, BACKEND_READY);
    EXPECT_EQ(backend->use_count, 1);
    EXPECT_EQ(backend->sync_count, 0);
    EXPECT_EQ(backend->secondary, 0);
    EXPECT_STREQ(backend->name, "fb");
    EXPECT_EQ(backend->work_img->width, 320);
    EXPECT_EQ(backend->work_img->height, 240);
    EXPECT_EQ(backend->work_img->stride, 320 * 4);
    EXPECT_EQ(backend->frame_img->width, 320);
    EXPECT_EQ(backend->frame_img->height, 240);
    EXPECT_EQ(backend->frame_img->stride, 1300);
    EXPECT_EQ(backend->frame_img->pixels, primary_output.pixels->data());
    EXPECT_THAT(rects_of(backend->clear_region), IsEmpty());
    EXPECT_THAT(rects_of(backend->damage_region), IsEmpty());
}

TEST_F(SurfaceBackends, TheSecondLayerIsMarkedSecondary)
{
    const Backend *backend = add("fb2.a", SOMEWHERE, RGB16)->backend;
    EXPECT_EQ(backend->secondary, 1);
    EXPECT_STREQ(backend->name, "fb2");
}

TEST_F(SurfaceBackends, WorkRowsAreFourBytesPerPixelWhateverTheDepth)
{
    primary_output.depth = 16;
    EXPECT_EQ(add("fb.a", SOMEWHERE, RGB16)->backend->work_img->stride, 320 * 4);
}

struct DepthCase {
    uint32_t depth;
    int32_t primary_format, second_format;
};

TEST_F(SurfaceBackends, TheDepthAndTheAlphaDecideTheOutputsFormat)
{
    for (const DepthCase &expected :
         {DepthCase{8, RGB16, RGB16}, DepthCase{16, RGB16, RGB16}, DepthCase{18, RGB18, RGB18},
          DepthCase{24, XRGB32, ARGB32}, DepthCase{32, XRGB32, ARGB32}}) {
        SCOPED_TRACE(expected.depth);
        primary_output.depth = second_output.depth = expected.depth;
        ImageSurface *first = add("fb.a", SOMEWHERE, RGB16);
        ImageSurface *second = add("fb2.a", SOMEWHERE, RGB16);
        EXPECT_EQ(first->backend->frame_img->format, expected.primary_format);
        EXPECT_EQ(first->backend->work_img->format, expected.primary_format);
        EXPECT_EQ(second->backend->frame_img->format, expected.second_format);
        EXPECT_EQ(second->backend->work_img->format, expected.second_format);
        fs_remove_surface(server, first);
        fs_remove_surface(server, second);
    }
}

TEST_F(SurfaceBackends, ASecondSurfaceOnlyCounts)
{
    ImageSurface *first = add("fb.a", SOMEWHERE, RGB16);
    EXPECT_EQ(printed([&] { EXPECT_EQ(add("other", SOMEWHERE, RGB16)->backend, first->backend); }), "");
    EXPECT_EQ(first->backend->use_count, 2);
    EXPECT_EQ(primary_output.count(OutputCall::INIT), 1);
    EXPECT_EQ(server->n_backend, 1);
}

TEST_F(SurfaceBackends, TheLastSurfaceReleasesItsBackendAndTheNextOneOpensItAgain)
{
    ImageSurface *first = add("fb.a", SOMEWHERE, RGB16);
    ImageSurface *last = add("fb.b", SOMEWHERE, RGB16);
    Backend *backend = first->backend;
    fs_remove_surface(server, first);
    EXPECT_EQ(primary_output.count(OutputCall::RELEASE), 0);
    EXPECT_EQ(backend->use_count, 1);
    fs_remove_surface(server, last);
    EXPECT_EQ(primary_output.count(OutputCall::RELEASE), 1);
    EXPECT_EQ(backend->state, BACKEND_UNUSED);
    EXPECT_EQ(server->n_backend, 0);
    EXPECT_EQ(server->backends, nullptr);

    const std::string text = printed([&] { add("fb.c", SOMEWHERE, RGB16); });
    EXPECT_EQ(text.rfind("screen info is\n", 0), 0u);
    EXPECT_EQ(primary_output.count(OutputCall::INIT), 2);
    EXPECT_EQ(backend->use_count, 1);
}

TEST_F(SurfaceBackends, ReopeningStartsTheSyncCountAtZero)
{
    ImageSurface *surface = add_shown("fb.a", SOMEWHERE, RGB16);
    fs_set_sync(server, surface, 1);
    fs_remove_backend(server, "fb");
    EXPECT_EQ(add("fb.b", SOMEWHERE, RGB16)->backend->sync_count, 0);
}

TEST_F(SurfaceBackends, BackendsAreListedInOrderOfFirstUse)
{
    Backend *second = add("fb2.a", SOMEWHERE, RGB16)->backend;
    Backend *primary = add("fb.a", SOMEWHERE, RGB16)->backend;
    ASSERT_EQ(server->n_backend, 2);
    EXPECT_EQ(server->backends[0], second);
    EXPECT_EQ(server->backends[1], primary);
    fs_remove_backend(server, "fb2");
    ASSERT_EQ(server->n_backend, 1);
    EXPECT_EQ(server->backends[0], primary);
    EXPECT_EQ(server->backends[1], nullptr);
}

TEST_F(SurfaceBackends, RemovingABackendIgnoresItsUseCountAndUnknownNames)
{
    ImageSurface *surface = add("fb.a", SOMEWHERE, RGB16);
    add("fb.b", SOMEWHERE, RGB16);
    for (const char *name : {"fb2", "x", "nothing", static_cast<const char *>(nullptr)})
        fs_remove_backend(server, name);
    EXPECT_EQ(server->n_backend, 1);
    fs_remove_backend(server, "fb");
    EXPECT_EQ(server->n_backend, 0);
    EXPECT_EQ(surface->backend->state, BACKEND_UNUSED);
    EXPECT_EQ(surface->backend->name, nullptr);
    EXPECT_EQ(primary_output.count(OutputCall::RELEASE), 1);
}

TEST_F(SurfaceBackends, DestroyReleasesEveryBackendInOrder)
{
    add("fb2.a", SOMEWHERE, RGB16);
    add("fb.a", SOMEWHERE, RGB16);
    add("fb.b", SOMEWHERE, RGB16);
    close_server();
    EXPECT_EQ(primary_output.count(OutputCall::RELEASE), 1);
    EXPECT_EQ(second_output.count(OutputCall::RELEASE), 1);
}

TEST_F(SurfaceBackends, AFailedInitLeavesTheSurfaceWithoutABackendAndIsTriedAgain)
{
    primary_output.refuses = true;
    ImageSurface *surface = nullptr;
    EXPECT_EQ(complained([&] { surface = add("fb.a", {10, 20, 30, 40}, RGB16); }), "init failed\n");
    ASSERT_NE(surface, nullptr);
    EXPECT_EQ(surface->backend, nullptr);
    EXPECT_EQ(server->n_surface, 1);
    EXPECT_EQ(server->n_backend, 0);

    primary_output.refuses = false;
    ImageSurface *next = add("fb.b", SOMEWHERE, RGB16);
    ASSERT_NE(next->backend, nullptr);
    EXPECT_EQ(next->backend->state, BACKEND_READY);
    EXPECT_EQ(next->backend->use_count, 1);
    EXPECT_EQ(primary_output.count(OutputCall::INIT), 2);
    EXPECT_EQ(surface->backend, nullptr);
}

TEST_F(SurfaceBackends, AFailedInitPrintsNoScreen)
{
    primary_output.refuses = true;
    const StderrCapture quiet;
    EXPECT_EQ(printed([&] { add("fb.a", SOMEWHERE, RGB16); }), "");
}

TEST_F(SurfaceBackends, TheNullBackendHasNoOutputAndStays)
{
    ImageSurface *surface = add("x", SOMEWHERE, RGB16);
    Backend *backend = surface->backend;
    EXPECT_EQ(backend->state, BACKEND_READY);
    EXPECT_EQ(backend->name, nullptr);
    EXPECT_EQ(backend->displayfunc, nullptr);
    EXPECT_EQ(backend->frame_img, nullptr);
    EXPECT_EQ(backend->work_img, nullptr);
    EXPECT_EQ(server->n_backend, 0);
    const int32_t users = backend->use_count;
    ImageSurface *other = add("x.more", SOMEWHERE, RGB16);
    EXPECT_EQ(other->backend, backend);
    EXPECT_EQ(backend->use_count, users + 1);
    fs_remove_surface(server, other);
    fs_remove_surface(server, surface);
    EXPECT_EQ(backend->use_count, users - 1);
    EXPECT_EQ(backend->state, BACKEND_READY);
}

// Everything that a client can ask for, on a surface that has nothing to be drawn on.
void ask_for_everything(FbServer *server, ImageSurface *surface)
{
    fs_set_sync(server, surface, 1);
    fs_show_surface(server, surface);
    settle();
    fs_add_dirty(server, surface, 0, 0, 5, 5);
    settle();
    fs_move_surface(server, surface, 5, 5);
    fs_set_lock_area(server, surface, 0, 0, 5, 5);
    fs_set_unlock(server, surface);
    fs_block_until_unlock(server, surface);
    fs_set_lock_area(server, surface, 0, 0, 5, 5);
    fs_set_unlock(server, surface);
    fs_set_level_surface(server, surface, 3);
    fs_set_clip(server, surface, 0, 0, 100, 100);
    fs_set_opaque_surface(server, surface, 0, 0, 5, 5);
    settle();
    fs_set_color_plane(server, surface, static_cast<int32_t>(0x80FFFFFF));
    fs_set_scale(server, surface, 0, 0, 8, 8, 0, 0, 16, 16);
    settle();
    fs_set_scale(server, surface, 0, 0, 8, 8, 0, 0, 8, 8);
    fs_resize_surface(server, surface, 4, 4);
    settle();
    fs_dump_status(server);
    fs_hide_surface(server, surface);
    settle();
    fs_remove_surface(server, surface);
    settle();
}

TEST_F(SurfaceBackends, EveryOperationIsDefinedOnTheNullBackend)
{
    ImageSurface *surface = add("x", SOMEWHERE, ARGB32);
    const Backend *backend = surface->backend;
    const StderrCapture quiet;
    ask_for_everything(server, surface);
    EXPECT_EQ(backend->sync_count, 0);
    EXPECT_EQ(server->n_surface, 0);
    EXPECT_EQ(server->lock_count, 0);
}

TEST_F(SurfaceBackends, EveryOperationIsDefinedWithoutABackend)
{
    const StderrCapture quiet;
    for (const char *name : {"...", "fb2.a"}) {
        second_output.refuses = true;
        ImageSurface *surface = add(name, SOMEWHERE, ARGB32);
        ASSERT_EQ(surface->backend, nullptr);
        ask_for_everything(server, surface);
        EXPECT_EQ(server->n_surface, 0);
        EXPECT_EQ(server->lock_count, 0);
    }
}

TEST_F(SurfaceBackends, SurfacesWithoutAnOutputDoNotDisturbTheOthers)
{
    ImageSurface *seen = add_shown("fb.a", {10, 10, 10, 10}, XRGB32);
    paint(seen, 0x123456);
    add_shown("x.a", {0, 0, 100, 100}, XRGB32, 5);
    add_shown("...", {0, 0, 100, 100}, XRGB32, 5);
    settle();
    EXPECT_EQ(primary_output.pixel(15, 15), 0x123456u);
    EXPECT_EQ(primary_output.pixel(25, 25), 0u);
}

} // namespace
