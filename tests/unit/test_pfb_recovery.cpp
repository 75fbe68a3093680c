// SPDX-License-Identifier: MIT
// What comes back of a client's surface when the server has ended, and what a client does meanwhile.
#include "pfb_recovery.h"

#include <csignal>
#include <cstring>
#include <sys/resource.h>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

TEST_F(PfbRecovery, AHiddenSurfaceIsMadeAsItWas)
{
    create();
    EXPECT_EQ(service.memory_name.empty(), false);
    const std::string first = service.memory_name;
    EXPECT_THAT(sent_after_the_end(), ElementsAre("create iiiiiiiiis 0 32 10 20 100 50 448 3 0 NAME", DEPTH));
    EXPECT_NE(service.memory_name, first);
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_RESTORED));
}

TEST_F(PfbRecovery, PixelsAreCopiedAndStayWhereTheyAre)
{
    create();
    auto *pixels = static_cast<uint32_t *>(pfb_pixels(client));
    pixels[0] = 0xabcdef01;
    pixels[112 * 49 + 99] = 0x10203040;
    sent_after_the_end();
    EXPECT_EQ(pfb_pixels(client), pixels);
    EXPECT_EQ(service.first_word, 0xabcdef01);
    EXPECT_EQ(pixels[1], 0x12345678u) << "the new server's memory is not the one at the address";
    EXPECT_EQ(pixels[112 * 49 + 99], 0x10203040u);
}

TEST_F(PfbRecovery, ItNeedsNoFunctionThatIsTold)
{
    create();
    EXPECT_EQ(pfb_set_event_func(client, nullptr, nullptr), PFB_OK);
    EXPECT_THAT(sent_after_the_end(), ElementsAre(StartsWith("create "), DEPTH));
    EXPECT_TRUE(events.empty());
}

TEST_F(PfbRecovery, EverythingThatWasSetComesBackBeforeItIsShown)
{
    create();
    EXPECT_EQ(pfb_set_scale(client, 1, 2, 50, 40, -3, 4, 80, 60), PFB_OK);
    EXPECT_EQ(pfb_move(client, -5, 6), PFB_OK);
    EXPECT_EQ(pfb_resize(client, 70, 60), PFB_OK);
    EXPECT_EQ(pfb_set_layer(client, -7), PFB_OK);
    EXPECT_EQ(pfb_set_clip(client, 1, 2, 3, 0), PFB_OK);
    EXPECT_EQ(pfb_set_opaque_area(client, 4, 5, 6, 7), PFB_OK);
    EXPECT_EQ(pfb_set_color_plane(client, PFB_PLANE_VEIL(128)), PFB_OK);
    EXPECT_EQ(pfb_set_sync(client, 1), PFB_OK);
    EXPECT_EQ(pfb_show(client), PFB_OK);
    EXPECT_EQ(pfb_dirty(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 1, 2, 3, 4), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 1, 2, 3, 4), PFB_OK);
    EXPECT_THAT(sent_after_the_end(),
                ElementsAre("create iiiiiiiiis 0 32 -5 6 100 50 448 -7 0 NAME",
                            "set_scale iiiiiiii 1 2 50 40 -3 4 80 60", "move ii -5 6", "resize ii 70 60",
                            "set_clip iiii 1 2 3 0", "opaque_area iiii 4 5 6 7", "color_plane i -2130706433",
                            "set_sync i 1", "lock_area iiii 0 0 0 0", "lock_area iiii 0 0 0 0", "block_until_unlock ",
                            "show ", DEPTH));
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
}

TEST_F(PfbRecovery, WhatWasUndoneIsNotMadeAgain)
{
    create();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    EXPECT_EQ(pfb_hide(client), PFB_OK);
    EXPECT_EQ(pfb_set_sync(client, 1), PFB_OK);
    EXPECT_EQ(pfb_set_sync(client, 0), PFB_OK);
    EXPECT_EQ(pfb_set_color_plane(client, PFB_PLANE_VEIL(1)), PFB_OK);
    EXPECT_EQ(pfb_set_color_plane(client, PFB_PLANE_NONE), PFB_OK);
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_move(client, 1, 2), PFB_OK);
    EXPECT_THAT(sent_after_the_end(), ElementsAre("create iiiiiiiiis 0 32 1 2 100 50 448 3 0 NAME", DEPTH));
}

