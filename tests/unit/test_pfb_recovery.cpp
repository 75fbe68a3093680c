// SPDX-License-Identifier: MIT
// What the client library does when the server ends, against a service that notes what it is sent.
#include "pfb.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include "pfb_service.h"

namespace {

using testing::ElementsAre;
using testing::StartsWith;
using Strings = std::vector<std::string>;

const std::string DEPTH = "get_native_color_depth ";
constexpr int PATIENCE_MS = 30000;

size_t entries(const char *folder, const std::string &prefix = "")
{
    size_t n = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        n += entry.path().filename().string().starts_with(prefix) ? 1 : 0;
    return n;
}

size_t shared_objects()
{
    return entries("/dev/shm", "pfb." + std::to_string(getpid()) + ".");
}

class PfbRecovery : public testing::Test {
protected:
    void SetUp() override
    {
        client = pfb_connect("fb.test");
        ASSERT_NE(client, nullptr) << pfb_error_text();
        pfb_set_timeout(client, PATIENCE_MS);
        pfb_set_event_func(
            client,
            [](pfb_client *, pfb_event event, void *self) {
                static_cast<PfbRecovery *>(self)->events.push_back(event);
            },
            this);
    }
    void TearDown() override
    {
        pfb_disconnect(client);
        EXPECT_EQ(shared_objects(), 0u);
    }

    void create(pfb_format format = PFB_FORMAT_XRGB32)
    {
        ASSERT_EQ(pfb_create(client, format, 10, 20, 100, 50, 3, 0), PFB_OK) << pfb_error_text();
        service.take(2);
    }
    // What an application's main loop does, until there is nothing to wait for. False after a generous while.
    bool dispatch_until(const std::function<bool()> &done)
    {
        pollfd entry = {pfb_poll_fd(client), POLLIN, 0};
        while (!done()) {
            if (poll(&entry, 1, PATIENCE_MS) <= 0)
                return false;
            wakeups++;
            EXPECT_EQ(pfb_dispatch(client), PFB_OK);
        }
        return true;
    }
    bool come_back()
    {
        return dispatch_until([&] { return pfb_is_connected(client) == 1; });
    }
    bool lose()
    {
        return dispatch_until([&] { return pfb_is_connected(client) == 0 && !events.empty(); });
    }
    // The service ends and is there again; what the client makes there.
    Strings sent_after_the_end()
    {
        service.close();
        service.take(0);
        service.open();
        EXPECT_TRUE(come_back());
        return service.take(1);
    }

    PfbService service;
    pfb_client *client = nullptr;
    std::vector<pfb_event> events;
    int wakeups = 0;
};

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
                            "set_sync i 1", "block_until_unlock ", "lock_area iiii 0 0 0 0", "lock_area iiii 0 0 0 0",
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
    EXPECT_EQ(pfb_error(), PFB_ERROR_ARGUMENT) << pfb_error_text();
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

TEST_F(PfbRecovery, WhatTheServerDiedOfIsNotSentAgain)
{
    create();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    for (const char *deadly : {"dirty iiii 1 2 3 4", "lock_area iiii 1 2 3 4"}) {
        service.die_of(deadly);
        EXPECT_EQ(pfb_dirty(client, 1, 2, 3, 4), PFB_OK);
        EXPECT_EQ(pfb_lock(client, 1, 2, 3, 4), PFB_OK);
        service.close();
        service.take(0);
        service.open();
        EXPECT_TRUE(come_back());
        EXPECT_THAT(service.take(1), ElementsAre(StartsWith("create "), "lock_area iiii 0 0 0 0", "show ", DEPTH));
        EXPECT_EQ(pfb_unlock(client), PFB_OK);
    }
}

TEST_F(PfbRecovery, AQuestionThatTheServerDiedOfIsAnsweredByTheNext)
{
    create();
    service.die_of(DEPTH);
    std::thread next([&] {
        service.take(1);
        service.close();
        service.open();
    });
    int depth = 0;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    EXPECT_EQ(depth, 18);
    next.join();
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH)) << "the restoration's own question only";
}

