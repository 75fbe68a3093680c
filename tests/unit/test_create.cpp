// SPDX-License-Identifier: MIT
// The request that makes a surface out of a client's shared memory, and the life of that memory.
#include <climits>

#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/command_test.h"
#include "../support/failing_memory.h"

namespace {

class CreateCommand : public CommandTest {
protected:
    CreateCommand() { client = connect("fb.client"); }

    void settle_quietly()
    {
        const StderrCapture silent;
        settle();
    }

    mc_connection *client;
};

TEST_F(CreateCommand, ItMakesAHiddenSurfaceWithTheArgumentsInTheirPlaces)
{
    SharedObject object(512 * 40);
    const auto reply = create(client, {1, 32, {11, 22, 33, 40}, 512, 6, 90}, object.name.c_str());
    EXPECT_EQ(reply, std::nullopt);
    const ImageSurface *surface = surface_of(client);
    ASSERT_NE(surface, nullptr);
    EXPECT_EQ(server->surfaces[0], surface);
    EXPECT_EQ(surface->area, (Rect{11, 22, 44, 62}));
    EXPECT_EQ(surface->img->width, 33);
    EXPECT_EQ(surface->img->height, 40);
    EXPECT_EQ(surface->img->stride, 512);
    EXPECT_EQ(surface->img->format, ARGB32);
    EXPECT_EQ(surface->level, 6);
    EXPECT_EQ(surface->rotation, 90);
    EXPECT_STREQ(surface->name, "fb.client");
    EXPECT_FALSE(surface_has(surface, SURFACE_SHOWN));
}

TEST_F(CreateCommand, DepthAndAlphaDecideTheFormat)
{
    for (const auto &[depth, alpha, format] : {std::tuple{32, 1, ARGB32},
                                               {32, -5, ARGB32},
                                               {32, 0, XRGB32},
                                               {16, 0, RGB16},
                                               {16, 1, RGB16},
                                               {18, 0, RGB18},
                                               {18, 1, RGB18}}) {
        mc_connection *other = connect("x");
        EXPECT_EQ(create(other, {.alpha = alpha, .depth = depth})->img->format, format) << depth << " " << alpha;
    }
}

TEST_F(CreateCommand, TheNameIsGoneAtOnce)
{
    SharedObject object(400 * 50);
    create(client, {}, object.name.c_str());
    EXPECT_FALSE(object.has_name());
}

TEST_F(CreateCommand, TheClientsPixelsAreShown)
{
    SharedObject object(400 * 50);
    create(client, {}, object.name.c_str());
    object.fill(0x00345678);
    ask(client, "show");
    settle();
    EXPECT_EQ(primary_output.pixel(10, 20), 0x345678u);
    EXPECT_EQ(primary_output.pixel(109, 69), 0x345678u);
    object.fill(0x00876543);
    ask(client, "dirty", {0, 0, 100, 50});
    settle();
    EXPECT_EQ(primary_output.pixel(109, 69), 0x876543u);
}

TEST_F(CreateCommand, AWidthOrHeightBelowOneIsRefusedAndNothingIsOpened)
{
    SharedObject object(400);
    for (const auto &[w, h] : {std::pair{0, 50}, {50, 0}, {-1, 50}, {50, INT_MIN}, {0, 0}}) {
        const std::string text = printed([&, w = w, h = h] {
            EXPECT_EQ(create(client, {.place = {0, 0, w, h}}, object.name.c_str()), std::nullopt);
        });
        EXPECT_EQ(text, "Invalid pfb width/height (" + std::to_string(w) + "/" + std::to_string(h) + ")\n");
    }
    EXPECT_TRUE(object.has_name());
    EXPECT_EQ(server->n_surface, 0);
    EXPECT_EQ(surface_of(client), nullptr);
}

TEST_F(CreateCommand, AnUnknownDepthIsRefusedAfterTheNameIsGone)
{
    for (const int32_t depth : {24, 0, 15, 33, -16}) {
        SharedObject object(400 * 50);
        const std::string text = printed(
            [&] { EXPECT_EQ(create(client, {.alpha = 7, .depth = depth}, object.name.c_str()), std::nullopt); });
        EXPECT_EQ(text, "unsupported color depth&alpha combination:depth=" + std::to_string(depth) + " alpha=7\n");
        EXPECT_FALSE(object.has_name());
    }
    EXPECT_EQ(server->n_surface, 0);
    EXPECT_EQ(surface_of(client), nullptr);
}

TEST_F(CreateCommand, AMissingObjectEndsTheServer)
{
    const std::string name = "/pfb-test-missing-" + std::to_string(getpid());
    EXPECT_ABORT_AFTER("shm_open: No such file or directory\n", create(client, {}, name.c_str()), "fbserver/", "create",
                       "0");
}

TEST_F(CreateCommand, AMappingThatCannotBeHadEndsTheServer)
{
    SharedObject object(400 * 50);
    const char *name = object.name.c_str();
    for (const int32_t stride : {0, -4, 1 << 28}) { // 2^28 x 64 is 0 in 32 bits
        EXPECT_ABORT_AFTER("mmap: ", create(client, {.place = {0, 0, 10, 64}, .stride = stride}, name), "fbserver/",
                           "create", "0");
    }
}

TEST_F(CreateCommand, WithoutMemoryTheConnectionHasNoSurface)
{
    bool refused = false;
    const std::string message = complained([&] {
        // Which of the allocations on the way is the surface's own shows in the message.
        for (int nth = 1; nth < 10 && !refused; nth++) {
            SharedObject again(400 * 50);
            mc_packet *one = mc_packet_new_command("create");
            mc_packet_build_args(one, "iiiiiiiiis", 0, 32, 0, 0, 100, 50, 400, 0, 0, again.name.c_str());
            fail_allocation(MALLOC | CALLOC, nth);
            EXPECT_EQ(handle_command(client, one), nullptr);
            refused = allocation_failed() && surface_of(client) == nullptr;
            mc_packet_free(one);
        }
    });
    EXPECT_TRUE(refused);
    EXPECT_THAT(message, testing::HasSubstr("ImageSurface malloc error\n"));
}

// The connection loses its surface, which stays; what it asks for then goes to the selected one, as without a "create".
TEST_F(CreateCommand, ASecondOneWithoutMemoryTakesTheFirstAwayFromItsConnection)
{
    ImageSurface *first = create(client, {});
    SharedObject object(400 * 50);
    const std::string message = complained([&] {
        mc_packet *request = mc_packet_new_command("create");
        mc_packet_build_args(request, "iiiiiiiiis", 0, 32, 0, 0, 100, 50, 400, 0, 0, object.name.c_str());
        fail_allocation(CALLOC, 1);
        EXPECT_EQ(handle_command(client, request), nullptr);
        EXPECT_TRUE(allocation_failed());
        mc_packet_free(request);
    });
    EXPECT_EQ(message, "ImageSurface malloc error\n");
    EXPECT_FALSE(object.has_name());
    EXPECT_EQ(surface_of(client), nullptr);
    selected_surface_index = -1;
    EXPECT_EQ(printed([&] { ask(client, "move", {1, 1}); }), "handle_command: not yet create surface\n");
    EXPECT_EQ(first->area.x1, 10);
    ask(client, "set_surface", {"fb.client"});
    ask(client, "move", {1, 1});
    EXPECT_EQ(first->area.x1, 1);
    hang_up(client);
    ASSERT_EQ(server->n_surface, 1);
    EXPECT_EQ(server->surfaces[0], first);
}

TEST_F(CreateCommand, ASecondOneReplacesTheFirstWhichStays)
{
    ImageSurface *first = create(client, {});
    ImageSurface *second = create(client, {});
    EXPECT_NE(first, second);
    EXPECT_EQ(server->n_surface, 2);
    ask(client, "move", {1, 1});
    EXPECT_EQ(second->area.x1, 1);
    EXPECT_EQ(first->area.x1, 10);
    hang_up(client);
    ASSERT_EQ(server->n_surface, 1);
    EXPECT_EQ(server->surfaces[0], first);
}

TEST_F(CreateCommand, TheConnectionsNameChoosesTheOutput)
{
    mc_connection *second = connect("fb2.video");
    EXPECT_EQ(create(client, {})->backend->displayfunc, &fb_displayfunc);
    EXPECT_EQ(create(second, {})->backend->displayfunc, &fb2_displayfunc);
}

// ---- the memory's life ----

TEST_F(CreateCommand, AfterTheSurfaceIsGoneItsPixelsCannotBeTouchedAndTheNextClientIsMappedThere)
{
    void *pixels = create(client, {})->img->pixels;
    hang_up(client);
    EXPECT_EXIT(
        {
            prepare_to_die();
            *static_cast<volatile uint32_t *>(pixels) = 1;
        },
        [](int status) { return !WIFEXITED(status) || WEXITSTATUS(status) != 0; }, "");
    mc_connection *next = connect("fb.next");
    EXPECT_EQ(create(next, {})->img->pixels, pixels);
}

TEST_F(CreateCommand, AClientThatTruncatesItsMemoryDisturbsNobody)
{
    SharedObject cut(400 * 50), whole(400 * 50);
    create(client, {}, cut.name.c_str());
    mc_connection *other = connect("fb.other");
    create(other, {.place = {150, 100, 100, 50}}, whole.name.c_str());
    cut.fill(0x00111111);
    whole.fill(0x00222222);
    cut.cut_to(0);
    ask(client, "show");
    ask(other, "show");
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(50, 40), 0u);
    EXPECT_EQ(primary_output.pixel(200, 120), 0x222222u);
    whole.fill(0x00333333);
    ask(other, "dirty", {0, 0, 100, 50});
    ask(client, "dirty", {0, 0, 100, 50});
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(200, 120), 0x333333u);
}

