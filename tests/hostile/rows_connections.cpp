// SPDX-License-Identifier: MIT
// Connections in numbers, without a word, half closed, shared.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
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

// So many more join the crowd. Returns how many are served: who asks and is not answered was turned away.
unsigned connect_many(Stage &stage, Crowd &crowd, unsigned wanted)
{
    unsigned served = 0;
    for (unsigned i = 0; i < wanted; i++) {
        crowd.push_back(std::make_unique<RawClient>(stage.socket_path()));
        const std::string greeting = RawClient::greeting("fb.crowd");
        send(crowd.back()->fd(), greeting.data(), greeting.size(), MSG_NOSIGNAL);
        const std::string question = RawClient::request("get_native_color_depth");
        send(crowd.back()->fd(), question.data(), question.size(), MSG_NOSIGNAL);
        char answer[64];
        served += recv(crowd.back()->fd(), answer, sizeof answer, 0) > 0 ? 1 : 0;
        stage.done()++;
    }
    return served;
}

// How many the log's lines speak of: those that came soon after another one are told of by a later line.
unsigned long refusals_told(const std::string &log)
{
    const std::string before = " (and ";
    unsigned long told = 0;
    for (const std::string &line : lines_of(log)) {
        if (count_of(line, "refused a client: ") == 0)
            continue;
        const size_t at = line.find(before);
        told += 1 + (at != std::string::npos ? strtoul(line.c_str() + at + before.size(), nullptr, 10) : 0);
    }
    return told;
}

// While the crowd fills all places, another one connects again and again, until the log has told of all.
void expect_refusals_told(Stage &stage, Crowd &crowd, unsigned long refused)
{
    EXPECT_TRUE(wait_until([&] {
        EXPECT_EQ(connect_many(stage, crowd, 1), 0u);
        return refusals_told(stage.err()) >= ++refused;
    })) << refused
        << " were turned away: " << stage.err();
    EXPECT_EQ(refusals_told(stage.err()), refused) << stage.err();
}

constexpr unsigned SHARE = 64; // of one process

void many_of_one(Stage &stage)
{
    constexpr unsigned WANTED = 400;
    stage.in_process([&] {
        for (unsigned long round = 1; round <= 3; round++) {
            Crowd clients;
            EXPECT_EQ(connect_many(stage, clients, WANTED), SHARE) << round;
            if (round == 3)
                expect_refusals_told(stage, clients, round * (WANTED - SHARE));
        }
    });
}

// Processes that keep what they have, each with its share, until there is nothing left to share.
void crowd(Stage &stage, unsigned processes, unsigned &served)
{
    Crowd clients;
    served += connect_many(stage, clients, SHARE);
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

constexpr unsigned SILENT = 100;

void never_greets(Stage &stage)
{
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
    // Another one at most has come and not been counted. When more than 32 are there at once, the oldest makes way and
    // has no line of its own.
    stage.expect_connections_of_clients(0);
    const bool all_have_lines = count_of(stage.err(), "clients have not greeted yet") == 0;
    stage.expect_line({"hung up without a greeting", all_have_lines ? stage.done().load() : 1, stage.done() + 1});
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

constexpr int SIDE = 20;

// What the panel shows at the corners of a place of the small surfaces' size.
bool shows(const PanelView &panel, int x, int y, uint32_t word)
{
    return (panel.raw(x, y) & 0xFFFFFF) == word && (panel.raw(x + SIDE - 1, y + SIDE - 1) & 0xFFFFFF) == word;
}

// What a client sends into a connection whose other direction it has shut counts, before and after, also where the
// answer to it cannot reach it.
void stop_reading(const PanelView &panel, uint32_t colour)
{
    TestClient deaf("fb.deaf");
    deaf.create(pixels_filled(PixelFormat::XRGB, SIDE, SIDE, 0xFF000000 | colour), 10, 10, 1);
    deaf.send("show");
    deaf.shut(SHUT_RD);
    EXPECT_TRUE(wait_until([&] { return shows(panel, 10, 10, colour); })) << "what was sent before does not count";
    deaf.send("get_native_color_depth");
    deaf.send("move", {60, 70});
    EXPECT_TRUE(wait_until([&] { return shows(panel, 60, 70, colour); })) << "what is sent after it does not count";
}

// A client that says it has no more to say is gone: its connection ends, and so does its surface.
void stop_writing(const PanelView &panel, uint32_t colour, uint32_t below)
{
    TestClient mute("fb.mute");
    mute.create(pixels_filled(PixelFormat::XRGB, SIDE, SIDE, 0xFF000000 | colour), 10, 10, 1);
    mute.send("show");
    EXPECT_TRUE(wait_until([&] { return shows(panel, 10, 10, colour); }));
    mute.shut(SHUT_WR);
    EXPECT_TRUE(wait_until([&] { return mute.is_dropped(); })) << "it still has its connection";
    EXPECT_TRUE(wait_until([&] { return (panel.raw(10, 10) & 0xFFFFFF) == below; })) << "it still has its surface";
}

void half_closed(Stage &stage)
{
    stage.in_process([&] {
        const uint32_t below = stage.panel().raw(10, 10) & 0xFFFFFF;
        for (uint32_t i = 1; i <= 100; i++) {
            stop_reading(stage.panel(), i * 0x010203);
            stop_writing(stage.panel(), i * 0x020301, below);
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
        Crowd crowd;
        EXPECT_EQ(connect_many(stage, crowd, 200), 10u);
        expect_refusals_told(stage, crowd, 190);
    });
    stage.bystander().expect_progress(3);
    stage.in_process([&] {
        Crowd crowd;
        EXPECT_EQ(connect_many(stage, crowd, 1), 1u) << "there is room again";
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
         "the others are turned away; a line, one a second at most, says how many",
         "connections",
         {some("refused a client: 256 connections are open already")},
         many_at_once},
        {"ManyOfOne",
         "opens more than 64 connections at once in one process",
         "the others are turned away; a line, one a second at most, says how many",
         "connections",
         {some("has 64 connections already")},
         many_of_one},
        {"ComesAndGoes",
         "connects and hangs up at once, without end",
         "nothing but a line for each",
         "connections",
         {perhaps("clients have not greeted yet")},
         comes_and_goes},
        {"NeverGreets",
         "connects and says nothing",
         "it is closed after 5 seconds; of more than 32 such the oldest makes way",
         "connections",
         {{"no greeting in time", 32, SILENT}, some("32 clients have not greeted yet")},
         never_greets},
        {"GreetsWrongly",
         "greets with another version, no name, too long a name, or something else",
         "its connection is closed, with a line",
         "connections",
         {times(80, "its first packet is not a greeting"), times(40, "its name is too long"),
          times(40, "another version"), times(40, "malformed packet")},
         greets_wrongly},
        {"NeverReads",
         "asks without end and never reads an answer",
         "it is dropped, with a line; nobody waits for it",
         "questions",
         {times(10, "does not read its replies")},
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
         "newcomers are turned away until there is one again; a line, one a second at most, says how many",
         "connections",
         {some("refused a client: no descriptor is free")},
         descriptors_exhausted},
    };
}
