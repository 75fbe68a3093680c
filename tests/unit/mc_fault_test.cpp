// SPDX-License-Identifier: MIT
// Faults of clients: each costs that client its connection and one line in the log, and nobody else anything.
#include "mc_support.h"

#include "log.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class McFault : public McTest {
protected:
    void SetUp() override
    {
        McTest::SetUp();
        factory = open_noting("svc");
        ASSERT_NE(factory, nullptr);
        witness = raw_client("svc", "witness");
        settle();
        events.clear();
    }
    void TearDown() override
    {
        expect_witness_served();
        witness.reset();
        mc_factory_close(factory);
        McTest::TearDown();
    }
    void expect_witness_served()
    {
        ASSERT_TRUE(raw_send(witness, header(9, "add", "ii") + u32(2) + u32(3)));
        settle();
        EXPECT_EQ(raw_receive(witness), header(9, "", "i") + u32(5));
    }
    // A greeted client sends a good packet, `bytes` and another good one: only the first is handled.
    void expect_dropped(const std::string &bytes, const std::string &reason)
    {
        const Fd fd = raw_client("svc", "bad");
        events.clear();
        log_lines.clear();
        ASSERT_TRUE(raw_send(fd, header(1, "before", "")));
        ASSERT_TRUE(raw_send(fd, bytes));
        ASSERT_TRUE(raw_send(fd, header(1, "after", "")));
        settle();
        EXPECT_THAT(events, ElementsAre("connect bad", "bad: before ", "hup bad"));
        EXPECT_THAT(log_lines,
                    ElementsAre(AllOf(StartsWith("libmc: dropped client \"bad\" (pid "), HasSubstr(reason))));
        EXPECT_TRUE(raw_at_end(fd));
    }
    void expect_not_greeted(const std::string &bytes, const std::string &reason)
    {
        log_lines.clear();
        const Fd fd = raw_connect("svc");
        ASSERT_TRUE(raw_send(fd, bytes));
        ASSERT_TRUE(raw_send(fd, greeting("second try")));
        settle();
        EXPECT_THAT(events, IsEmpty());
        EXPECT_THAT(log_lines, ElementsAre(HasSubstr(reason)));
        EXPECT_TRUE(raw_at_end(fd));
    }
    mc_factory *factory = nullptr;
    Fd witness;
};

TEST_F(McFault, MalformedPackets)
{
    expect_dropped("ab", "malformed packet: ends inside the serial number");
    expect_dropped(u32(1) + "show", "malformed packet: command word has no end");
    expect_dropped(u32(1) + std::string("show\0i", 6), "malformed packet: signature has no end");
    expect_dropped(header(1, "move", "ii") + u32(1), "malformed packet: ends inside an integer");
    expect_dropped(header(1, "set_surface", "s") + "name", "malformed packet: string has no end");
    expect_dropped(header(1, "move", "if") + u32(1) + u32(1), "malformed packet: unknown letter");
    expect_dropped(header(1, "move", "i") + u32(1) + u32(1), "malformed packet: bytes behind the last argument");
    expect_dropped(header(1, "w", std::string(40, 'i')) + std::string(160, '\0'), "too many arguments");
}

TEST_F(McFault, OversizeDatagram)
{
    // Well formed but for its length, so that a check of the first MC_PACKET_MAX bytes alone would be taken in.
    expect_dropped(header(1, "echo", "s") + padded_text(std::string(MC_PACKET_MAX, 'x')),
                   "longer than a packet may be");
    expect_dropped(header(1, "w", "s") + padded_text(std::string(MC_PACKET_MAX - 9, 'x')) + u32(0),
                   "longer than a packet may be");
}

TEST_F(McFault, EmptyDatagramIsNotAHangup)
{
    expect_dropped("", "malformed packet: empty datagram");
}

TEST_F(McFault, WrongGreetings)
{
    expect_not_greeted("", "malformed packet: empty datagram");
    expect_not_greeted("garbage", "malformed packet: command word has no end");
    expect_not_greeted(header(0, "hello", "is") + u32(1) + padded_text("n"), "not a greeting");
    expect_not_greeted(header(0, "connect", "s") + padded_text("n"), "not a greeting");
    expect_not_greeted(header(0, "connect", "isi") + u32(1) + padded_text("n") + u32(0), "not a greeting");
    expect_not_greeted(greeting("n", 2), "another version of the protocol");
    expect_not_greeted(greeting(std::string(MC_NAME_MAX + 1, 'n')), "name is too long");
}

TEST_F(McFault, HangupInsteadOfAGreeting)
{
    raw_connect("svc").reset();
    settle();
    EXPECT_THAT(events, IsEmpty());
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("hung up without a greeting")));
    EXPECT_EQ(factory->n_connections, 1u);
    EXPECT_EQ(factory->n_ungreeted, 0u);
}

TEST_F(McFault, ANameCannotForgeALine)
{
    const Fd fd = raw_client("svc", "x\n\x1b[2J\"\\\x80");
    ASSERT_TRUE(raw_send(fd, "garbage"));
    settle();
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("client \"x\\x0a\\x1b[2J\\x22\\x5c\\x80\" (pid ")));
    connections.clear();
}

TEST_F(McFault, TheLongestNameLeavesRoomForTheReason)
{
    const Fd fd = raw_client("svc", std::string(MC_NAME_MAX, '\x01'));
    ASSERT_TRUE(raw_send(fd, "garbage"));
    settle();
    ASSERT_EQ(log_lines.size(), 1u);
    EXPECT_THAT(log_lines[0], testing::EndsWith("command word has no end"));
}

TEST(Log, EscapingIsCutWhereTheRoomEnds)
{
    char out[6];
    EXPECT_STREQ(libmc::log_escape("abcdefgh", out, sizeof out), "abcde");
    EXPECT_STREQ(libmc::log_escape("ab\ncd", out, sizeof out), "ab");
    EXPECT_STREQ(libmc::log_escape("", out, sizeof out), "");
}

TEST(Log, GoesToStandardErrorByDefault)
{
    mc_set_log(nullptr);
    testing::internal::CaptureStderr();
    libmc::log_line("one %d", 1);
    libmc::log_line("%s", std::string(3 * libmc::LOG_LINE_MAX, 'x').c_str());
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_THAT(text, StartsWith("libmc: one 1\nlibmc: xxx"));
    EXPECT_THAT(text, testing::EndsWith("xxx\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

} // namespace
