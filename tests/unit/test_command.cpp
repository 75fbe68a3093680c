// SPDX-License-Identifier: MIT
// The requests of clients: what each word asks for, with which arguments in which order, and what it answers.
#include <gmock/gmock.h>

#include "../support/aborts.h"
#include "../support/command_test.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char *NOT_YET = "handle_command: not yet create surface\n";

class Commands : public CommandTest {
protected:
    Commands()
    {
        client = connect("fb.client");
        surface = create(client, {});
        fs_show_surface(server, surface);
        settle();
    }

    mc_connection *client;
    ImageSurface *surface; // shown and clean at (10, 20), 100 x 50, xRGB
};

// ---- each word ----

TEST_F(Commands, LockArea)
{
    EXPECT_EQ(ask(client, "lock_area", {1, 2, 30, 40}), "");
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{1, 2, 31, 42}));
    EXPECT_EQ(surface->lock_counter, 1);
    EXPECT_EQ(server->lock_count, 1);
}

TEST_F(Commands, Unlock)
{
    ask(client, "lock_area", {1, 2, 30, 40});
    EXPECT_EQ(ask(client, "unlock"), std::nullopt);
    EXPECT_EQ(surface->lock_counter, 0);
    EXPECT_EQ(server->lock_count, 0);
}

TEST_F(Commands, Dirty)
{
    EXPECT_EQ(ask(client, "dirty", {1, 2, 30, 40}), std::nullopt);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{1, 2, 31, 42}));
    EXPECT_EQ(surface->lock_counter, 0);
}

TEST_F(Commands, HideAndShow)
{
    EXPECT_EQ(ask(client, "hide"), std::nullopt);
    EXPECT_FALSE(surface_has(surface, SURFACE_SHOWN));
    EXPECT_EQ(ask(client, "show"), std::nullopt);
    EXPECT_TRUE(surface_has(surface, SURFACE_SHOWN));
}

TEST_F(Commands, Move)
{
    EXPECT_EQ(ask(client, "move", {33, 44}), std::nullopt);
    EXPECT_EQ(surface->area, (Rect{33, 44, 133, 94}));
}

TEST_F(Commands, Resize)
{
    EXPECT_EQ(ask(client, "resize", {33, 44}), std::nullopt);
    EXPECT_EQ(surface->area, (Rect{10, 20, 43, 64}));
}

TEST_F(Commands, SetLayer)
{
    EXPECT_EQ(ask(client, "set_layer", {-7}), std::nullopt);
    EXPECT_EQ(surface->level, -7);
    EXPECT_TRUE(surface_has(surface, SURFACE_DIRTY));
}

TEST_F(Commands, OpaqueArea)
{
    EXPECT_EQ(ask(client, "opaque_area", {1, 2, 30, 40}), std::nullopt);
    EXPECT_THAT(rects_of(surface->opaque_area), ElementsAre(Rect{1, 2, 31, 42}));
}

TEST_F(Commands, ColorPlane)
{
    EXPECT_EQ(ask(client, "color_plane", {0x12345678}), std::nullopt);
    EXPECT_EQ(surface->color_plane, 0x12345678);
}

TEST_F(Commands, Status)
{
    const std::string expected = printed([&] { fs_dump_status(server); });
    EXPECT_EQ(printed([&] { EXPECT_EQ(ask(client, "status"), std::nullopt); }), expected);
    EXPECT_THAT(expected, HasSubstr("name=fb.client"));
}

TEST_F(Commands, SetClip)
{
    EXPECT_EQ(ask(client, "set_clip", {11, 22, 30, 40}), std::nullopt);
    ASSERT_NE(surface->clip, nullptr);
    EXPECT_EQ(*surface->clip, (Rect{11, 22, 41, 62}));
}

TEST_F(Commands, SetScale)
{
    EXPECT_EQ(ask(client, "set_scale", {1, 2, 30, 40, 5, 6, 70, 80}), std::nullopt);
    ASSERT_NE(surface->scale_state, nullptr);
    EXPECT_EQ(surface->scale_state->src_rect, (Rect{1, 2, 31, 42}));
    EXPECT_EQ(surface->scale_state->dst_rect, (Rect{5, 6, 75, 86}));
}