// What is missing is met by the scaled refresh only.
TEST_F(CreateCommand, ATruncatedMemoryCanBeScaled)
{
    SharedObject object(4 * 4096);
    create(client, {.place = {0, 0, 64, 64}, .stride = 256}, object.name.c_str());
    object.fill(0x00445566);
    object.cut_to(4096); // 16 rows of 64
    ask(client, "set_scale", {0, 0, 64, 64, 0, 0, 128, 128});
    ask(client, "show");
    const std::string told = "shared memory of fb.client is too short: what is missing shows as zero\n";
    EXPECT_EQ(complained([] { settle(); }), told);
    EXPECT_EQ(primary_output.pixel(127, 31), 0x445566u);
    EXPECT_EQ(primary_output.pixel(0, 32), 0u);
    EXPECT_EQ(primary_output.pixel(127, 127), 0u);
    ask(client, "set_scale", {0, 0, 64, 64, 0, 0, 100, 96});
    object.cut_to(0); // and the rest of it goes while it is scaled
    ask(client, "dirty", {0, 0, 64, 64});
    EXPECT_EQ(complained([] { settle(); }), "");
    EXPECT_EQ(primary_output.pixel(0, 0), 0u);
    ask(client, "set_scale", {0, 0, 64, 64, 0, 0, 64, 64});
    settle();
    hang_up(client);
}

TEST_F(CreateCommand, AnObjectThatIsTooSmallShowsWhatItHas)
{
    SharedObject object(4096);
    create(client, {}, object.name.c_str());
    object.fill(0x00445566);
    ask(client, "show");
    settle_quietly();
    EXPECT_EQ(primary_output.pixel(10, 20), 0x445566u);
    EXPECT_EQ(primary_output.pixel(109, 69), 0u);
}

} // namespace
