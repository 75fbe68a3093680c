// SPDX-License-Identifier: MIT
// Many connections on one loop: everybody has a turn, what is quiet costs nothing, and what has ended has no turn any
// more, whoever ended it and whatever takes its place.
#include "mc_support.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <glib-unix.h>
#include <map>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using libmc::PACKETS_PER_TURN;
using libmc::READY_MAX;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int MANY = 200;

class McWatch : public McServiceTest {
protected:
    std::vector<Fd> greeted(int n)
    {
        factory->limits.per_peer = libmc::CONNECTIONS_MAX; // all of them are this process's
        std::vector<Fd> clients;
        for (int i = 0; i < n; i++) {
            clients.push_back(raw_client("svc", std::to_string(i)));
            settle();
        }
        EXPECT_THAT(connections, SizeIs(static_cast<size_t>(n)));
        events.clear();
        return clients;
    }
};

// With the waiting of a server's main loop, instead of GLib's own.
class McWait : public McWatch {
protected:
    void SetUp() override
    {
        McWatch::SetUp();
        usual = g_main_context_get_poll_func(nullptr);
        g_main_context_set_poll_func(nullptr, [](GPollFD *fds, guint n, gint timeout_ms) -> gint {
            return libmc::watch_poll(reinterpret_cast<pollfd *>(fds), n, timeout_ms, nullptr);
        });
    }
    void TearDown() override
    {
        g_main_context_set_poll_func(nullptr, usual);
        McWatch::TearDown();
    }
    GPollFunc usual = nullptr;
};

void send_some(const Fd &client, int n)
{
    for (int i = 0; i < n; i++)
        ASSERT_TRUE(raw_send(client, header(1, "w", "")));
}

// How many requests of each client the events tell of.
std::map<std::string, int> served()
{
    std::map<std::string, int> counts;
    for (const mc_connection *connection : connections)
        counts[mc_connection_name(connection)] = 0;
    for (const std::string &event : events)
        counts[event.substr(0, event.find(':'))]++;
    return counts;
}

// After each turn nobody is ahead of anybody by more than one turn.
void expect_round_robin(const std::vector<Fd> &clients)
{
    constexpr int turns_each = 3;
    for (const Fd &client : clients)
        send_some(client, turns_each * PACKETS_PER_TURN);
    size_t before = 0;
    while (turn()) {
        EXPECT_LE(events.size() - before, static_cast<size_t>(READY_MAX * PACKETS_PER_TURN)) << "one turn is bounded";
        before = events.size();
        int least = INT_MAX, most = 0;
        for (const auto &[name, n] : served()) {
            least = std::min(least, n);
            most = std::max(most, n);
        }
        ASSERT_LE(most - least, PACKETS_PER_TURN);
    }
    EXPECT_THAT(events, SizeIs(clients.size() * turns_each * PACKETS_PER_TURN));
}

TEST_F(McWatch, EachOfManyHasItsTurn)
{
    expect_round_robin(greeted(MANY));
}

TEST_F(McWait, EachOfManyHasItsTurn)
{
    expect_round_robin(greeted(MANY));
}

// Those that never stop are all in front; the last one has its turn all the same.
TEST_F(McWatch, AMeekOneAmongManyThatFloodHasItsTurn)
{
    const std::vector<Fd> clients = greeted(MANY);
    for (int i = 0; i + 1 < MANY; i++)
        send_some(clients[static_cast<size_t>(i)], 2 * PACKETS_PER_TURN);
    send_some(clients.back(), 1);
    const std::string request = std::to_string(MANY - 1) + ": w ";
    for (int i = 0; i < MANY; i += READY_MAX)
        ASSERT_TRUE(turn());
    EXPECT_THAT(events, testing::Contains(request).Times(1));
}

TEST_F(McWatch, ManyThatAreQuietNeverWakeTheLoop)
{
    const std::vector<Fd> clients = greeted(MANY);
    const Wait wait = next_wait();
    EXPECT_EQ(wait.timeout_ms, -1);
    EXPECT_FALSE(wait.ready);
}

TEST_F(McWatch, ClosedInTheMiddleOfABatch)
{
    const std::vector<Fd> clients = greeted(20);
    for (mc_connection *connection : connections)
        mc_set_handler(
            connection, "",
            [](mc_connection *self, mc_packet *) -> mc_packet * {
                events.push_back(mc_connection_name(self));
                while (connections.size() > 1) {
                    mc_connection *other = connections[connections[0] == self ? 1 : 0];
                    std::erase(connections, other);
                    mc_close(other);
                }
                return nullptr;
            },
            nullptr);
    for (const Fd &client : clients)
        send_some(client, 1);
    settle();
    EXPECT_THAT(events, SizeIs(1));
    EXPECT_THAT(connections, SizeIs(1));
}