TEST_F(Commands, SetSync)
{
    EXPECT_EQ(ask(client, "set_sync", {5}), std::nullopt);
    EXPECT_TRUE(surface_has(surface, SURFACE_SYNC));
    ask(client, "set_sync", {0});
    EXPECT_FALSE(surface_has(surface, SURFACE_SYNC));
}

TEST_F(Commands, BlockUntilUnlock)
{
    EXPECT_EQ(ask(client, "block_until_unlock"), std::nullopt);
    EXPECT_TRUE(surface_has(surface, SURFACE_BLOCK));
    EXPECT_EQ(surface->lock_counter, 1);
    ask(client, "lock_area", {0, 0, 1, 1});
    ask(client, "unlock");
}

TEST_F(Commands, SetColorFormatChangesNothing)
{
    const std::string before = state();
    EXPECT_EQ(printed([&] { EXPECT_EQ(ask(client, "set_color_format", {3}), std::nullopt); }), "");
    EXPECT_EQ(state(), before);
}

TEST_F(Commands, GetNativeColorDepthAnswersTheFramesDepth)
{
    for (const auto &[depth, answered] : {std::pair{16u, 16}, {18u, 18}, {24u, 32}, {32u, 32}}) {
        second_output.depth = depth;
        mc_connection *other = connect("fb2.other");
        create(other, {});
        int32_t answer = -1;
        EXPECT_EQ(ask(other, "get_native_color_depth", {}, &answer), "i");
        EXPECT_EQ(answer, answered);
        hang_up(other);
    }
}

TEST_F(Commands, GetNativeColorDepthAnswersZeroWhereThereIsNoImage)
{
    for (const char *name : {"x.other", "..."}) {
        mc_connection *other = connect(name);
        create(other, {});
        int32_t answer = -1;
        EXPECT_EQ(ask(other, "get_native_color_depth", {}, &answer), "i");
        EXPECT_EQ(answer, 0);
    }
}

// ---- words and arguments that do not fit ----

struct Word {
    const char *word;
    std::vector<int32_t> arguments; // one of them too few is nothing
};

TEST_F(Commands, WithAnArgumentMissingNothingHappensAndNothingIsAnswered)
{
    for (const Word &word :
         {Word{"lock_area", {1, 2, 30}}, Word{"dirty", {1, 2, 30}}, Word{"move", {33}}, Word{"resize", {33}},
          Word{"set_layer", {}}, Word{"opaque_area", {1, 2, 30}}, Word{"color_plane", {}}, Word{"set_clip", {1, 2, 30}},
          Word{"set_scale", {1, 2, 30, 40, 5, 6, 70}}, Word{"set_sync", {}}, Word{"set_color_format", {}},
          Word{"set_surface", {}}}) {
        SCOPED_TRACE(word.word);
        const std::string before = state();
        mc_packet *request = mc_packet_new_command(word.word);
        for (const int32_t argument : word.arguments)
            mc_packet_build_args(request, "i", argument);
        EXPECT_EQ(printed([&] { EXPECT_EQ(handle_command(client, request), nullptr); }), "");
        mc_packet_free(request);
        EXPECT_EQ(state(), before);
    }
}

TEST_F(Commands, AnArgumentOfTheWrongKindIsAMissingOne)
{
    const std::string before = state();
    EXPECT_EQ(ask(client, "move", {33, "44"}), std::nullopt);
    EXPECT_EQ(ask(client, "lock_area", {"1", 2, 3, 4}), std::nullopt);
    EXPECT_EQ(ask(client, "set_layer", {"5"}), std::nullopt);
    EXPECT_EQ(ask(client, "set_surface", {5}), std::nullopt);
    EXPECT_EQ(state(), before);
}

TEST_F(Commands, FurtherArgumentsAreIgnored)
{
    ask(client, "move", {33, 44, 55});
    EXPECT_EQ(surface->area, (Rect{33, 44, 133, 94}));
    ask(client, "hide", {1});
    EXPECT_FALSE(surface_has(surface, SURFACE_SHOWN));
}