// The end of a scale leaves the surface at the destination, opaque as far as that goes; scaling forgets the opaque
// area.
TEST_F(PfbRecovery, AScaleThatHasEndedLeavesItsPlaceAndOpaqueArea)
{
    create();
    EXPECT_EQ(pfb_set_opaque_area(client, 4, 5, 6, 7), PFB_OK);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 100, 50, 0, 0, 80, 60), PFB_OK);
    EXPECT_THAT(sent_after_the_end(), ElementsAre(StartsWith("create iiiiiiiiis 0 32 0 0 "),
                                                  "set_scale iiiiiiii 0 0 100 50 0 0 80 60", DEPTH));
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 40, 30, 7, 8, 40, 30), PFB_OK);
    EXPECT_THAT(sent_after_the_end(), ElementsAre(StartsWith("create iiiiiiiiis 0 32 7 8 "), "resize ii 40 30",
                                                  "opaque_area iiii 0 0 40 30", DEPTH));
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 20, 20, 1, 1, 20, 20), PFB_OK) << "no scale to end: nothing happens";
    EXPECT_THAT(sent_after_the_end(), ElementsAre(StartsWith("create iiiiiiiiis 0 32 7 8 "), "resize ii 40 30",
                                                  "opaque_area iiii 0 0 40 30", DEPTH));
}

TEST_F(PfbRecovery, ASurfaceWithAlphaKeepsItsOpaqueAreaWhenScaled)
{
    create(PFB_FORMAT_ARGB32);
    EXPECT_EQ(pfb_set_opaque_area(client, 4, 5, 6, 7), PFB_OK);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 100, 50, 0, 0, 80, 60), PFB_OK);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 40, 30, 7, 8, 40, 30), PFB_OK);
    EXPECT_THAT(sent_after_the_end(), ElementsAre(StartsWith("create iiiiiiiiis 1 32 7 8 "), "resize ii 40 30",
                                                  "opaque_area iiii 4 5 6 7", DEPTH));
}

TEST_F(PfbRecovery, RequestsAreRememberedWhileThereIsNoServer)
{
    create();
    service.close();
    ASSERT_TRUE(lose());
    EXPECT_EQ(pfb_fd(client), -1);
    EXPECT_EQ(pfb_show(client), PFB_OK);
    EXPECT_EQ(pfb_move(client, 1, 2), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    memset(pfb_pixels(client), 0x77, 4);
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_dirty(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_resize(client, 101, 50), PFB_ERROR_ARGUMENT) << "checked as ever";
    service.take(0);
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(1), ElementsAre("create iiiiiiiiis 0 32 1 2 100 50 448 3 0 NAME", "lock_area iiii 0 0 0 0",
                                             "show ", DEPTH));
    EXPECT_EQ(service.first_word, 0x77777777u);
}

TEST_F(PfbRecovery, GettingOverItIsNoFailure)
{
    create();
    EXPECT_EQ(pfb_resize(client, 0, 0), PFB_ERROR_ARGUMENT);
    const std::string text = pfb_error_text();
    service.close();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_EQ(pfb_error(), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_error_text(), text);
}

// A limit of the process stands in for a full /dev/shm.
TEST_F(PfbRecovery, MemoryThatIsNotToBeHadIsTriedForAgain)
{
    create();
    EXPECT_EQ(pfb_move(client, 1000001, 0), PFB_ERROR_ARGUMENT);
    const std::string text = pfb_error_text();
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    const rlimit none = {4096, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    service.close();
    service.take(0);
    service.open();
    EXPECT_TRUE(dispatch_until([&] { return wakeups > 4; }));
    EXPECT_EQ(pfb_is_connected(client), 0);
    EXPECT_EQ(pfb_error(), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_error_text(), text);
    EXPECT_EQ(shared_objects(), 0u);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    signal(SIGXFSZ, handler);
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH));
}

TEST_F(PfbRecovery, AClientWithoutAMainLoopComesBackByItsRequests)
{
    create();
    service.close();
    service.take(0);
    service.open();
    int depth = 0;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    EXPECT_EQ(depth, 18);
    EXPECT_THAT(service.take(3), ElementsAre(StartsWith("create "), DEPTH, DEPTH));
    service.close();
    service.open();
    while (pfb_is_connected(client) == 0)
        ASSERT_EQ(pfb_move(client, 3, 4), PFB_OK);
    EXPECT_THAT(service.take(2), testing::Contains(StartsWith("create ")));
}

} // namespace
