// SPDX-License-Identifier: MIT
// A service and its clients: names, handlers, replies, turns.
#include "mc_support.h"

#include <fcntl.h>
#include <future>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class McServer : public McServiceTest {};

TEST_F(McServer, TellsNameAndCredentialsOfAForkedClient)
{
    static pid_t pid;
    static uid_t uid;
    factory->callback = [](mc_factory *owner, mc_connection *connection, void *data) {
        pid = mc_connection_pid(connection);
        uid = mc_connection_uid(connection);
        note_connection(owner, connection, data);
    };
    const pid_t child = in_child([] {
        mc_connection *connection = mc_connect("svc", "fb2.clock");
        mc_packet *request = mc_packet_new_command("add");
        mc_packet_build_args(request, "ii", 40, 2);
        mc_packet *answer = connection ? mc_call(connection, request, 20000) : nullptr;
        int32_t sum = 0;
        return answer && mc_packet_parse_args(answer, "i", &sum) == 1 && sum == 42 ? 0 : 1;
    });
    EXPECT_EQ(reap_in_loop(child), 0);
    settle();
    EXPECT_EQ(pid, child);
    EXPECT_EQ(uid, getuid());
    EXPECT_THAT(events, ElementsAre("connect fb2.clock", "fb2.clock: add ii", "hup fb2.clock"));
    EXPECT_THAT(log_lines, IsEmpty());
}

TEST_F(McServer, ServesAClientInPlainC)
{
    const char *program = getenv("MC_C_CLIENT");
    ASSERT_NE(program, nullptr) << "MC_C_CLIENT names the C client: run this through meson test";
    EXPECT_EQ(reap_in_loop(start({program, "svc"})), 0);
    ASSERT_TRUE(turn_until([] { return connections.empty() && !events.empty(); }));
    EXPECT_THAT(events, ElementsAre("connect c.client", "c.client: add ii", "c.client: add ii", "hup c.client"));
}

TEST_F(McServer, NameIsThereInTheCallback)
{
    const Fd plain = raw_client("svc", "fb.menu");
    const Fd nameless = raw_client("svc", "");
    const Fd longest = raw_client("svc", std::string(MC_NAME_MAX, 'n'));
    ASSERT_TRUE(turn_until([] { return connections.size() == 3; }));
    EXPECT_THAT(events, ElementsAre("connect fb.menu", "connect ", "connect " + std::string(MC_NAME_MAX, 'n')));
}

TEST_F(McServer, ReplyCarriesTheSerialOfItsRequest)
{
    const Fd client = raw_client("svc", "a");
    ASSERT_TRUE(raw_send(client, header(0xdeadbeef, "echo", "s") + padded_text("hello")));
    ASSERT_TRUE(raw_send(client, header(7, "quiet", "")));
    ASSERT_TRUE(raw_send(client, header(8, "add", "ii") + u32(1) + u32(2)));
    settle();
    EXPECT_EQ(raw_receive(client), header(0xdeadbeef, "", "s") + padded_text("hello"));
    EXPECT_EQ(raw_receive(client), header(8, "", "i") + u32(3));
    EXPECT_EQ(raw_receive(client), "");
}

TEST_F(McServer, HandlersOfAWordGoFirstAndTheLastOneSetWins)
{
    static std::string served;
    served.clear();
    const Fd client = raw_client("svc", "a");
    settle();
    mc_connection *connection = connections.at(0);
    const mc_handler_func one = [](mc_connection *, mc_packet *) -> mc_packet * { return served += '1', nullptr; };
    const mc_handler_func two = [](mc_connection *, mc_packet *) -> mc_packet * { return served += '2', nullptr; };
    const mc_handler_func any = [](mc_connection *, mc_packet *) -> mc_packet * { return served += '*', nullptr; };
    const auto request = [&] {
        ASSERT_TRUE(raw_send(client, header(1, "w", "")));
        settle();
    };
    EXPECT_EQ(mc_set_handler(connection, "w", one, nullptr), 0);
    EXPECT_EQ(mc_set_handler(connection, "", any, nullptr), 0);
    request();
    EXPECT_EQ(mc_set_handler(connection, "w", two, nullptr), 0);
    request();
    EXPECT_EQ(mc_set_handler(connection, "w", nullptr, nullptr), 0);
    request();
    EXPECT_EQ(mc_set_handler(connection, "", nullptr, nullptr), 0);
    EXPECT_EQ(mc_set_handler(connection, "never set", nullptr, nullptr), 0);
    request(); // nobody serves it: ignored
    EXPECT_EQ(served, "12*");
    EXPECT_FALSE(raw_at_end(client));
    EXPECT_EQ(mc_set_handler(connection, nullptr, one, nullptr), -1);
}