TEST_F(Commands, UnknownWordsAreIgnoredSilently)
{
    const std::string before = state();
    for (const char *word : {"", "Hide", "hide ", "hid", "hidee", "set_level", "damage", "CREATE"})
        EXPECT_EQ(printed([&] { EXPECT_EQ(ask(client, word, {1, 2, 3, 4}), std::nullopt); }), "") << word;
    EXPECT_EQ(state(), before);
}

TEST_F(Commands, AnUnlockWithoutALockAborts)
{
    EXPECT_ABORT(ask(client, "unlock"), "composite/", "fs_set_unlock", "surface->lock_counter >= 0");
}

// ---- who is addressed ----

TEST_F(Commands, AConnectionWithASurfaceAddressesItsOwn)
{
    mc_connection *other = connect("fb.other");
    ImageSurface *own = create(other, {});
    ask(other, "move", {1, 1});
    EXPECT_EQ(own->area.x1, 1);
    EXPECT_EQ(surface->area.x1, 10);
}

TEST_F(Commands, AConnectionWithoutOneAddressesTheLowest)
{
    mc_connection *lower = connect("fb.lower");
    ImageSurface *lowest = create(lower, {.level = -5});
    mc_connection *visitor = connect("fb.visitor");
    ask(visitor, "show");
    EXPECT_TRUE(surface_has(lowest, SURFACE_SHOWN));
    ask(visitor, "move", {1, 1});
    EXPECT_EQ(lowest->area.x1, 1);
    EXPECT_EQ(surface->area.x1, 10);
}

TEST_F(Commands, SetSurfaceSelectsForEveryConnectionWithoutASurface)
{
    mc_connection *other = connect("fb.other");
    ImageSurface *wanted = create(other, {.level = 3});
    mc_connection *visitor = connect("fb.visitor"), *another = connect("fb.another");
    EXPECT_EQ(ask(visitor, "set_surface", {"fb.other"}), std::nullopt);
    EXPECT_EQ(selected_surface_index, 1);
    ask(another, "move", {1, 1});
    EXPECT_EQ(wanted->area.x1, 1);
    EXPECT_EQ(surface->area.x1, 10);
    ask(client, "move", {2, 2});
    EXPECT_EQ(surface->area.x1, 2);
}

TEST_F(Commands, SetSurfaceComparesTheWholeName)
{
    mc_connection *visitor = connect("fb.visitor");
    for (const char *name : {"fb", "fb.clien", "fb.client2", "FB.client", ""}) {
        selected_surface_index = 0;
        ask(visitor, "set_surface", {name});
        EXPECT_EQ(selected_surface_index, -1) << name;
    }
    ask(visitor, "set_surface", {"fb.client"});
    EXPECT_EQ(selected_surface_index, 0);
}

TEST_F(Commands, OfTwoSurfacesOfOneNameTheLowerIsSelected)
{
    create(connect("fb.low"), {.level = -1});
    create(connect("fb.twin"), {.level = 1});
    create(connect("fb.twin"), {.level = 2});
    mc_connection *visitor = connect("fb.visitor");
    ask(visitor, "set_surface", {"fb.twin"});
    EXPECT_EQ(selected_surface_index, 2);
}

TEST_F(Commands, AnIndexBeyondTheListIsNoSurface)
{
    mc_connection *visitor = connect("fb.visitor");
    selected_surface_index = 1;
    for (const char *word : {"show", "status", "set_surface", "set_color_format", "nonsense"})
        EXPECT_EQ(printed([&] { EXPECT_EQ(ask(visitor, word), std::nullopt); }), NOT_YET) << word;
}

