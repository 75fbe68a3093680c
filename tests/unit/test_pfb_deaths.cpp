// SPDX-License-Identifier: MIT
// Servers that end over a request, again and again or for long, and everything that must be left of none of them.
#include "pfb_recovery.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

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

TEST_F(PfbRecovery, ALockThatTheServerDiedOfTellsOfIt)
{
    create();
    service.die_of("lock_area ");
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST));
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
    EXPECT_EQ(pfb_resize(client, 0, 0), PFB_ERROR_ARGUMENT);
    const std::string text = pfb_error_text();
    int depth = 0;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    EXPECT_EQ(depth, 18);
    next.join();
    EXPECT_EQ(pfb_error(), PFB_ERROR_ARGUMENT) << "getting over it is no failure";
    EXPECT_EQ(pfb_error_text(), text);
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

// "It may be called again": by the function that is told of the end, for one.
TEST_F(PfbRecovery, TheCallbackMayMakeTheSurfaceThatTheServerDiedOf)
{
    pfb_set_event_func(
        client,
        [](pfb_client *c, pfb_event event, void *) {
            if (event == PFB_EVENT_LOST && pfb_pixels(c) == nullptr) {
                EXPECT_EQ(pfb_width(c), 0) << "there is no surface";
                // GONE when the service has taken this connection as well; then it has been told once more.
                pfb_create(c, PFB_FORMAT_XRGB32, 1, 2, 300, 200, 3, 0);
                EXPECT_NE(pfb_pixels(c), nullptr) << pfb_error_text();
                EXPECT_EQ(pfb_resize(c, 0, 0), PFB_ERROR_ARGUMENT);
            }
        },
        nullptr);
    service.die_of("create ");
    std::thread next([&] {
        service.take(1);
        service.close();
        service.open();
    });
    EXPECT_EQ(pfb_create(client, PFB_FORMAT_RGB16, 0, 0, 10, 10, 0, 0), PFB_ERROR_GONE);
    next.join();
    EXPECT_EQ(pfb_error(), PFB_ERROR_GONE);
    EXPECT_THAT(pfb_error_text(), StartsWith("pfb_create: "));
    EXPECT_EQ(pfb_width(client), 300);
    EXPECT_EQ(pfb_stride(client), 1216);
    EXPECT_THAT(sent_after_the_end(), ElementsAre("create iiiiiiiiis 0 32 1 2 300 200 1216 3 0 NAME", DEPTH));
}

// A change that ends every server is left out when it has ended the second one; what an earlier server has lived
// through stays.
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
    die_on_return(deadly);
    service.close();
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre("create iiiiiiiiis 0 32 30 40 100 50 448 3 0 NAME", DEPTH));
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_REDUCED, PFB_EVENT_RESTORED));
    EXPECT_EQ(pfb_resize(client, 100, 50), PFB_OK);
}

// The same for a program that only ever draws: what it calls changes nothing, and brings nothing back.
TEST_F(PfbRecovery, DrawingDoesNotBringADeadlyChangeBack)
{
    create();
    turn = [this] { return pfb_dirty(client, 0, 0, 1, 1); };
    const std::string deadly = "resize ii 66 6";
    service.die_of(deadly);
    EXPECT_EQ(pfb_resize(client, 66, 6), PFB_OK);
    EXPECT_EQ(service.take(1).back(), deadly);
    die_on_return(deadly);
    service.close();
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(3),
                ElementsAre("create iiiiiiiiis 0 32 10 20 100 50 448 3 0 NAME", DEPTH, "dirty iiii 0 0 1 1"));
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_REDUCED, PFB_EVENT_RESTORED));
}

// The part that was left out held more pixels than there are without it.
TEST_F(PfbRecovery, AResizeIsCheckedAgainstWhatIsLeft)
{
    create();
    const std::string deadly = "set_scale iiiiiiii 0 0 100 50 0 0 200 100";
    service.die_of(deadly);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 100, 50, 0, 0, 200, 100), PFB_OK);
    service.take(1);
    service.close();
    service.die_of(deadly);
    service.open();
    int result = PFB_OK;
    turn = [&] { return result = pfb_resize(client, 150, 80), PFB_OK; };
    EXPECT_TRUE(dispatch_until([&] { return result != PFB_OK; }));
    EXPECT_EQ(result, PFB_ERROR_ARGUMENT);
    service.close();
    service.take(0);
    service.open();
    turn = [this] { return pfb_dispatch(client); };
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH));
}

