// SPDX-License-Identifier: MIT
// The ways in which a connection ends, from outside and from inside its own handlers.
#include "mc_support.h"

#include <sys/socket.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class McEnd : public McServiceTest {
protected:
    // A greeted client whose requests `handler` serves.
    Fd client(const char *name, mc_handler_func handler = note_request)
    {
        Fd fd = raw_client("svc", name);
        const size_t before = connections.size();
        EXPECT_TRUE(turn_until([&] { return connections.size() > before; }));
        mc_set_handler(connections.back(), "", handler, nullptr);
        events.clear();
        return fd;
    }
};

TEST_F(McEnd, HangupRunsOnce)
{
    Fd fd = client("a");
    // A handler that leaves the connection open: the ended connection must not come up again.
    mc_set_hup_handler(
        connections.at(0), [](mc_connection *) { return events.push_back("hup"), 0; }, nullptr);
    fd.reset();
    settle();
    EXPECT_THAT(events, ElementsAre("hup"));
    const Wait wait = next_wait();
    EXPECT_EQ(wait.timeout_ms, -1);
    EXPECT_FALSE(wait.ready);
    EXPECT_EQ(mc_close(connections[0]), 0);
    EXPECT_THAT(events, ElementsAre("hup"));
}

TEST_F(McEnd, WithoutAHangupHandlerTheLibraryCloses)
{
    Fd fd = client("a");
    mc_set_hup_handler(connections.at(0), nullptr, nullptr);
    fd.reset();
    settle();
    EXPECT_EQ(factory->n_connections, 0u);
}

TEST_F(McEnd, HalfClosedIsHungUp)
{
    const Fd fd = client("a");
    ASSERT_TRUE(raw_send(fd, header(1, "last", "")));
    ASSERT_EQ(shutdown(fd.get(), SHUT_WR), 0);
    settle();
    EXPECT_THAT(events, ElementsAre("a: last ", "hup a"));
}

TEST_F(McEnd, PacketsBeforeAHangupAreHandledFirst)
{
    Fd fd = client("a");
    const size_t n = 3 * libmc::PACKETS_PER_TURN + 1; // more than one turn
    for (size_t i = 0; i < n; i++)
        ASSERT_TRUE(raw_send(fd, header(1, "w", "")));
    fd.reset();
    settle();
    ASSERT_EQ(events.size(), n + 1);
    EXPECT_EQ(events[n - 1], "a: w ");
    EXPECT_EQ(events[n], "hup a");
    EXPECT_THAT(log_lines, IsEmpty());
}

// Closing with unread answers makes the kernel report a reset before it hands out what the client sent last.
TEST_F(McEnd, PacketsBeforeAResetAreHandledFirst)
{
    Fd fd = client("a");
    ASSERT_TRUE(raw_send(fd, header(1, "echo", "s") + padded_text("never read")));
    settle();
    ASSERT_TRUE(raw_send(fd, header(2, "echo", "s") + padded_text("nobody there")));
    ASSERT_TRUE(raw_send(fd, header(3, "last", "")));
    fd.reset();
    settle();
    EXPECT_THAT(events, ElementsAre("a: echo s", "a: echo s", "a: last ", "hup a"));
    EXPECT_THAT(log_lines, IsEmpty());
}

TEST_F(McEnd, AClientThatNeverReadsIsDroppedAndTheOthersGoOn)
{
    const Fd deaf = client("deaf");
    const Fd other = client("other");
    const std::string request = header(1, "echo", "s") + padded_text(std::string(3000, 'x'));
    for (int i = 0; i < 10000 && connections.size() == 2; i++) {
        raw_send(deaf, request);
        settle();
    }
    EXPECT_EQ(events.back(), "hup deaf");
    EXPECT_THAT(log_lines, ElementsAre(testing::AllOf(HasSubstr("\"deaf\" (pid " + std::to_string(getpid()) + ")"),
                                                      HasSubstr("does not read its replies"))));
    ASSERT_TRUE(raw_send(other, header(4, "add", "ii") + u32(1) + u32(1)));
    settle();
    EXPECT_EQ(raw_receive(other), header(4, "", "i") + u32(2));
}