TEST_F(McServer, UserDataIsTheCallers)
{
    const Fd client = raw_client("svc", "a");
    settle();
    int mine;
    EXPECT_EQ(mc_user_data(connections.at(0)), nullptr);
    EXPECT_EQ(mc_set_user_data(connections[0], &mine, 0), 0);
    EXPECT_EQ(mc_user_data(connections[0]), &mine);
}

TEST_F(McServer, FactoryCallbackGetsItsUserData)
{
    static mc_factory *seen_factory;
    static void *seen_data;
    int mine;
    mc_factory *other = mc_factory_open(
        "other",
        [](mc_factory *from, mc_connection *connection, void *data) {
            seen_factory = from;
            seen_data = data;
            mc_close(connection); // refused
        },
        &mine, nullptr);
    ASSERT_NE(other, nullptr);
    const Fd client = raw_client("other", "a");
    settle();
    EXPECT_EQ(seen_factory, other);
    EXPECT_EQ(seen_data, &mine);
    EXPECT_TRUE(raw_at_end(client));
    mc_factory_close(other);
}

TEST_F(McServer, TwoServicesKeepTheirClientsApart)
{
    mc_factory *other = open_noting("other");
    ASSERT_NE(other, nullptr);
    const Fd one = raw_client("svc", "one");
    const Fd two = raw_client("other", "two");
    settle();
    EXPECT_THAT(events, testing::UnorderedElementsAre("connect one", "connect two"));
    mc_factory_close(other);
    settle();
    EXPECT_TRUE(raw_at_end(two));
    EXPECT_FALSE(raw_at_end(one));
}

TEST_F(McServer, UnattachedConnectionWaits)
{
    static mc_connection *kept;
    mc_factory *other = mc_factory_open(
        "later", [](mc_factory *, mc_connection *connection, void *) { kept = connection; }, nullptr, nullptr);
    const Fd client = raw_client("later", "a");
    ASSERT_TRUE(raw_send(client, header(1, "w", "")));
    settle(); // ends: a packet that nobody may have yet does not keep the loop awake
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(mc_glib_init(kept), 0);
    EXPECT_EQ(mc_glib_init(kept), 0); // once more does nothing
    mc_set_handler(kept, "", note_request, nullptr);
    settle();
    EXPECT_THAT(events, ElementsAre("a: w "));
    mc_factory_close(other);
}

// Reports that have arrived meet in one render: all of them are handled before idle work that the first one starts.
TEST_F(McServer, ABatchIsHandledBeforeIdleWorkOfItsFirstPacket)
{
    const Fd client = raw_client("svc", "a");
    settle();
    mc_set_handler(
        connections.at(0), "",
        [](mc_connection *, mc_packet *request) -> mc_packet * {
            if (events.size() == 1)
                g_idle_add_full(
                    libmc::TURN_PRIORITY, [](gpointer) -> gboolean { return events.push_back("idle"), FALSE; }, nullptr,
                    nullptr);
            events.push_back(mc_packet_command(request));
            return nullptr;
        },
        nullptr);
    for (const char *word : {"1", "2", "3"})
        ASSERT_TRUE(raw_send(client, header(1, word, "")));
    EXPECT_TRUE(turn());
    EXPECT_THAT(events, ElementsAre("connect a", "1", "2", "3"));
    settle();
    EXPECT_EQ(events.back(), "idle");
}

// A handler may run the main loop: its connection rests meanwhile, and does not keep that loop awake.
TEST_F(McServer, AHandlerThatRunsTheLoopMeetsNoOtherRequestOfItsConnection)
{
    static Fd client;
    static Wait inside;
    client = raw_client("svc", "a");
    settle();
    events.clear();
    mc_set_handler(
        connections.at(0), "outer",
        [](mc_connection *, mc_packet *) -> mc_packet * {
            EXPECT_TRUE(raw_send(client, header(1, "inner", "")));
            settle();
            inside = next_wait();
            events.push_back("outer");
            return nullptr;
        },
        nullptr);
    ASSERT_TRUE(raw_send(client, header(1, "outer", "")));
    settle();
    EXPECT_FALSE(inside.ready);
    EXPECT_THAT(events, ElementsAre("outer", "a: inner "));
    client.reset();
    settle();
    EXPECT_EQ(events.back(), "hup a");
}