TEST_F(McWatch, HungUpInTheMiddleOfABatch)
{
    std::vector<Fd> clients = greeted(MANY);
    for (Fd &client : clients) {
        send_some(client, 2);
        client.reset();
    }
    settle();
    EXPECT_THAT(events, SizeIs(3 * MANY));
    EXPECT_THAT(connections, IsEmpty());
    for (int i = 0; i < MANY; i++) {
        const std::string name = std::to_string(i);
        EXPECT_LT(std::ranges::find(events, name + ": w "), std::ranges::find(events, "hup " + name));
    }
    EXPECT_THAT(log_lines, IsEmpty());
}

int spare = -1; // takes the descriptor's number of whoever is closed

// Ends the other connection, and puts a new one in its place.
mc_packet *take_the_others_place(mc_connection *self, mc_packet *)
{
    events.push_back("first");
    mc_connection *other = connections[connections[0] == self ? 1 : 0];
    const int number = mc_fd(other);
    std::erase(connections, other);
    mc_close(other);
    const int same = fcntl(spare, F_DUPFD_CLOEXEC, number);
    EXPECT_EQ(same, number);
    note_connection(nullptr, mc_connection_new(same, "new"), nullptr);
    return nullptr;
}

// The new connection has the descriptor of one whose turn was due, and probably its memory too.
TEST_F(McWatch, ADescriptorUsedAgainWithinABatchIsANewOne)
{
    const std::vector<Fd> clients = greeted(2);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    Fd far(pair[0]), near(pair[1]);
    spare = near.get();
    for (mc_connection *connection : connections)
        mc_set_handler(connection, "", take_the_others_place, nullptr);
    for (const Fd &client : clients)
        send_some(client, 1);
    settle();
    near.reset();
    EXPECT_THAT(events, ElementsAre("first", "connect new"));
    send_some(far, 1);
    settle();
    EXPECT_EQ(events.back(), "new: w ");
    far.reset();
    settle();
    EXPECT_EQ(events.back(), "hup new");
}

// The other turns that were due are had in there, and once.
TEST_F(McWatch, AHandlerThatRunsTheLoopInTheMiddleOfABatch)
{
    const std::vector<Fd> clients = greeted(5);
    for (mc_connection *connection : connections)
        mc_set_handler(
            connection, "",
            [](mc_connection *self, mc_packet *) -> mc_packet * {
                events.push_back(mc_connection_name(self));
                settle();
                return nullptr;
            },
            nullptr);
    for (const Fd &client : clients)
        send_some(client, 2);
    settle();
    EXPECT_THAT(served(), testing::Each(testing::Pair(testing::_, 2)));
}

TEST_F(McWatch, TheSetIsClosedOnExec)
{
    EXPECT_EQ(fcntl(libmc::watch_descriptor(), F_GETFD), FD_CLOEXEC);
}

TEST_F(McWatch, TheSetGoesWithItsLastUser)
{
    mc_factory_close(factory);
    factory = nullptr;
    EXPECT_EQ(libmc::watch_descriptor(), -1);
    factory = open_noting("svc");
    const Fd client = raw_client("svc", "a");
    settle();
    EXPECT_THAT(events, ElementsAre("connect a"));
}

// A process that was forked off keeps the socket open, and the loop's set knows sockets, not descriptors.
TEST_F(McWatch, AClosedConnectionThatAForkedProcessHoldsHasNoTurn)
{
    const std::vector<Fd> clients = greeted(1);
    const pid_t child = in_child([] { return pause(); });
    mc_close(connections.at(0));
    connections.clear();
    send_some(clients[0], 1); // there is still somebody to take it
    const Wait wait = next_wait();
    kill(child, SIGKILL);
    wait_for(child);
    EXPECT_FALSE(wait.ready);
    EXPECT_EQ(wait.timeout_ms, -1);
}

TEST_F(McWatch, WhatCannotBeWaitedForIsRefused)
{
    const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    mc_connection *connection = mc_connection_new(fd, "a file");
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(mc_glib_init(connection), -1);
    mc_close(connection);
    const Fd client = raw_client("svc", "a");
    settle();
    EXPECT_THAT(events, ElementsAre("connect a"));
}

// ---- the waiting of a server's main loop ----

TEST_F(McWait, ServesAndSleeps)
{
    const std::vector<Fd> clients = greeted(3);
    for (const Fd &client : clients)
        send_some(client, 1);
    g_main_context_iteration(nullptr, TRUE);
    EXPECT_THAT(events, SizeIs(3));
    EXPECT_FALSE(turn());
}

bool is_ready(int fd)
{
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, 0) > 0;
}