TEST_F(McEnd, ClosedInItsOwnRequestHandler)
{
    const Fd fd = client("a", [](mc_connection *connection, mc_packet *request) -> mc_packet * {
        events.push_back(mc_packet_command(request));
        std::erase(connections, connection);
        mc_close(connection);
        mc_close(connection);    // twice inside the handler does no harm
        return mc_packet_new(0); // to nobody, but still the library's to free
    });
    ASSERT_TRUE(raw_send(fd, header(1, "one", "")));
    ASSERT_TRUE(raw_send(fd, header(2, "two", "")));
    settle();
    EXPECT_THAT(events, ElementsAre("one")); // no hang-up handler either
    EXPECT_TRUE(raw_at_end(fd));
    EXPECT_EQ(raw_receive(fd), "");
}

TEST_F(McEnd, ClosedInAnotherConnectionsHandler)
{
    const mc_handler_func close_the_other = [](mc_connection *self, mc_packet *) -> mc_packet * {
        events.push_back(mc_connection_name(self));
        const std::vector<mc_connection *> all = connections;
        for (mc_connection *connection : all)
            if (connection != self) {
                std::erase(connections, connection);
                mc_close(connection);
            }
        return nullptr;
    };
    const Fd one = client("one", close_the_other);
    const Fd two = client("two", close_the_other);
    ASSERT_TRUE(raw_send(one, header(1, "w", "")));
    ASSERT_TRUE(raw_send(two, header(1, "w", ""))); // ready in the same turn as the first
    settle();
    EXPECT_EQ(events.size(), 1u);
    EXPECT_EQ(connections.size(), 1u);
}

TEST_F(McEnd, FactoryClosedInARequestHandler)
{
    const Fd fd = client("a", [](mc_connection *, mc_packet *) -> mc_packet * {
        mc_factory_close(factory);
        factory = nullptr;
        return mc_packet_new(0);
    });
    const Fd other = client("b");
    ASSERT_TRUE(raw_send(fd, header(1, "w", "")));
    settle();
    EXPECT_EQ(factory, nullptr);
    EXPECT_TRUE(raw_at_end(fd));
    EXPECT_TRUE(raw_at_end(other));
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(McEnd, FactoryClosedInAHangupHandler)
{
    Fd fd = client("a");
    mc_set_hup_handler(
        connections.at(0),
        [](mc_connection *connection) {
            mc_factory_close(factory);
            factory = nullptr;
            return mc_close(connection); // closed already: still the record of the call that is under way
        },
        nullptr);
    fd.reset();
    settle();
    EXPECT_EQ(factory, nullptr);
}

TEST_F(McEnd, FactoryClosedInItsCallback)
{
    mc_factory *other = mc_factory_open(
        "other", [](mc_factory *self, mc_connection *, void *) { mc_factory_close(self); }, nullptr, nullptr);
    ASSERT_NE(other, nullptr);
    const Fd fd = raw_client("other", "a");
    const Fd ungreeted = raw_connect("other");
    ASSERT_TRUE(turn_until([&] { return raw_at_end(fd); }));
    EXPECT_TRUE(raw_at_end(ungreeted));
}

TEST_F(McEnd, AHandlerMayRunTheLoop)
{
    const Fd outer = client("outer", [](mc_connection *connection, mc_packet *request) -> mc_packet * {
        const std::string before = mc_packet_command(request);
        settle(); // another connection's packets are handled in here
        EXPECT_EQ(mc_packet_command(request), before);
        return note_request(connection, request);
    });
    const Fd inner = client("inner");
    ASSERT_TRUE(raw_send(outer, header(1, "outside", "")));
    settle();
    ASSERT_TRUE(raw_send(outer, header(1, "outside", "")));
    ASSERT_TRUE(raw_send(inner, header(1, "inside", "s") + padded_text("text")));
    settle();
    EXPECT_THAT(events, ElementsAre("outer: outside ", "inner: inside s", "outer: outside "));
}

TEST_F(McEnd, AHandlerMayNotAnswerWithARequest)
{
    const Fd fd = client("a", [](mc_connection *, mc_packet *request) { return request; });
    ASSERT_TRUE(raw_send(fd, header(1, "back\n", "")));
    settle();
    EXPECT_EQ(raw_receive(fd), "");
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("back\\x0a")));
    EXPECT_FALSE(raw_at_end(fd));
}

TEST_F(McEnd, ClosingTheFactoryCallsNoHandler)
{
    const Fd fd = client("a");
    mc_factory_close(factory);
    factory = nullptr;
    mc_factory_close(nullptr);
    EXPECT_EQ(mc_close(nullptr), 0);
    EXPECT_THAT(events, IsEmpty());
    EXPECT_TRUE(raw_at_end(fd));
}

} // namespace
