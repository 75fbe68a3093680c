// SPDX-License-Identifier: MIT
// Descriptors that clients send along with packets: on kernels that let a socket refuse them, and on older ones. What
// is sent would make whoever lets go of it wait for an hour.
#include "mc_support.h"

#include "../support/descriptors.h"
#include "inbox.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

namespace {

enum class Kernel {
    PRESENT,
    OLD,     // no socket can refuse descriptors
    SPARING, // and none can be looked through
};
Kernel kernel;
bool no_more_processes;

} // namespace

extern "C" {
int __real_setsockopt(int fd, int level, int option, const void *value, socklen_t size);

pid_t __real_fork();

pid_t __wrap_fork()
{
    if (!no_more_processes)
        return __real_fork();
    errno = EAGAIN;
    return -1;
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t size)
{
    const bool is_missing =
        (option == SO_PASSRIGHTS && kernel != Kernel::PRESENT) || (option == SO_PEEK_OFF && kernel == Kernel::SPARING);
    if (level != SOL_SOCKET || !is_missing)
        return __real_setsockopt(fd, level, option, value, size);
    errno = ENOPROTOOPT;
    return -1;
}
}

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr unsigned HANGS_S = 100; // what takes so long hangs

// Descriptors to be given away, one that lingers among them, and how to find out whether somebody still has them.
struct Gift {
    Gift()
    {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        read_end = Fd(ends[0]);
        write_end = Fd(ends[1]);
    }
    // Returns 0, or why it cannot be sent. What was sent is no longer here.
    int send(const Fd &client, const std::string &bytes)
    {
        const int fds[] = {lingering.fd(), write_end.get()};
        const int error = send_with_descriptors(client.get(), bytes, fds);
        if (error == 0) {
            lingering.give_away();
            write_end.reset();
        }
        return error;
    }
    bool is_gone() const
    {
        char byte;
        return read(read_end.get(), &byte, 1) == 0;
    }
    LingeringSocket lingering;
    Fd read_end, write_end;
};

size_t descriptors_of(const std::string &pid)
{
    const std::filesystem::directory_iterator all("/proc/" + pid + "/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// As turn_until, but without turns of the loop.
bool wait_outside(const std::function<bool()> &done)
{
    for (int i = 0; i < 3000 && !done(); i++)
        usleep(10000);
    return done();
}

bool no_process_is_left()
{
    siginfo_t any;
    return waitid(P_ALL, 0, &any, WEXITED | WNOHANG | WNOWAIT) < 0 && errno == ECHILD;
}

class McRefusedDescriptors : public McServiceTest {
protected:
    void SetUp() override
    {
        kernel = Kernel::PRESENT;
        alarm(HANGS_S);
        McServiceTest::SetUp();
    }
    void TearDown() override
    {
        McServiceTest::TearDown();
        alarm(0);
    }
};

TEST_F(McRefusedDescriptors, CannotBeSent)
{
    if (!kernel_refuses_descriptors())
        GTEST_SKIP() << "not with this kernel";
    Gift gift;
    const Fd early = raw_connect("svc");
    EXPECT_EQ(gift.send(early, greeting("early")), EPERM) << "before it is accepted";
    ASSERT_TRUE(raw_send(early, greeting("early")));
    settle();
    EXPECT_EQ(gift.send(early, header(1, "w", "")), EPERM);
    ASSERT_TRUE(raw_send(early, header(2, "w", "")));
    settle();
    EXPECT_THAT(events, ElementsAre("connect early", "early: w ")) << "the others count";
    EXPECT_THAT(log_lines, IsEmpty());
    EXPECT_TRUE(no_process_is_left());
    EXPECT_EQ(connections[0]->look_ahead, 0) << "nothing has to be looked at before it is taken";
}

TEST_F(McRefusedDescriptors, OverAConnectionThatWasHandedOver)
{
    if (!kernel_refuses_descriptors())
        GTEST_SKIP() << "not with this kernel";
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    const Fd client(pair[1]);
    note_connection(nullptr, mc_connection_new(pair[0], "given"), nullptr);
    Gift gift;
    EXPECT_EQ(gift.send(client, header(1, "w", "")), EPERM);
    ASSERT_TRUE(raw_send(client, header(2, "w", "")));
    settle();
    EXPECT_THAT(events, testing::Contains("given: w "));
    EXPECT_EQ(connections[0]->look_ahead, 0) << "its queue was seen to its end";
    mc_close(connections[0]);
}

class McDescriptors : public McServiceTest, public testing::WithParamInterface<Kernel> {
protected:
    void SetUp() override
    {
        kernel = GetParam();
        alarm(HANGS_S);
        McServiceTest::SetUp();
    }
    void TearDown() override
    {
        McServiceTest::TearDown();
        kernel = Kernel::PRESENT;
        alarm(0);
    }
    // Everybody has let go of it, and nothing is left of how that was done.
    static void expect_closed(const Gift &gift)
    {
        EXPECT_TRUE(turn_until([&] { return gift.is_gone(); })) << "somebody keeps a descriptor";
        EXPECT_TRUE(turn_until([] { return no_process_is_left(); }));
        EXPECT_TRUE(wait_outside([] {
            settle();
            return next_wait().timeout_ms == -1;
        })) << "something still wakes the loop";
    }
};

INSTANTIATE_TEST_SUITE_P(On, McDescriptors, testing::Values(Kernel::OLD, Kernel::SPARING),
                         [](const auto &info) { return info.param == Kernel::OLD ? "old" : "sparing"; });

TEST_P(McDescriptors, EndTheirConnection)
{
    const Fd witness = raw_client("svc", "witness"), client = raw_client("svc", "giver");
    settle();
    events.clear();
    Gift gift;
    for (uint32_t i = 0; i < 5; i++)
        ASSERT_TRUE(raw_send(client, header(i, "before", "i") + u32(i)));
    ASSERT_EQ(gift.send(client, header(5, "with", "")), 0);
    ASSERT_TRUE(raw_send(client, header(6, "after", "")));
    ASSERT_TRUE(raw_send(witness, header(9, "add", "ii") + u32(2) + u32(3)));
    settle();
    EXPECT_THAT(events,
                testing::UnorderedElementsAre("giver: before i", "giver: before i", "giver: before i",
                                              "giver: before i", "giver: before i", "hup giver", "witness: add ii"));
    EXPECT_THAT(log_lines, ElementsAre(AllOf(StartsWith("libmc: dropped client \"giver\" (pid "),
                                             HasSubstr("): sends descriptors"))));
    EXPECT_TRUE(raw_at_end(client)) << "at once";
    EXPECT_EQ(raw_receive(witness), header(9, "", "i") + u32(5));
    expect_closed(gift);
}

TEST_P(McDescriptors, WithTheGreeting)
{
    const Fd client = raw_connect("svc");
    Gift gift;
    ASSERT_EQ(gift.send(client, greeting("giver")), 0);
    settle();
    EXPECT_THAT(events, IsEmpty());
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("sends descriptors")));
    EXPECT_TRUE(raw_at_end(client));
    expect_closed(gift);
}