TEST_F(McServer, AFloodStarvesNeitherAnotherClientNorIdleWork)
{
    const Fd flood = raw_client("svc", "flood");
    const Fd meek = raw_client("svc", "meek");
    settle();
    events.clear();
    static size_t idle_runs;
    idle_runs = 0;
    const guint idle = g_idle_add([](gpointer) -> gboolean { return idle_runs++, G_SOURCE_CONTINUE; }, nullptr);
    for (int i = 0; i < 5 * libmc::PACKETS_PER_TURN; i++)
        ASSERT_TRUE(raw_send(flood, header(1, "w", "")));
    ASSERT_TRUE(raw_send(meek, header(1, "w", "")));
    for (size_t round = 1; round <= 5; round++) {
        ASSERT_TRUE(turn());
        EXPECT_EQ(idle_runs, round);
        EXPECT_THAT(events, Contains("meek: w ").Times(1));
        EXPECT_THAT(events, Contains("flood: w ").Times(round * size_t{libmc::PACKETS_PER_TURN}));
    }
    g_source_remove(idle);
}

TEST_F(McServer, NeverWakesUpWhileNothingHappens)
{
    const Fd client = raw_client("svc", "a");
    ASSERT_TRUE(raw_send(client, header(1, "echo", "s") + padded_text("x")));
    settle();
    ASSERT_EQ(connections.size(), 1u);
    const Wait wait = next_wait();
    EXPECT_EQ(wait.timeout_ms, -1);
    EXPECT_FALSE(wait.ready);
}

TEST_F(McServer, ServesAConnectionWithoutAFactory)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    mc_connection *connection = mc_connection_new(pair[0], "given");
    Fd client(pair[1]);
    ASSERT_NE(connection, nullptr);
    note_connection(nullptr, connection, nullptr);
    ASSERT_TRUE(raw_send(client, header(5, "add", "ii") + u32(20) + u32(22)));
    settle();
    EXPECT_EQ(raw_receive(client), header(5, "", "i") + u32(42));
    client.reset();
    settle();
    EXPECT_THAT(events, ElementsAre("connect given", "given: add ii", "hup given"));
}

TEST_F(McServer, AConnectionOverNothingServesDirectCalls)
{
    mc_connection *connection = mc_connection_new(-1, "direct");
    ASSERT_NE(connection, nullptr);
    EXPECT_STREQ(mc_connection_name(connection), "direct");
    EXPECT_EQ(mc_connection_pid(connection), -1);
    EXPECT_EQ(mc_connection_uid(connection), static_cast<uid_t>(-1));
    EXPECT_EQ(mc_fd(connection), -1);
    EXPECT_EQ(mc_glib_init(connection), -1);
    EXPECT_EQ(mc_set_handler(connection, "", note_request, nullptr), 0);
    EXPECT_EQ(mc_close(connection), 0);
    EXPECT_EQ(mc_connection_new(-1, nullptr), nullptr);
    EXPECT_EQ(mc_connection_new(-1, std::string(MC_NAME_MAX + 1, 'n').c_str()), nullptr);
}

TEST_F(McServer, EveryDescriptorIsClosedOnExec)
{
    mc_connection *client = mc_connect("svc", "a");
    ASSERT_NE(client, nullptr);
    settle();
    for (const int fd : {mc_fd(client), mc_fd(connections.at(0)), factory->listener.fd, factory->listener.folder_fd,
                         factory->listener.lock_fd, factory->reserve_fd})
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << fd;
    mc_close(client);
}

TEST_F(McServer, ARequestIsNotSentFromTheServersSide)
{
    const Fd client = raw_client("svc", "a");
    settle();
    mc_packet *request = mc_packet_new_command("w");
    EXPECT_EQ(mc_send(connections.at(0), request), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mc_call(connections[0], request, 0), nullptr);
    EXPECT_EQ(raw_receive(client), "");
    mc_packet_free(request);
}

} // namespace
