// SPDX-License-Identifier: MIT
// Connections in numbers, without a word, half closed, shared.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../support/raw_client.h"
#include "misbehaviour.h"
#include "server_limit.h"

namespace {

void one_after_the_other(Stage &stage)
{
    constexpr unsigned TIMES = 10000;
    stage.in_process([&] {
        for (unsigned i = 0; i < TIMES; i++) {
            RawClient client(stage.socket_path(), "fb.passer-by");
            stage.done()++;
        }
    });
}

using Crowd = std::vector<std::unique_ptr<RawClient>>;

// Asked and not answered: it was turned away.
unsigned connect_many(Stage &stage, unsigned wanted, Crowd &clients)
{
    unsigned served = 0;
    for (unsigned i = 0; i < wanted; i++) {
        clients.push_back(std::make_unique<RawClient>(stage.socket_path()));
        const std::string greeting = RawClient::greeting("fb.crowd");
        send(clients.back()->fd(), greeting.data(), greeting.size(), MSG_NOSIGNAL);
        const std::string question = RawClient::request("get_native_color_depth");
        send(clients.back()->fd(), question.data(), question.size(), MSG_NOSIGNAL);
        char answer[64];
        served += recv(clients.back()->fd(), answer, sizeof answer, 0) > 0 ? 1 : 0;
    }
    return served;
}

constexpr unsigned SHARE = 64; // of one process

void many_of_one(Stage &stage)
{
    constexpr unsigned WANTED = 400;
    stage.in_process([&] {
        for (int round = 0; round < 3; round++) {
            Crowd clients;
            EXPECT_EQ(connect_many(stage, WANTED, clients), SHARE) << round;
        }
    });
    stage.add_done(3 * WANTED);
}

// Processes that keep what they have, each with its share, until there is nothing left to share.
void crowd(Stage &stage, unsigned processes, unsigned &served)
{
    Crowd clients;
    served += connect_many(stage, SHARE, clients);
    stage.done() += SHARE;
    if (processes > 1)
        stage.in_process([&] { crowd(stage, processes - 1, served); });
    else
        EXPECT_EQ(served, 256u - 2) << "the bystander has two";
}

void many_at_once(Stage &stage)
{
    for (int round = 0; round < 3; round++) {
        stage.in_process([&] {
            unsigned served = 0;
            crowd(stage, 5, served);
        });
    }
}

void never_greets(Stage &stage)
{
    constexpr unsigned SILENT = 100;
    stage.in_process([&] {
        std::vector<std::unique_ptr<RawClient>> clients;
        for (unsigned i = 0; i < SILENT; i++)
            clients.push_back(std::make_unique<RawClient>(stage.socket_path()));
        for (const auto &client : clients)
            EXPECT_TRUE(client->is_dropped());
    });
    stage.add_done(SILENT);
}

void greets_wrongly(Stage &stage)
{
    const std::string greetings[] = {
        RawClient::request("show"),                                // no greeting at all
        RawClient::greeting(std::string(256, 'n')),                // too long a name
        std::string("\0\0\0\0connect\0is\0\0\7\0\0\0n\0\0\0", 24), // another version
        std::string("\0\0\0\0connect\0i\0\0\0\1\0\0\0", 20),       // no name
        std::string("\0\0\0\0show", 7),                            // no packet
    };
    stage.in_process([&] {
        for (int i = 0; i < 40; i++) {
            for (const std::string &greeting : greetings) {
                RawClient client(stage.socket_path());
                client.send_bytes(greeting);
                EXPECT_TRUE(client.is_dropped());
                stage.done()++;
            }
        }
    });
}

void comes_and_goes(Stage &stage)
{
    const std::string path = stage.socket_path();
    stage.until_updates(15, [&](std::atomic<unsigned long> &done) {
        for (;;) {
            RawClient client(path);
            done++;
        }
    });
}

void never_reads(Stage &stage)
{
    stage.in_process([&] {
        for (int i = 0; i < 10; i++) {
            RawClient client(stage.socket_path(), "fb.deaf");
            const std::string question = RawClient::request("get_native_color_depth");
            while (send(client.fd(), question.data(), question.size(), MSG_NOSIGNAL) > 0)
                stage.done()++;
            EXPECT_TRUE(errno == EPIPE || errno == ECONNRESET) << strerror(errno);
        }
    });
}

// What a client sends into a connection whose other direction it has shut counts; one that says it has no more to say
// is gone.
void half_closed(Stage &stage)
{
    stage.in_process([&] {
        for (int i = 0; i < 100; i++) {
            TestClient client("fb.half");
            RawClient deaf(stage.socket_path(), "fb.half");
            shutdown(deaf.fd(), SHUT_RD);
            deaf.send_bytes(RawClient::request("get_native_color_depth"));
            deaf.send_bytes(RawClient::request("status"));
            RawClient mute(stage.socket_path(), "fb.half");
            shutdown(mute.fd(), SHUT_WR);
            EXPECT_TRUE(mute.is_dropped());
            client.create({.x = 10, .y = 10, .width = 20, .height = 20, .level = 1});
            client.send("show");
            EXPECT_TRUE(client.is_connected());
            stage.done() += 2;
        }
    });
}

// Two processes write to one connection: it is served while either of them has it.
void shared_by_fork(Stage &stage)
{
    stage.in_process([&] {
        TestClient client("fb.shared");
        client.create({.x = 10, .y = 10, .width = 40, .height = 40, .level = 1});
        client.send("show");
        const pid_t other = fork();
        for (int i = 0; i < 3000; i++)
            client.send("move", {other == 0 ? i % 60 : i % 50, i % 40});
        if (other == 0)
            _exit(0);
        int status;
        EXPECT_EQ(waitpid(other, &status, 0), other);
        EXPECT_EQ(status, 0);
        EXPECT_TRUE(client.is_connected());
    });
    stage.add_done(6000);
}

void descriptors_exhausted(Stage &stage)
{
    const ServerLimit limit(stage.server(), RLIMIT_NOFILE, process_descriptors(stage.server()) + 10);
    stage.in_process([&] {
        Crowd clients;
        EXPECT_EQ(connect_many(stage, 200, clients), 10u);
    });
    stage.add_done(200);
    stage.bystander().expect_progress(3);
    stage.in_process([&] {
        Crowd clients;
        EXPECT_EQ(connect_many(stage, 1, clients), 1u) << "there is room again";
    });
}

} // namespace