TEST_F(PfbRecovery, ACreateThatTheServerDiedOfIsNotSentAgain)
{
    service.die_of("create ");
    EXPECT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 10, 10, 0, 0), PFB_ERROR_GONE);
    EXPECT_EQ(pfb_pixels(client), nullptr);
    EXPECT_EQ(pfb_width(client), 0);
    EXPECT_EQ(shared_objects(), 0u) << "the name is the client's to remove";
    service.close();
    service.take(0);
    service.open();
    EXPECT_TRUE(come_back());
    create();
}

// A change that ends every server is left out after the second one; what an earlier server has lived through stays.
TEST_F(PfbRecovery, ADeadlyChangeIsLeftOutInTheEnd)
{
    create();
    EXPECT_EQ(pfb_move(client, 30, 40), PFB_OK);
    int depth;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    service.take(0);
    const std::string deadly = "resize ii 66 6";
    service.die_of(deadly);
    EXPECT_EQ(pfb_resize(client, 66, 6), PFB_OK);
    EXPECT_EQ(service.take(1).back(), deadly);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(std::count(events.begin(), events.end(), PFB_EVENT_REDUCED), 0);
        service.close();
        service.die_of(deadly);
        service.open();
        Strings sent;
        EXPECT_TRUE(dispatch_until([&] {
            const Strings more = service.take(0);
            sent.insert(sent.end(), more.begin(), more.end());
            return !sent.empty() && sent.back() == deadly;
        }));
        EXPECT_TRUE(lose());
    }
    service.close();
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre("create iiiiiiiiis 0 32 30 40 100 50 448 3 0 NAME", DEPTH));
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_REDUCED, PFB_EVENT_RESTORED));
    EXPECT_EQ(pfb_resize(client, 100, 50), PFB_OK);
}

// While it is away the client looks rarer and rarer: the number of times is bounded, however slow this machine is.
TEST_F(PfbRecovery, ALongAbsenceIsNotSpentTrying)
{
    create();
    service.close();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(dispatch_until([&] { return std::chrono::steady_clock::now() - start > std::chrono::seconds(1); }));
    EXPECT_LE(wakeups, 40);
    EXPECT_GE(wakeups, 3);
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST));
    service.open();
    EXPECT_TRUE(come_back());
}

// A server that ends over this client each time gets longer and longer times in between, for everybody's sake.
TEST_F(PfbRecovery, ServersThatEndAgainAndAgainAreLeftInPeace)
{
    create();
    service.close();
    service.take(0);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; i++) {
        service.die_of("create ");
        service.open();
        EXPECT_TRUE(dispatch_until([&] { return !service.take(0).empty(); }));
        service.close();
    }
    // A slow machine makes it longer, none makes it shorter: 100, 200 and 400 ms lie between the four.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(700));
    service.die_of("nothing any more");
    service.open();
    EXPECT_TRUE(come_back());
}

TEST_F(PfbRecovery, NothingIsLeftOfManyServers)
{
    create();
    const size_t descriptors = entries("/proc/self/fd");
    const int fd = pfb_poll_fd(client);
    for (int i = 0; i < 4; i++) {
        sent_after_the_end();
        EXPECT_EQ(pfb_poll_fd(client), fd);
        EXPECT_EQ(shared_objects(), 0u);
    }
    EXPECT_EQ(entries("/proc/self/fd"), descriptors);
}