TEST_P(McDescriptors, WithAnEmptyPacket)
{
    const Fd client = raw_client("svc", "giver");
    Gift gift;
    ASSERT_EQ(gift.send(client, ""), 0);
    settle();
    EXPECT_THAT(events, ElementsAre("connect giver", "hup giver"));
    expect_closed(gift);
}

// What stands before them has ended the connection: they are never taken.
TEST_P(McDescriptors, BehindAFault)
{
    for (const std::string &fault : {std::string("garbage"), std::string(), std::string(9000, 'x')}) {
        SCOPED_TRACE(fault.size());
        const Fd client = raw_client("svc", "giver");
        settle();
        events.clear();
        log_lines.clear();
        Gift gift;
        ASSERT_TRUE(raw_send(client, header(1, "before", "")));
        ASSERT_TRUE(raw_send(client, fault));
        ASSERT_TRUE(raw_send(client, "")); // reads like the end
        ASSERT_EQ(gift.send(client, header(2, "with", "")), 0);
        settle();
        EXPECT_THAT(events, ElementsAre("giver: before ", "hup giver"));
        EXPECT_THAT(log_lines, ElementsAre(HasSubstr("malformed packet")));
        expect_closed(gift);
    }
}

// Far enough back that nobody has looked at them.
TEST_P(McDescriptors, FarBehindAFault)
{
    const Fd client = raw_client("svc", "giver");
    settle();
    Gift gift;
    ASSERT_TRUE(raw_send(client, "garbage"));
    for (int i = 0; i < 3 * libmc::RECEIVE_MAX; i++)
        ASSERT_TRUE(raw_send(client, i % 2 ? "" : "garbage"));
    ASSERT_EQ(gift.send(client, header(2, "with", "")), 0);
    settle();
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("malformed packet")));
    expect_closed(gift);
}