// Instead of at both descriptors, in whatever order they are given.
TEST_F(McWait, WaitsAtTheSetItself)
{
    const int set = libmc::watch_descriptor();
    for (const nfds_t at : {nfds_t{0}, nfds_t{1}}) {
        const Fd wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        pollfd fds[2]{{wakeup.get(), POLLIN, 0}, {wakeup.get(), POLLIN, 0}};
        fds[at].fd = set;
        EXPECT_EQ(libmc::watch_poll(fds, 2, 0, nullptr), 0);
        EXPECT_EQ(eventfd_write(wakeup.get(), 1), 0);
        EXPECT_TRUE(is_ready(set)) << "it is in the set";
        EXPECT_EQ(libmc::watch_poll(fds, 2, -1, nullptr), 1);
        EXPECT_EQ(fds[at].revents, 0);
        EXPECT_EQ(fds[1 - at].revents, POLLIN);
        Fd client = raw_connect("svc");
        fds[0].revents = fds[1].revents = 0;
        EXPECT_EQ(libmc::watch_poll(fds, 2, -1, nullptr), 2);
        EXPECT_EQ(fds[at].revents, POLLIN);
        client.reset();
        settle();
    }
}

TEST_F(McWait, AnotherThreadWakesIt)
{
    static bool woken;
    woken = false;
    std::thread other([] {
        g_main_context_invoke(
            nullptr, [](gpointer) -> gboolean { return woken = true, G_SOURCE_REMOVE; }, nullptr);
    });
    EXPECT_TRUE(turn_until([] { return woken; }));
    other.join();
    settle();
    EXPECT_FALSE(turn()) << "and it sleeps again";
}

TEST_F(McWait, OtherDescriptorsAreServedToo)
{
    const std::vector<Fd> clients = greeted(1);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    Fd out(ends[0]), in(ends[1]);
    GSource *source = g_unix_fd_source_new(out.get(), G_IO_IN);
    g_source_set_callback(source, G_SOURCE_FUNC(+[](gint fd, GIOCondition, gpointer) -> gboolean {
                              char byte;
                              events.push_back(read(fd, &byte, 1) == 1 ? "byte" : "nothing");
                              return G_SOURCE_CONTINUE;
                          }),
                          nullptr, nullptr);
    g_source_attach(source, nullptr);
    ASSERT_EQ(write(in.get(), ".", 1), 1);
    settle();
    send_some(clients[0], 1);
    settle();
    EXPECT_THAT(events, ElementsAre("byte", "0: w "));
    g_source_destroy(source);
    g_source_unref(source);
    send_some(clients[0], 1);
    settle();
    EXPECT_THAT(events, SizeIs(3));
}

// A source of higher priority is found ready together with a client: that one's turn is kept back, not lost.
struct Hasty {
    GSource base;
    int left;
    void (*run)();
};

GSource *attach_hasty(void (*run)())
{
    static GSourceFuncs functions{
        [](GSource *, gint *timeout_ms) -> gboolean { return *timeout_ms = -1, FALSE; },
        [](GSource *source) -> gboolean { return reinterpret_cast<Hasty *>(source)->left > 0; },
        [](GSource *source, GSourceFunc, gpointer) -> gboolean {
            auto *hasty = reinterpret_cast<Hasty *>(source);
            hasty->run();
            return --hasty->left > 0;
        },
        nullptr,
        nullptr,
        nullptr,
    };
    GSource *source = g_source_new(&functions, sizeof(Hasty));
    reinterpret_cast<Hasty *>(source)->left = 3;
    reinterpret_cast<Hasty *>(source)->run = run;
    g_source_set_priority(source, G_PRIORITY_HIGH);
    g_source_attach(source, nullptr);
    g_source_unref(source);
    return source;
}

TEST_F(McWait, ATurnThatWasKeptBackIsHadOnce)
{
    const std::vector<Fd> clients = greeted(1);
    attach_hasty([] { events.push_back("hasty"); });
    send_some(clients[0], 1);
    settle();
    EXPECT_THAT(events, ElementsAre("hasty", "hasty", "hasty", "0: w "));
}

// Who kept it back waits for another descriptor from then on: the kernel does not tell of the client again.
TEST_F(McWait, ATurnThatWasKeptBackIsNotForgottenOverOtherDescriptors)
{
    const std::vector<Fd> clients = greeted(1);
    static GSource *other;
    other = nullptr;
    attach_hasty([] {
        events.push_back("hasty");
        if (other)
            return;
        other = g_unix_fd_source_new(STDIN_FILENO, G_IO_PRI); // never ready
        g_source_attach(other, nullptr);
    });
    send_some(clients[0], 1);
    settle();
    EXPECT_THAT(events, ElementsAre("hasty", "hasty", "hasty", "0: w "));
    g_source_destroy(other);
    g_source_unref(other);
}

TEST_F(McWait, ATurnThatWasKeptBackEndsWithItsConnection)
{
    const std::vector<Fd> clients = greeted(1);
    attach_hasty([] {
        if (!connections.empty())
            mc_close(connections[0]);
        connections.clear();
    });
    send_some(clients[0], 1);
    settle();
    EXPECT_THAT(events, IsEmpty());
    EXPECT_FALSE(turn());
}

} // namespace