// A client that only draws is never answered. That a server has gone on is as good: others may end the next two.
class PfbLivedOn : public PfbRecovery {
protected:
    void expect_confirmed_after(const std::function<int()> &call)
    {
        create();
        EXPECT_EQ(pfb_move(client, 30, 40), PFB_OK);
        service.take(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        EXPECT_EQ(call(), PFB_OK);
        for (int i = 0; i < 2; i++)
            die_on_return(DEPTH);
        service.close();
        service.open();
        EXPECT_TRUE(come_back());
        EXPECT_EQ(service.take(2).front(), "create iiiiiiiiis 0 32 30 40 100 50 448 3 0 NAME");
        EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_RESTORED));
    }
};

TEST_F(PfbLivedOn, WhatARequestFindsIsNotLeftOut)
{
    expect_confirmed_after([&] {
        const int result = pfb_dirty(client, 0, 0, 1, 1);
        service.take(1);
        return result;
    });
}

TEST_F(PfbLivedOn, WhatALockFindsThatEndsTheServerIsNotLeftOut)
{
    expect_confirmed_after([&] {
        service.die_of("lock_area ");
        const int result = pfb_lock(client, 0, 0, 1, 1);
        service.take(1);
        return result;
    });
}

TEST_F(PfbLivedOn, WhatALookFindsIsNotLeftOut)
{
    expect_confirmed_after([&] { return pfb_dispatch(client); });
}

// A server that is busy for long has not lived with what it has not read yet.
TEST_F(PfbRecovery, WhatAServerHasNotReadMayStillEndIt)
{
    create();
    const std::string deadly = "resize ii 66 6";
    service.die_of(deadly);
    service.stall();
    EXPECT_EQ(pfb_move(client, 30, 40), PFB_OK);
    for (int unread = 1; unread > 0;) // from here on it is busy
        ASSERT_EQ(ioctl(pfb_fd(client), SIOCOUTQ, &unread), 0);
    EXPECT_EQ(pfb_resize(client, 66, 6), PFB_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(pfb_dirty(client, 0, 0, 1, 1), PFB_OK);
    service.go_on();
    service.take(2);
    die_on_return(deadly);
    service.close();
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre("create iiiiiiiiis 0 32 10 20 100 50 448 3 0 NAME", DEPTH));
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_REDUCED, PFB_EVENT_RESTORED));
}

// Nothing is unread in the socket of a server that has ended: it has not lived with anything for that.
class PfbFoundDead : public PfbRecovery {
protected:
    void expect_unconfirmed_after(const std::function<int()> &call)
    {
        create();
        const std::string deadly = "resize ii 66 6";
        service.die_of(deadly);
        EXPECT_EQ(pfb_resize(client, 66, 6), PFB_OK);
        EXPECT_EQ(service.take(1).back(), deadly);
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        EXPECT_EQ(call(), PFB_OK);
        die_on_return(deadly);
        service.close();
        service.open();
        EXPECT_TRUE(come_back());
        EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_REDUCED, PFB_EVENT_RESTORED));
    }
};

TEST_F(PfbFoundDead, ByARequestItHasNotLivedOn)
{
    expect_unconfirmed_after([&] { return pfb_dirty(client, 0, 0, 1, 1); });
}

TEST_F(PfbFoundDead, ByALockItHasNotLivedOn)
{
    expect_unconfirmed_after([&] { return pfb_lock(client, 0, 0, 1, 1) == PFB_OK ? pfb_unlock(client) : pfb_error(); });
}

