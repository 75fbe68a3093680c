// SPDX-License-Identifier: MIT
// The kernel tells of what has arrived once: nothing of it is forgotten, and nothing keeps the loop awake.
#include "../support/failing_memory.h"
#include "mc_support.h"

#include <sys/socket.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class McDrain : public McServiceTest {
protected:
    Fd client(const char *name, mc_handler_func handler = note_request)
    {
        Fd fd = raw_client("svc", name);
        settle();
        mc_set_handler(connections.back(), "", handler, nullptr);
        events.clear();
        return fd;
    }
};

mc_packet *note_after_the_others(mc_connection *connection, mc_packet *request)
{
    settle();
    return note_request(connection, request);
}

void send_some(const Fd &client, int n)
{
    for (int i = 0; i < n; i++)
        ASSERT_TRUE(raw_send(client, header(1, "w", "")));
}

TEST_F(McDrain, ExactlyAsManyAsATurnTakesAndThenMore)
{
    const Fd fd = client("a");
    for (const int n : {libmc::PACKETS_PER_TURN, 1, libmc::PACKETS_PER_TURN + 1, 3 * libmc::PACKETS_PER_TURN}) {
        events.clear();
        send_some(fd, n);
        settle();
        EXPECT_THAT(events, SizeIs(static_cast<size_t>(n)));
        EXPECT_FALSE(next_wait().ready);
    }
}

TEST_F(McDrain, WithoutMemoryATurnIsHadLater)
{
    const Fd outer = client("outer", [](mc_connection *connection, mc_packet *request) -> mc_packet * {
        fail_allocation(CALLOC, 1); // the inbox of a turn within this one
        turn();
        EXPECT_TRUE(allocation_failed());
        EXPECT_THAT(events, IsEmpty());
        return note_after_the_others(connection, request);
    });
    const Fd inner = client("inner");
    send_some(outer, 1);
    send_some(inner, 1);
    settle();
    EXPECT_THAT(events, ElementsAre("inner: w ", "outer: w "));
}

// A deadline of somebody else's does not make the loop forget who is due.
TEST_F(McDrain, AHandlerMayRunTheLoopWhileADeadlineIsOpen)
{
    const Fd outer = client("outer", note_after_the_others);
    const Fd inner = client("inner");
    const Fd silent = raw_connect("svc");
    settle();
    send_some(outer, 1);
    send_some(inner, 1);
    settle();
    EXPECT_THAT(events, ElementsAre("inner: w ", "outer: w "));
}

TEST_F(McDrain, TheLoopRestsWhenAllHaveHadTheirTurn)
{
    const Fd a = client("a"), b = client("b");
    send_some(a, 1);
    send_some(b, 1);
    EXPECT_TRUE(turn());
    EXPECT_THAT(events, ElementsAre("a: w ", "b: w "));
    EXPECT_EQ(next_wait().timeout_ms, -1);
    settle(); // GLib may have told itself that something has changed
    EXPECT_FALSE(next_wait().ready);
}

// The set goes in the middle of a batch, and another one takes its place.
TEST_F(McDrain, AnotherSetTellsOfItsOwn)
{
    {
        const Fd a = client("a", [](mc_connection *, mc_packet *) -> mc_packet * {
            mc_factory_close(factory);
            connections.clear();
            return nullptr;
        });
        const Fd b = client("b");
        send_some(a, 1);
        send_some(b, 1);
        settle();
    }
    factory = open_noting("svc");
    const Fd outer = client("outer", note_after_the_others);
    const Fd inner = client("inner");
    send_some(outer, 1);
    send_some(inner, 1);
    settle();
    EXPECT_THAT(events, ElementsAre("inner: w ", "outer: w "));
}

} // namespace
