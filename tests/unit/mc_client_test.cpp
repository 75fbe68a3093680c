// SPDX-License-Identifier: MIT
// The client side against a server that is written out by hand, so that it can answer late, wrongly or not at all.
#include "mc_support.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <pthread.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

using Packet = std::unique_ptr<mc_packet, decltype(&mc_packet_free)>;

class McClient : public McTest {
protected:
    void SetUp() override
    {
        McTest::SetUp();
        listening = raw_listen(path("svc.mc"));
        client = mc_connect("svc", "me");
        ASSERT_NE(client, nullptr);
        server.reset(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    void TearDown() override
    {
        mc_close(client);
        server.reset();
        listening.reset();
        McTest::TearDown();
    }
    // Waits for the next packet at the server's end.
    std::string next_request()
    {
        std::string bytes(MC_PACKET_MAX, '\0');
        const ssize_t n = recv(server.get(), bytes.data(), bytes.size(), 0);
        bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return bytes;
    }
    // Calls "ask" in a thread of the client's own; `play` is the server meanwhile. Returns the answer; errno in
    // `error`.
    Packet call_while(int timeout_ms, const std::function<void()> &play)
    {
        mc_packet *answer = nullptr;
        std::thread thread([&] {
            answer = mc_call(client, request.get(), timeout_ms);
            error = errno;
        });
        play();
        thread.join();
        return {answer, mc_packet_free};
    }
    Packet request{mc_packet_new_command("ask"), mc_packet_free};
    Fd listening, server;
    mc_connection *client = nullptr;
    int error = 0;
};

TEST_F(McClient, GreetsWithExactlyTheseBytes)
{
    EXPECT_EQ(next_request(), greeting("me"));
    EXPECT_STREQ(mc_connection_name(client), "me");
    EXPECT_GE(mc_fd(client), 0);
}

// With room again it is connected, and its socket is as one of mc_connect.
TEST_F(McClient, ConnectsInTimeOrNotAtAll)
{
    ASSERT_EQ(listen(listening.get(), 0), 0);
    std::vector<mc_connection *> all;
    while (mc_connection *one = mc_connect_in_time("svc", "one", 0)) {
        all.push_back(one);
        ASSERT_LE(all.size(), 10u);
    }
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(mc_connect_in_time("svc", "one", 30), nullptr);
    EXPECT_EQ(errno, ETIMEDOUT);
    std::vector<Fd> taken; // open until the greeting is there
    std::thread taker([&] {
        for (size_t i = 0; i <= all.size(); i++)
            taken.emplace_back(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    });
    mc_connection *late = mc_connect_in_time("svc", "late", 30000);
    EXPECT_NE(late, nullptr) << strerror(errno);
    if (late != nullptr) {
        EXPECT_EQ(fcntl(mc_fd(late), F_GETFL) & O_NONBLOCK, 0);
        timeval limit = {1, 1};
        socklen_t size = sizeof limit;
        EXPECT_EQ(getsockopt(mc_fd(late), SOL_SOCKET, SO_SNDTIMEO, &limit, &size), 0);
        EXPECT_EQ(limit.tv_sec + limit.tv_usec, 0);
    }
    shutdown(listening.get(), SHUT_RD); // the taker ends in any case
    taker.join();
    all.push_back(late);
    for (mc_connection *one : all)
        mc_close(one);
}

TEST_F(McClient, SendsUnderRisingSerials)
{
    next_request();
    mc_packet_build_args(request.get(), "is", 7, "text");
    EXPECT_EQ(mc_send(client, request.get()), 0);
    EXPECT_EQ(mc_send(client, request.get()), 0);
    EXPECT_EQ(next_request(), header(1, "ask", "is") + u32(7) + padded_text("text"));
    EXPECT_EQ(next_request(), header(2, "ask", "is") + u32(7) + padded_text("text"));
}

TEST_F(McClient, CallSkipsAnswersToEarlierRequests)
{
    next_request();
    ASSERT_EQ(mc_send(client, request.get()), 0);
    const Packet answer = call_while(20000, [&] {
        next_request();
        EXPECT_EQ(next_request(), header(2, "ask", ""));
        EXPECT_TRUE(raw_send(server, header(1, "", "i") + u32(1)));
        EXPECT_TRUE(raw_send(server, header(2, "", "i") + u32(2)));
    });
    int32_t value = 0;
    ASSERT_NE(answer, nullptr);
    ASSERT_EQ(mc_packet_parse_args(answer.get(), "i", &value), 1);
    EXPECT_EQ(value, 2);
}

TEST_F(McClient, CallTimesOut)
{
    EXPECT_EQ(mc_call(client, request.get(), 0), nullptr);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(mc_call(client, request.get(), 20), nullptr);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(McClient, CallTimesOutBehindAServerThatReadsNothing)
{
    Packet big(mc_packet_new_command("big"), mc_packet_free);
    mc_packet_build_args(big.get(), "s", std::string(4000, 'x').c_str());
    bool timed_out = true;
    for (int i = 0; i < 10000 && timed_out; i++) // until the socket is full, and once more
        timed_out = !mc_call(client, big.get(), 0) && errno == ETIMEDOUT && client->serial < 500;
    EXPECT_EQ(errno, ETIMEDOUT);
}

// Answers to earlier requests come all the time, each well before the time is over.
TEST_F(McClient, WhatIsSkippedDoesNotProlongACall)
{
    constexpr int many = 10000; // half a minute of them
    std::atomic<bool> done = false;
    int sent = 0;
    std::thread chatter([&] {
        for (; !done && sent < many; sent++) {
            raw_send(server, header(0, "", ""));
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });
    EXPECT_EQ(mc_call(client, request.get(), 100), nullptr);
    EXPECT_EQ(errno, ETIMEDOUT);
    done = true;
    chatter.join();
    EXPECT_LT(sent, many);
}

TEST_F(McClient, ASignalDoesNotEndACall)
{
    struct sigaction action = {}, before;
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    next_request();
    std::atomic<bool> done = false;
    mc_packet *answer = nullptr;
    std::thread thread([&] {
        answer = mc_call(client, request.get(), 20000);
        done = true;
    });
    next_request(); // it waits, or is about to
    for (int i = 0; i < 50; i++) {
        pthread_kill(thread.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    EXPECT_FALSE(done);
    EXPECT_TRUE(raw_send(server, header(1, "", "")));
    thread.join();
    EXPECT_NE(answer, nullptr);
    mc_packet_free(answer);
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(McClient, TellsThatTheServerIsGone)
{
    const Packet answer = call_while(20000, [&] {
        next_request();
        next_request();
        server.reset();
    });
    EXPECT_EQ(answer, nullptr);
    EXPECT_EQ(error, EPIPE);
    EXPECT_EQ(mc_send(client, request.get()), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(mc_call(client, request.get(), -1), nullptr);
    EXPECT_EQ(errno, EPIPE);
}

// The server closes with requests unread: the kernel reports a reset.
TEST_F(McClient, AResetReadsAsGoneToo)
{
    server.reset();
    EXPECT_EQ(mc_send(client, request.get()), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(McClient, WhatWasSentBeforeAResetIsStillThere)
{
    ASSERT_TRUE(raw_send(server, header(5, "", "")));
    server.reset(); // with the greeting unread
    mc_packet packet;
    EXPECT_EQ(libmc::packet_receive(mc_fd(client), &packet), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(libmc::packet_receive(mc_fd(client), &packet), static_cast<ssize_t>(header(5, "", "").size()));
    EXPECT_EQ(libmc::packet_receive(mc_fd(client), &packet), 0);
}

TEST_F(McClient, AMalformedAnswerIsAnError)
{
    for (const std::string &bytes : {header(1, "", "i"), std::string(5000, 'x')}) {
        const Packet answer = call_while(20000, [&] {
            while (next_request().find("ask") == std::string::npos)
                continue;
            EXPECT_TRUE(raw_send(server, bytes));
        });
        EXPECT_EQ(answer, nullptr);
        EXPECT_EQ(error, EPROTO);
    }
}

TEST_F(McClient, SendingThrowsAwayAnswersThatNobodyWaitsFor)
{
    for (int i = 0; i < 3; i++)
        ASSERT_TRUE(raw_send(server, header(1, "", "")));
    ASSERT_EQ(mc_send(client, request.get()), 0);
    char byte;
    EXPECT_EQ(recv(mc_fd(client), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

// They are looked for less often once there were none for long; never so seldom that a server gives the client up.
TEST_F(McClient, AnswersThatComeLateAreThrownAwaySoon)
{
    constexpr int calm = 100;
    for (int i = 0; i < calm; i++) {
        ASSERT_EQ(mc_send(client, request.get()), 0);
        ASSERT_FALSE(next_request().empty());
    }
    ASSERT_TRUE(raw_send(server, header(1, "", "")));
    char byte;
    int sends = 0;
    for (; recv(mc_fd(client), &byte, 1, MSG_DONTWAIT | MSG_PEEK) >= 0 && sends < calm; sends++)
        ASSERT_EQ(mc_send(client, request.get()), 0);
    EXPECT_LE(sends, 8);
    for (int i = 0; i < 3; i++) { // and at once again
        ASSERT_TRUE(raw_send(server, header(1, "", "")));
        ASSERT_EQ(mc_send(client, request.get()), 0);
        EXPECT_EQ(recv(mc_fd(client), &byte, 1, MSG_DONTWAIT), -1);
    }
}

TEST_F(McClient, WhatIsNotAnsweredIsNoLastRequest)
{
    next_request();
    mc_packet_build_args(request.get(), "i", 7);
    EXPECT_EQ(mc_send(client, request.get()), 0);
    Packet report(mc_packet_new_command("tell"), mc_packet_free);
    mc_packet_build_args(report.get(), "s", "text");
    EXPECT_EQ(mc_send_unanswered(client, report.get(), -1), 0);
    EXPECT_EQ(next_request(), header(1, "ask", "i") + u32(7));
    EXPECT_EQ(next_request(), header(2, "tell", "s") + padded_text("text"));
    ASSERT_TRUE(raw_send(server, header(1, "", "i") + u32(5)));
    int32_t value = 0;
    Packet answer(mc_packet_new(0), mc_packet_free);
    EXPECT_EQ(mc_take_answer(client, answer.get(), 30000), 0);
    EXPECT_EQ(mc_packet_parse_args(answer.get(), "i", &value), 1);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(mc_take_answer(client, answer.get(), 0), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

// While answers to given up requests may come they are looked for, so that the server can always send; once the answer
// to the last one has been taken there are none.
TEST_F(McClient, SendingUnansweredLooksForAnswersOnlyWhileSomeMayCome)
{
    const auto is_left = [&] {
        char byte;
        return recv(mc_fd(client), &byte, 1, MSG_DONTWAIT | MSG_PEEK) >= 0;
    };
    ASSERT_EQ(mc_send(client, request.get()), 0);
    ASSERT_EQ(mc_send(client, request.get()), 0);
    Packet report(mc_packet_new_command("tell"), mc_packet_free);
    ASSERT_EQ(mc_send_unanswered(client, report.get(), 0), 0);
    ASSERT_TRUE(raw_send(server, header(1, "", "")));
    ASSERT_EQ(mc_send_unanswered(client, report.get(), 0), 0);
    EXPECT_FALSE(is_left());
    ASSERT_TRUE(raw_send(server, header(2, "", "")));
    Packet answer(mc_packet_new(0), mc_packet_free);
    ASSERT_EQ(mc_take_answer(client, answer.get(), 30000), 0);
    ASSERT_TRUE(raw_send(server, header(2, "", ""))); // no server does
    for (int i = 0; i < 30; i++)
        ASSERT_EQ(mc_send_unanswered(client, report.get(), 0), 0);
    EXPECT_TRUE(is_left());
}

TEST_F(McClient, SendingUnansweredWaitsNoLongerThanAllowed)
{
    int sent = 0;
    while (sent < 10000 && mc_send_unanswered(client, request.get(), 0) == 0)
        sent++;
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(mc_send_unanswered(client, request.get(), 10), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    std::thread reader([&] {
        for (int i = 0; i < sent + 2; i++) // the greeting, those that were sent, and one more
            EXPECT_FALSE(next_request().empty());
    });
    EXPECT_EQ(mc_send_unanswered(client, request.get(), -1), 0);
    reader.join();
    server.reset();
    EXPECT_EQ(mc_send_unanswered(client, request.get(), -1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(mc_send_unanswered(client, nullptr, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(McClient, SendingInTimeGivesUpBehindAServerThatReadsNothing)
{
    int sent = 0;
    while (sent < 10000 && mc_send_in_time(client, request.get(), 0) == 0)
        sent++;
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_LT(sent, 10000);
    ASSERT_TRUE(raw_send(server, header(1, "", ""))); // a server that is behind and answers
    EXPECT_EQ(mc_send_in_time(client, request.get(), 10), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    for (int i = 0; i < sent + 1; i++)
        ASSERT_FALSE(next_request().empty()); // the greeting, and those that were sent
    EXPECT_EQ(mc_send_in_time(client, request.get(), 10000), 0);
    EXPECT_EQ(next_request().substr(4), header(0, "ask", "").substr(4));
    char byte;
    EXPECT_EQ(recv(server.get(), &byte, 1, MSG_DONTWAIT), -1) << "what was given up was not sent";
}

TEST_F(McClient, ConnectErrorsHaveTheirErrno)
{
    const auto failure = [](const char *service, const char *name) {
        mc_connection *connection = mc_connect(service, name);
        EXPECT_EQ(connection, nullptr);
        return errno;
    };
    EXPECT_EQ(failure("none", "me"), ENOENT);
    listening.reset();
    EXPECT_EQ(failure("svc", "me"), ECONNREFUSED);
    EXPECT_EQ(failure("svc", std::string(MC_NAME_MAX + 1, 'n').c_str()), ENAMETOOLONG);
    EXPECT_EQ(failure(std::string(200, 's').c_str(), "me"), ENAMETOOLONG);
    EXPECT_EQ(failure("a/b", "me"), EINVAL);
    EXPECT_EQ(failure("", "me"), EINVAL);
    EXPECT_EQ(failure(nullptr, "me"), EINVAL);
    EXPECT_EQ(failure("svc", nullptr), EINVAL);
    EXPECT_EQ(mc_send(client, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
}

} // namespace
