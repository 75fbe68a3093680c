// SPDX-License-Identifier: MIT
// Limits: too many connections, clients that do not greet, no descriptor left. None of them keeps the loop awake.
#include "mc_support.h"

#include <algorithm>
#include <csignal>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class McLimit : public McServiceTest {};

TEST_F(McLimit, HasTheStatedLimits)
{
    EXPECT_EQ(factory->limits.connections, 256u);
    EXPECT_EQ(factory->limits.per_peer, 64u);
    EXPECT_EQ(factory->limits.ungreeted, 32u);
    EXPECT_EQ(factory->limits.greeting_wait_us, 5 * G_USEC_PER_SEC);
}

TEST_F(McLimit, RefusesConnectionsBeyondTheLimit)
{
    factory->limits.connections = 3;
    std::vector<Fd> clients;
    for (int i = 0; i < 5; i++)
        clients.push_back(raw_client("svc", std::to_string(i)));
    settle();
    EXPECT_EQ(connections.size(), 3u);
    EXPECT_TRUE(raw_at_end(clients[3]));
    EXPECT_TRUE(raw_at_end(clients[4]));
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("svc: refused a client: 3 connections are open already")));
    EXPECT_EQ(factory->unreported, 1u); // a flood of refusals is not a flood of lines
    clients.erase(clients.begin());
    settle();
    EXPECT_EQ(factory->n_connections, 2u);
    EXPECT_EQ(factory->n_ungreeted, 0u);
    const Fd next = raw_client("svc", "next");
    settle();
    EXPECT_EQ(events.back(), "connect next");
}

// Connects so often, and keeps all of it until it is killed. Returns when the service knows them.
pid_t process_with_connections(int n)
{
    const size_t before = connections.size();
    const pid_t child = in_child([&] {
        std::vector<Fd> mine;
        for (int i = 0; i < n; i++)
            mine.push_back(raw_client("svc", "child"));
        for (;;)
            pause();
        return 0;
    });
    EXPECT_TRUE(turn_until([&] { return connections.size() == before + static_cast<size_t>(n); }));
    return child;
}

TEST_F(McLimit, OneProcessHasNoMoreThanItsShare)
{
    factory->limits.per_peer = 2;
    const pid_t other = process_with_connections(2);
    std::vector<Fd> clients;
    for (int i = 0; i < 4; i++)
        clients.push_back(raw_client("svc", std::to_string(i)));
    settle();
    EXPECT_EQ(connections.size(), 4u) << "two of each";
    EXPECT_FALSE(raw_at_end(clients[1]));
    EXPECT_TRUE(raw_at_end(clients[2]));
    EXPECT_TRUE(raw_at_end(clients[3]));
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("svc: refused a client: pid " + std::to_string(getpid()) +
                                                 " has 2 connections already")));
    EXPECT_EQ(factory->unreported, 1u);
    clients.erase(clients.begin()); // room again
    settle();
    const Fd next = raw_client("svc", "next");
    settle();
    EXPECT_EQ(events.back(), "connect next");
    EXPECT_EQ(factory->n_connections, 4u);
    kill(other, SIGKILL);
    wait_for(other);
}

// Whoever has it now.
TEST_F(McLimit, AConnectionCountsForTheProcessThatMadeIt)
{
    factory->limits.per_peer = 1;
    Fd client = raw_client("svc", "inherited");
    settle();
    const pid_t heir = in_child([] {
        for (;;)
            pause();
        return 0;
    });
    client.reset();
    settle();
    EXPECT_THAT(events, ElementsAre("connect inherited")) << "it goes on";
    const Fd second = raw_client("svc", "second");
    settle();
    EXPECT_TRUE(raw_at_end(second));
    kill(heir, SIGKILL);
    wait_for(heir);
}

// Nobody is pushed out by one who may not come in.
TEST_F(McLimit, WhoHasItsShareMakesNobodyGiveWay)
{
    factory->limits.per_peer = factory->limits.ungreeted = 1;
    const Fd first = raw_connect("svc"), second = raw_connect("svc");
    settle();
    EXPECT_FALSE(raw_at_end(first));
    EXPECT_TRUE(raw_at_end(second));
}