TEST_F(Commands, AfterAFailedSelectionWordsThatNeedASurfaceSayThatThereIsNone)
{
    mc_connection *visitor = connect("fb.visitor");
    ask(visitor, "set_surface", {"nobody"});
    ASSERT_EQ(selected_surface_index, -1);
    const std::string before = state();
    const std::initializer_list<Argument> numbers = {1, 2, 30, 40, 5, 6, 70, 80};
    for (const char *word :
         {"lock_area", "unlock", "dirty", "show", "hide", "move", "resize", "set_layer", "opaque_area", "color_plane",
          "set_clip", "set_scale", "set_sync", "get_native_color_depth", "block_until_unlock"})
        EXPECT_EQ(printed([&] { EXPECT_EQ(ask(visitor, word, numbers), std::nullopt); }), NOT_YET) << word;
    EXPECT_EQ(state(), before);
}

TEST_F(Commands, AfterAFailedSelectionAClientCanSelectAgain)
{
    mc_connection *visitor = connect("fb.visitor");
    ask(visitor, "set_surface", {"nobody"});
    const std::string status = printed([&] { fs_dump_status(server); });
    EXPECT_EQ(printed([&] { ask(visitor, "status"); }), status);
    EXPECT_EQ(printed([&] { ask(visitor, "set_color_format", {1}); }), "");
    EXPECT_EQ(printed([&] { ask(visitor, "set_surface", {"fb.client"}); }), "");
    EXPECT_EQ(selected_surface_index, 0);
    ask(visitor, "move", {1, 1});
    EXPECT_EQ(surface->area.x1, 1);
}

TEST_F(Commands, AFailedSelectionDoesNotConcernAConnectionWithASurface)
{
    ask(connect("fb.visitor"), "set_surface", {"nobody"});
    ask(client, "move", {1, 1});
    EXPECT_EQ(surface->area.x1, 1);
}

// ---- hang-ups ----

TEST_F(Commands, AHangUpRemovesExactlyTheClientsSurface)
{
    mc_connection *other = connect("fb.other");
    create(other, {});
    hang_up(other);
    ASSERT_EQ(server->n_surface, 1);
    EXPECT_EQ(server->surfaces[0], surface);
}

TEST_F(Commands, AHangUpWithoutASurfaceOnlyCloses)
{
    const std::string before = state();
    hang_up(connect("fb.visitor"));
    EXPECT_EQ(state(), before);
}

TEST_F(Commands, AHangUpReleasesTheClientsLock)
{
    ask(client, "lock_area", {0, 0, 5, 5});
    ask(client, "lock_area", {0, 0, 5, 5});
    hang_up(client);
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_EQ(server->n_surface, 0);
}

TEST_F(Commands, TheLockOfASurfaceThatNobodyOwnsIsUndoneFromOutside)
{
    ask(client, "lock_area", {0, 0, 5, 5});
    ImageSurface *orphan = surface;
    create(client, {});
    hang_up(client);
    ASSERT_EQ(server->n_surface, 1);
    ASSERT_EQ(server->surfaces[0], orphan);
    EXPECT_EQ(server->lock_count, 1);
    mc_connection *visitor = connect("fb.visitor");
    ask(visitor, "set_surface", {"fb.client"});
    ask(visitor, "unlock");
    EXPECT_EQ(server->lock_count, 0);
    EXPECT_TRUE(render_is_pending());
    settle();
}

// ---- without any surface ----

class FirstCommands : public CommandTest {};

TEST_F(FirstCommands, WithoutAnySurfaceEveryWordButCreateIsRefused)
{
    mc_connection *visitor = connect("fb.visitor");
    for (const char *word :
         {"show", "status", "set_surface", "set_color_format", "get_native_color_depth", "lock_area", "nonsense", ""})
        EXPECT_EQ(printed([&] { EXPECT_EQ(ask(visitor, word, {"a"}), std::nullopt); }), NOT_YET) << word;
    EXPECT_EQ(selected_surface_index, 0);
}

TEST_F(FirstCommands, SetSurfaceOnAnEmptyListLeavesMinusOne)
{
    selected_surface_index = -1;
    EXPECT_EQ(printed([&] { ask(connect("fb.visitor"), "set_surface", {"a"}); }), "");
    EXPECT_EQ(selected_surface_index, -1);
}

} // namespace