// Farther back than anybody looks in one go: what is there is not known then.
TEST_P(McDescriptors, FartherBehindAFaultThanIsLookedAt)
{
    constexpr int FAR = 4000;
    const Fd client = raw_client("svc", "giver");
    settle();
    const int room = 64 * 1024 * 1024; // as much as this process may have
    ASSERT_EQ(setsockopt(client.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    ASSERT_TRUE(raw_send(client, "garbage"));
    for (int i = 0; i < FAR; i++) {
        if (send(client.get(), "", 0, MSG_DONTWAIT) != 0)
            GTEST_SKIP() << "no queue takes more than " << i << " packets here";
    }
    Gift gift;
    ASSERT_EQ(gift.send(client, header(2, "with", "")), 0);
    settle();
    EXPECT_THAT(log_lines, ElementsAre(HasSubstr("malformed packet")));
    expect_closed(gift);
}

TEST_P(McDescriptors, BehindAHangUp)
{
    Fd client = raw_client("svc", "giver");
    settle();
    Gift gift;
    ASSERT_TRUE(raw_send(client, "")); // with the hang-up it is the end
    ASSERT_EQ(gift.send(client, header(2, "with", "")), 0);
    client.reset();
    settle();
    EXPECT_THAT(events, ElementsAre("connect giver", "hup giver"));
    expect_closed(gift);
}

TEST_P(McDescriptors, OfClientsThatAreTurnedAway)
{
    factory->limits.connections = 1;
    const Fd first = raw_client("svc", "first");
    settle();
    Gift gift, other;
    const Fd second = raw_connect("svc");
    ASSERT_EQ(gift.send(second, greeting("second")), 0);
    settle();
    factory->limits.connections = 2;
    factory->limits.per_peer = 1;
    const Fd third = raw_connect("svc");
    ASSERT_EQ(other.send(third, greeting("third")), 0);
    settle();
    EXPECT_TRUE(raw_at_end(second));
    EXPECT_TRUE(raw_at_end(third));
    EXPECT_THAT(events, ElementsAre("connect first"));
    expect_closed(gift);
    expect_closed(other);
}

TEST_P(McDescriptors, WithoutAFreeDescriptor)
{
    const Fd client = raw_connect("svc");
    Gift gift;
    ASSERT_EQ(gift.send(client, greeting("giver")), 0);
    {
        const NoDescriptors no_descriptors;
        settle();
        EXPECT_THAT(log_lines, ElementsAre(HasSubstr("refused a client: no descriptor is free")));
    }
    EXPECT_TRUE(raw_at_end(client));
    EXPECT_TRUE(turn_until([] { return factory->reserve_fd >= 0; })) << "the reserve is back";
    expect_closed(gift);
    const Fd next = raw_client("svc", "next");
    EXPECT_TRUE(turn_until([] { return !events.empty(); }));
    EXPECT_THAT(events, ElementsAre("connect next"));
}

TEST_P(McDescriptors, WhenTheServiceCloses)
{
    const Fd waiting = raw_connect("svc"), served = raw_client("svc", "served");
    settle();
    const Fd never_accepted = raw_connect("svc");
    Gift gifts[3];
    ASSERT_EQ(gifts[0].send(waiting, greeting("waiting")), 0);
    ASSERT_EQ(gifts[1].send(served, header(1, "with", "")), 0);
    ASSERT_EQ(gifts[2].send(never_accepted, greeting("never accepted")), 0);
    mc_factory_close(factory);
    factory = nullptr;
    for (const Gift &gift : gifts) // by now, though no loop runs any more
        EXPECT_TRUE(wait_outside([&] { return gift.is_gone(); }));
    for (const Gift &gift : gifts)
        expect_closed(gift);
    EXPECT_THAT(events, ElementsAre("connect served"));
}

// More than are collected for one process.
TEST_P(McDescriptors, OfManyClients)
{
    constexpr int MANY = 150;
    factory->limits.ungreeted = factory->limits.per_peer = MANY;
    std::vector<Fd> clients;
    std::vector<std::unique_ptr<Gift>> gifts;
    for (int i = 0; i < MANY; i++) {
        clients.push_back(raw_connect("svc"));
        gifts.push_back(std::make_unique<Gift>());
        ASSERT_EQ(gifts.back()->send(clients.back(), greeting("giver")), 0);
    }
    settle();
    EXPECT_EQ(log_lines.size(), size_t{MANY});
    for (const auto &gift : gifts)
        expect_closed(*gift);
}

TEST_P(McDescriptors, WaitUntilThereMayBeAnotherProcess)
{
    const Fd client = raw_client("svc", "giver");
    Gift gift;
    ASSERT_EQ(gift.send(client, header(1, "with", "")), 0);
    no_more_processes = true;
    settle();
    EXPECT_TRUE(raw_at_end(client)) << "at once all the same";
    usleep(300000); // enough for some attempts
    settle();
    EXPECT_FALSE(gift.is_gone());
    no_more_processes = false;
    expect_closed(gift);
}

// A process that takes over what may block has nothing else of the server's: the server may end meanwhile.
TEST_P(McDescriptors, TheProcessHasNothingElse)
{
    const Fd client = raw_client("svc", "giver");
    Gift gift;
    Fd other = raw_client("svc", "other");
    settle();
    ASSERT_EQ(gift.send(client, header(1, "with", "")), 0);
    settle();
    const std::string children = "/proc/self/task/" + std::to_string(gettid()) + "/children";
    std::string pid;
    ASSERT_TRUE(turn_until([&] {
        std::ifstream(children) >> pid;
        return !pid.empty();
    }));
    // No turn, so it lives.
    EXPECT_TRUE(wait_outside([&] { return descriptors_of(pid) == 1; })) << descriptors_of(pid);
    expect_closed(gift);
}

TEST_P(McDescriptors, OtherPacketsAreServedAsEver)
{
    const Fd client = raw_client("svc", "a");
    settle();
    events.clear();
    for (uint32_t i = 0; i < 2 * libmc::PACKETS_PER_TURN; i++)
        ASSERT_TRUE(raw_send(client, header(i, i % 3 ? "add" : "odd", "ii") + u32(i) + u32(1)));
    turn();
    EXPECT_EQ(events.size(), size_t{libmc::PACKETS_PER_TURN});
    turn();
    EXPECT_EQ(events.size(), size_t{2 * libmc::PACKETS_PER_TURN});
    for (uint32_t i = 0; i < 2 * libmc::PACKETS_PER_TURN; i++) {
        if (i % 3) {
            EXPECT_EQ(raw_receive(client), header(i, "", "i") + u32(i + 1));
        }
    }
    const Fd gone = raw_client("svc", "b");
    ASSERT_TRUE(raw_send(gone, header(1, "last", "")));
    shutdown(gone.get(), SHUT_WR);
    settle();
    EXPECT_THAT(events, testing::IsSupersetOf({"connect b", "b: last ", "hup b"}));
    EXPECT_THAT(log_lines, IsEmpty());
    EXPECT_TRUE(no_process_is_left()) << "none was needed";
}

class McHandedOverDescriptors : public McTest {};

// A socket of the service manager's has let them in before this server was there.
void expect_those_who_waited_are_served_or_dropped(const std::string &socket_path, Kernel of)
{
    const Fd listening = raw_listen(socket_path);
    const Fd giver = raw_connect("svc"), good = raw_client("svc", "good");
    Gift gift;
    ASSERT_EQ(gift.send(giver, greeting("giver")), 0);
    const int result = run_activated({listening.get()}, 0, [&] {
        alarm(HANGS_S);
        kernel = of;
        factory = open_noting("svc");
        if (!turn_until([] { return log_lines.size() == 1 && events.size() == 1; }))
            return 1;
        if (log_lines[0].find("sends descriptors") == std::string::npos || events[0] != "connect good")
            return 2;
        if (!turn_until([&] { return gift.is_gone(); }))
            return 3;
        settle();
        mc_factory_close(factory);
        return 0;
    });
    EXPECT_EQ(result, 0);
    std::filesystem::remove(socket_path);
}

TEST_F(McHandedOverDescriptors, OfClientsThatWaitedBefore)
{
    alarm(HANGS_S);
    for (const Kernel of : {Kernel::PRESENT, Kernel::OLD})
        expect_those_who_waited_are_served_or_dropped(path("svc.mc"), of);
    alarm(0);
}

// What else comes along with packets, because the socket asks for it, is nothing that a client sends.
TEST_F(McHandedOverDescriptors, TheSendersCredentialsAreNone)
{
    const Fd listening = raw_listen(path("svc.mc"));
    const int yes = 1;
    ASSERT_EQ(setsockopt(listening.get(), SOL_SOCKET, SO_PASSCRED, &yes, sizeof yes), 0);
    setsockopt(listening.get(), SOL_SOCKET, SO_PASSSEC, &yes, sizeof yes); // not every kernel has it
    for (const Kernel of : {Kernel::PRESENT, Kernel::OLD}) {
        const Fd client = raw_client("svc", "good");
        const int result = run_activated({listening.get()}, 0, [&] {
            kernel = of;
            factory = open_noting("svc");
            settle();
            if (events.empty() || events[0] != "connect good" || !log_lines.empty())
                return 1;
            mc_factory_close(factory);
            return 0;
        });
        EXPECT_EQ(result, 0);
    }
}

TEST_F(McHandedOverDescriptors, AreRefusedFromThenOn)
{
    if (!kernel_refuses_descriptors())
        GTEST_SKIP() << "not with this kernel";
    const Fd listening = raw_listen(path("svc.mc"));
    const Fd good = raw_client("svc", "good");
    const int result = run_activated({listening.get()}, 0, [&] {
        factory = open_noting("svc");
        settle();
        Gift gift;
        if (connections.size() != 1 || gift.send(good, header(1, "w", "")) != EPERM)
            return 1;
        if (gift.send(raw_connect("svc"), greeting("late")) != EPERM)
            return 2;
        const bool is_looked_at = connections[0]->look_ahead > 0; // its queue was seen to its end
        mc_factory_close(factory);
        return is_looked_at ? 3 : 0;
    });
    EXPECT_EQ(result, 0);
}

} // namespace