TEST_F(McLimit, KeptBackLinesAreCounted)
{
    factory->limits.connections = 0;
    const Fd one = raw_connect("svc"), two = raw_connect("svc"), three = raw_connect("svc");
    settle();
    factory->quiet_until = 0;
    const Fd four = raw_connect("svc");
    settle();
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("refused a client"), HasSubstr("and 2 refusals before that")));
}

TEST_F(McLimit, TheOldestUngreetedMakesWay)
{
    factory->limits.ungreeted = 2;
    const Fd first = raw_connect("svc");
    const Fd second = raw_connect("svc");
    settle();
    const Fd third = raw_connect("svc");
    settle();
    EXPECT_TRUE(raw_at_end(first));
    EXPECT_FALSE(raw_at_end(second));
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("2 clients have not greeted yet")));
    const Fd good = raw_client("svc", "good");
    ASSERT_TRUE(raw_send(third, greeting("third")));
    settle();
    EXPECT_THAT(events, testing::UnorderedElementsAre("connect good", "connect third"));
    EXPECT_EQ(factory->n_ungreeted, 0u);
}

TEST_F(McLimit, ALateGreetingIsDroppedAndOnlyWaitingNeedsATimer)
{
    EXPECT_EQ(next_wait().timeout_ms, -1);
    const Fd late = raw_connect("svc");
    settle();
    EXPECT_GT(next_wait().timeout_ms, 0);
    EXPECT_LE(next_wait().timeout_ms, 5000);
    ASSERT_TRUE(turn_until([&] { return raw_at_end(late); }));
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("no greeting in time")));
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(next_wait().timeout_ms, -1);
}

TEST_F(McLimit, AGreetingThatHasArrivedIsInTime)
{
    factory->limits.greeting_wait_us = 0; // over as soon as it begins
    const Fd client = raw_client("svc", "a");
    settle();
    EXPECT_THAT(events, ElementsAre("connect a"));
}

TEST_F(McLimit, WithoutAFreeDescriptorClientsAreTurnedAway)
{
    const Fd one = raw_connect("svc"), two = raw_connect("svc");
    {
        const NoDescriptors no_descriptors;
        settle(); // ends: nobody waits in the queue any more
        EXPECT_EQ(next_wait().timeout_ms, -1);
    }
    EXPECT_TRUE(raw_at_end(one));
    EXPECT_TRUE(raw_at_end(two));
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("refused a client: no descriptor is free")));
    const Fd next = raw_client("svc", "next");
    settle();
    EXPECT_THAT(events, ElementsAre("connect next"));
}

TEST_F(McLimit, WithoutEvenTheReserveAcceptingRests)
{
    close(factory->reserve_fd);
    factory->reserve_fd = -1;
    const Fd client = raw_client("svc", "a");
    {
        const NoDescriptors no_descriptors;
        settle(); // ends, though the client still waits
        const Wait wait = next_wait();
        EXPECT_FALSE(wait.ready);
        EXPECT_GT(wait.timeout_ms, 0);
    }
    EXPECT_FALSE(raw_at_end(client));
    ASSERT_TRUE(turn_until([] { return !events.empty(); }));
    EXPECT_THAT(events, ElementsAre("connect a"));
    EXPECT_GE(factory->reserve_fd, 0);
}

TEST_F(McLimit, AcceptingTakesTurns)
{
    factory->limits.ungreeted = 100;
    std::vector<Fd> clients;
    for (int i = 0; i < 2 * libmc::ACCEPTS_PER_TURN; i++)
        clients.push_back(raw_connect("svc"));
    turn();
    EXPECT_EQ(factory->n_connections, static_cast<unsigned>(libmc::ACCEPTS_PER_TURN));
    turn();
    EXPECT_EQ(factory->n_connections, static_cast<unsigned>(2 * libmc::ACCEPTS_PER_TURN));
}

} // namespace