std::vector<Misbehaviour> connection_rows()
{
    return {
        {"TenThousandConnections",
         "connects 10 000 times, one after the other",
         "nothing",
         "connections",
         {},
         one_after_the_other},
        {"ManyAtOnce",
         "opens more than 256 connections at once",
         "the others are turned away, with a line",
         "connections",
         {"refused a client: 256 connections are open already"},
         many_at_once},
        {"ManyOfOne",
         "opens more than 64 connections at once in one process",
         "the others are turned away, with a line",
         "connections",
         {"has 64 connections already"},
         many_of_one},
        {"ComesAndGoes",
         "connects and hangs up at once, without end",
         "nothing but a line for each",
         "connections",
         {"hung up without a greeting", "?clients have not greeted yet"},
         comes_and_goes},
        {"NeverGreets",
         "connects and says nothing",
         "it is closed after 5 seconds; of more than 32 such the oldest makes way",
         "connections",
         {"no greeting in time", "32 clients have not greeted yet"},
         never_greets},
        {"GreetsWrongly",
         "greets with another version, no name, too long a name, or something else",
         "its connection is closed, with a line",
         "connections",
         {"its first packet is not a greeting", "its name is too long", "another version", "malformed packet"},
         greets_wrongly},
        {"NeverReads",
         "asks without end and never reads an answer",
         "it is dropped, with a line; nobody waits for it",
         "questions",
         {"does not read its replies"},
         never_reads},
        {"HalfClosed",
         "shuts one direction of its connection",
         "no more reading: its requests still count; no more writing: it is gone",
         "connections",
         {},
         half_closed},
        {"SharedByFork",
         "shares its connection with a child, and both write",
         "both are served",
         "requests",
         {},
         shared_by_fork},
        {"DescriptorsExhausted",
         "connects until the server has no descriptor left",
         "newcomers are turned away, with a line, until there is one again",
         "connections",
         {"refused a client: no descriptor is free"},
         descriptors_exhausted},
    };
}