TEST_F(PfbRecovery, AServerThatDoesNotAnswerYetHoldsNobodyUp)
{
    create();
    service.close();
    ASSERT_TRUE(lose());
    service.take(0);
    service.open();
    service.stall();
    EXPECT_TRUE(dispatch_until([&] { return shared_objects() == 1; })) << "the surface is on its way";
    EXPECT_EQ(pfb_dispatch(client), PFB_OK);
    EXPECT_EQ(pfb_is_connected(client), 0);
    pfb_set_timeout(client, 20);
    EXPECT_EQ(pfb_show(client), PFB_ERROR_TIMEOUT);
    pfb_set_timeout(client, PATIENCE_MS);
    service.go_on();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH));
}

TEST_F(PfbRecovery, NamesThatTheServerCannotRemoveGoAllTheSame)
{
    service.leave_names();
    create();
    EXPECT_EQ(shared_objects(), 0u);
    sent_after_the_end();
    EXPECT_EQ(shared_objects(), 0u);
}

// The name must not go before the server has been there: it would stop. So disconnecting waits for it.
TEST_F(PfbRecovery, DisconnectingOnTheWayBackLeavesNothing)
{
    service.leave_names();
    create();
    service.close();
    ASSERT_TRUE(lose());
    std::promise<void> is_stalled, may_go_on;
    std::thread staller([&] {
        service.stall();
        is_stalled.set_value();
        may_go_on.get_future().wait();
        service.go_on();
    });
    is_stalled.get_future().wait();
    service.open();
    EXPECT_TRUE(dispatch_until([&] { return shared_objects() == 1; }));
    may_go_on.set_value();
    pfb_disconnect(client);
    client = nullptr;
    staller.join();
    EXPECT_EQ(shared_objects(), 0u);
}

TEST_F(PfbRecovery, AClientWithoutASurfaceIsConnectedAgain)
{
    service.close();
    service.open();
    EXPECT_EQ(pfb_move(client, 1, 2), PFB_OK);
    EXPECT_THAT(service.take(1), ElementsAre("move ii 1 2"));
    service.close();
    pfb_set_timeout(client, 20);
    EXPECT_EQ(pfb_move(client, 3, 4), PFB_ERROR_TIMEOUT);
    service.open();
    EXPECT_TRUE(come_back());
    service.die_of(DEPTH);
    int depth = -1;
    pfb_set_timeout(client, PATIENCE_MS);
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_ERROR_GONE);
    EXPECT_EQ(depth, -1);
}

TEST_F(PfbRecovery, SwitchedOffItStaysGoneUntilItIsSwitchedOn)
{
    create();
    EXPECT_EQ(pfb_set_reconnect(client, 0), PFB_OK);
    service.close();
    service.take(0);
    service.open();
    EXPECT_EQ(pfb_dispatch(client), PFB_ERROR_GONE);
    EXPECT_EQ(pfb_show(client), PFB_ERROR_GONE);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_ERROR_GONE);
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
    EXPECT_EQ(pfb_set_reconnect(client, 1), PFB_OK);
    EXPECT_EQ(pfb_dispatch(client), PFB_OK);
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH)) << "a show that failed is not remembered";
}

TEST_F(PfbRecovery, TheCallbackMayAskForMore)
{
    create();
    pfb_set_event_func(
        client,
        [](pfb_client *c, pfb_event event, void *data) {
            *static_cast<int *>(data) += event == PFB_EVENT_RESTORED ? pfb_show(c) == PFB_OK : 0;
        },
        &wakeups);
    wakeups = 0;
    service.close();
    service.take(0);
    service.open();
    EXPECT_EQ(pfb_move(client, 5, 6), PFB_OK);
    while (pfb_is_connected(client) == 0)
        ASSERT_EQ(pfb_move(client, 5, 6), PFB_OK);
    EXPECT_EQ(wakeups, 1);
    EXPECT_THAT(service.take(3), testing::Contains("show "));
}

TEST(PfbRecoveryNull, NothingIsDoneWithNull)
{
    EXPECT_EQ(pfb_dispatch(nullptr), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_reconnect(nullptr, 1), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_event_func(nullptr, nullptr, nullptr), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_is_connected(nullptr), 0);
}

} // namespace