TEST_F(PfbFoundDead, ByALookItHasNotLivedOn)
{
    expect_unconfirmed_after([&] { return pfb_dispatch(client); });
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

// A server that ends over this client each time gets longer and longer times in between, for everybody's sake. There
// is much to bring back, so that it ends while the client still sends.
TEST_F(PfbRecovery, ServersThatEndAgainAndAgainAreLeftInPeace)
{
    create();
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    service.close();
    service.take(0);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; i++) {
        service.die_of("lock_area ");
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

// More than fits into a socket, and a server that does not read: the attempt is given up. A server that then reads
// "create" and did not find the memory would stop; this service fails the test.
TEST_F(PfbRecovery, ASlowServerFindsTheMemoryOfAnAttemptThatWasGivenUp)
{
    create();
    for (int i = 0; i < 500; i++)
        ASSERT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    service.close();
    ASSERT_TRUE(lose());
    service.open();
    service.stall();
    pfb_set_timeout(client, 20);
    EXPECT_TRUE(dispatch_until([&] { return shared_objects() > 1; })) << "no second attempt";
    service.go_on();
    pfb_set_timeout(client, PATIENCE_MS);
    EXPECT_TRUE(come_back());
    EXPECT_EQ(shared_objects(), 0u);
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

// A server that reads of the block and then of the end of its client would stop, however late it reads.
TEST_F(PfbRecovery, DisconnectingFromASlowServerOnTheWayBackEndsABlock)
{
    create();
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    service.close();
    ASSERT_TRUE(lose());
    service.take(0);
    service.open();
    service.stall();
    EXPECT_TRUE(dispatch_until([&] { return shared_objects() == 1; }));
    pfb_set_timeout(client, 20);
    pfb_disconnect(client);
    client = nullptr;
    service.go_on();
    EXPECT_THAT(service.take(5),
                ElementsAre(StartsWith("create "), "block_until_unlock ", DEPTH, "lock_area iiii 0 0 0 0", "unlock "));
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

// Each look for a server that is not there comes well before the time is over.
TEST_F(PfbRecovery, LookingAgainAndAgainDoesNotProlongACall)
{
    service.close();
    pfb_set_timeout(client, 1500); // longer than from one look to the next
    std::promise<void> done;
    std::thread rescuer([&] {
        if (done.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::timeout)
            service.open();
    });
    EXPECT_EQ(pfb_status(client), PFB_ERROR_TIMEOUT);
    done.set_value();
    rescuer.join();
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

// What there is to tell goes before what the callback asks for.
TEST_F(PfbRecovery, ARequestOfTheCallbackFindsEverythingTold)
{
    std::vector<pfb_event> order;
    pfb_set_event_func(
        client,
        [](pfb_client *c, pfb_event event, void *data) {
            auto *told = static_cast<std::vector<pfb_event> *>(data);
            told->push_back(event);
            if (event == PFB_EVENT_LOST) {
                EXPECT_EQ(pfb_move(c, 1, 2), PFB_OK) << pfb_error_text();
                EXPECT_THAT(*told, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_RESTORED));
            }
        },
        &order);
    service.close();
    service.open();
    EXPECT_EQ(pfb_dispatch(client), PFB_OK);
    EXPECT_THAT(order, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_RESTORED));
    EXPECT_THAT(service.take(1), ElementsAre("move ii 1 2"));
}

void unlock_when_restored(pfb_client *client, pfb_event event, void *)
{
    if (event == PFB_EVENT_RESTORED) {
        EXPECT_EQ(pfb_unlock(client), PFB_OK) << pfb_error_text();
    }
}

// What a function that is told does inside a request is not undone by the request.
TEST_F(PfbRecovery, TheCallbackMayUnlockInsideARequest)
{
    create();
    ASSERT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    pfb_set_event_func(client, unlock_when_restored, nullptr);
    service.close();
    service.take(0);
    service.open();
    EXPECT_EQ(pfb_dirty(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_THAT(service.take(5),
                ElementsAre(StartsWith("create "), "lock_area iiii 0 0 0 0", DEPTH, "unlock ", "dirty iiii 0 0 1 1"));
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
}

TEST_F(PfbRecovery, OneLockIsNotUnlockedByTheCallbackAndTheRequestAroundIt)
{
    create();
    ASSERT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    pfb_set_event_func(client, unlock_when_restored, nullptr);
    service.close();
    service.take(0);
    service.open();
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE) << "the callback was first";
    int depth;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    EXPECT_THAT(service.take(5), ElementsAre(StartsWith("create "), "lock_area iiii 0 0 0 0", DEPTH, "unlock ", DEPTH));
}

TEST_F(PfbRecovery, OneSurfaceIsNotMadeByTheCallbackAndTheCreateAroundIt)
{
    pfb_set_event_func(
        client,
        [](pfb_client *c, pfb_event event, void *) {
            if (event == PFB_EVENT_RESTORED && pfb_pixels(c) == nullptr) {
                EXPECT_EQ(pfb_create(c, PFB_FORMAT_XRGB32, 1, 2, 300, 200, 3, 0), PFB_OK) << pfb_error_text();
            }
        },
        nullptr);
    service.close();
    service.open();
    EXPECT_EQ(pfb_create(client, PFB_FORMAT_RGB16, 0, 0, 10, 10, 0, 0), PFB_ERROR_STATE) << "the callback was first";
    EXPECT_THAT(service.take(2), ElementsAre("create iiiiiiiiis 0 32 1 2 300 200 1216 3 0 NAME", DEPTH));
    EXPECT_EQ(pfb_width(client), 300);
    EXPECT_THAT(sent_after_the_end(), ElementsAre("create iiiiiiiiis 0 32 1 2 300 200 1216 3 0 NAME", DEPTH));
}

TEST_F(PfbRecovery, ACreateThatTheCallbackGaveUpEndsTheRequestAroundItToo)
{
    pfb_set_event_func(
        client,
        [](pfb_client *c, pfb_event event, void *) {
            pfb_set_timeout(c, 20);
            if (event == PFB_EVENT_RESTORED) {
                EXPECT_EQ(pfb_create(c, PFB_FORMAT_XRGB32, 0, 0, 10, 10, 0, 0), PFB_ERROR_TIMEOUT);
            }
        },
        nullptr);
    service.close();
    service.answer(false);
    service.open();
    EXPECT_EQ(pfb_move(client, 1, 2), PFB_ERROR_STATE) << "only pfb_disconnect is left";
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH));
}

TEST_F(PfbRecovery, TheCallbackMaySwitchItOffInsideARequestThatWaits)
{
    create();
    pfb_set_event_func(
        client, [](pfb_client *c, pfb_event, void *) { EXPECT_EQ(pfb_set_reconnect(c, 0), PFB_OK); }, nullptr);
    service.close();
    pfb_set_timeout(client, 500); // it must not come to that
    int depth;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_ERROR_GONE) << pfb_error_text();
    EXPECT_EQ(pfb_status(client), PFB_ERROR_GONE);
}

TEST_F(PfbRecovery, TheCallbackMaySwitchItOffInsideARequestThatIsRemembered)
{
    create();
    pfb_set_event_func(
        client, [](pfb_client *c, pfb_event, void *) { EXPECT_EQ(pfb_set_reconnect(c, 0), PFB_OK); }, nullptr);
    service.close();
    EXPECT_EQ(pfb_show(client), PFB_ERROR_GONE) << "nobody will ever send it";
}

// A server that is stopped, or one that is yet to be started by whoever holds its socket.
TEST_F(PfbRecovery, ASocketThatTakesNoMoreConnectionsHoldsNobodyUp)
{
    create();
    service.close();
    service.take(0);
    {
        const FullSocket full(service.socket_path());
        const int before = wakeups;
        EXPECT_TRUE(dispatch_until([&] { return wakeups >= before + 5; }));
        EXPECT_EQ(pfb_is_connected(client), 0);
        EXPECT_EQ(pfb_move(client, 1, 2), PFB_OK);
        pfb_set_timeout(client, 20);
        EXPECT_EQ(pfb_status(client), PFB_ERROR_TIMEOUT);
        pfb_set_timeout(client, PATIENCE_MS);
    }
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create iiiiiiiiis 0 32 1 2 "), DEPTH));
}

TEST_F(PfbRecovery, ConnectingToASocketThatTakesNoMoreEndsByItsTimeOut)
{
    service.close();
    const FullSocket full(service.socket_path());
    EXPECT_EQ(pfb_connect("fb.second"), nullptr);
    EXPECT_EQ(pfb_error(), PFB_ERROR_TIMEOUT);
    EXPECT_STREQ(pfb_error_text(), "pfb_connect: connecting: the server has not answered in time");
}

TEST(PfbRecoveryNull, NothingIsDoneWithNull)
{
    EXPECT_EQ(pfb_dispatch(nullptr), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_reconnect(nullptr, 1), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_event_func(nullptr, nullptr, nullptr), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_is_connected(nullptr), 0);
}

} // namespace
