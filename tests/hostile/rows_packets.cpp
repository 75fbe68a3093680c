// SPDX-License-Identifier: MIT
// What arrives is no packet, or carries more than bytes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

#include "../support/descriptors.h"
#include "../support/raw_client.h"
#include "misbehaviour.h"

namespace {

// Each on a connection of its own, which has to end over it.
void send_bad_packets(Stage &stage, int times, const std::function<std::string(int)> &packet)
{
    stage.in_process([&] {
        for (int i = 0; i < times; i++) {
            RawClient client(stage.socket_path(), "fb.bad");
            client.send_bytes(packet(i));
            EXPECT_TRUE(client.is_dropped()) << i;
        }
    });
    stage.add_done(static_cast<unsigned long>(times));
}

// A request of each kind of argument, whole.
std::string whole_packet(int i)
{
    const std::string integers("\1\2\3\4dirty\0iiii\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32);
    const std::string text("\1\2\3\4set_surface\0s\0\0\0fb.x\0\0\0\0", 28);
    return i % 2 == 0 ? integers : text;
}

void half_packets(Stage &stage)
{
    send_bad_packets(stage, 400, [](int i) {
        const std::string whole = whole_packet(i);
        return whole.substr(0, 1 + static_cast<size_t>(i / 2) % (whole.size() - 1));
    });
}

void empty_packets(Stage &stage)
{
    send_bad_packets(stage, 200, [](int) { return std::string(); });
}

void long_packets(Stage &stage)
{
    send_bad_packets(stage, 200, [](int i) { return std::string(4097 + static_cast<size_t>(i) * 600, 'a'); });
}

void random_garbage(Stage &stage)
{
    std::mt19937 random(1);
    send_bad_packets(stage, 400, [&](int) {
        std::string bytes(5 + random() % 300, '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(random());
        return bytes;
    });
}

void unknown_words(Stage &stage)
{
    stage.until_updates(15, [](std::atomic<unsigned long> &done) {
        TestClient client("fb.odd");
        client.create({.x = 10, .y = 10, .width = 20, .height = 20, .level = 1});
        const char *words[] = {"",      "SHOW", "shows",  "sho",       "explode",
                               "dirty", "move", "resize", "set_scale", "create "};
        for (;;) {
            client.send(words[done % std::size(words)], {-1});
            done++;
        }
    });
}

constexpr size_t COPIES = 20; // of each descriptor that is sent

// False where the kernel does not let them through, so that nothing has arrived.
bool send_copies(const RawClient &client, const std::string &bytes, int fd)
{
    const std::vector<int> fds(COPIES, fd);
    const int error = send_with_descriptors(client.fd(), bytes, fds);
    EXPECT_TRUE(error == 0 || error == EPERM) << strerror(error);
    return error == 0;
}

// A connection that descriptors have arrived at is closed; any other one is served.
void expect_answer_or_end(RawClient &client, bool has_arrived)
{
    EXPECT_TRUE(has_arrived ? client.is_dropped() : client.is_answered());
}

// A pipe's end comes when nobody has its other side any more.
void expect_nobody_has(Pipe &pipe)
{
    pipe.close_write();
    EXPECT_TRUE(wait_until([&] {
        pipe.text();
        return pipe.at_end();
    })) << "the server keeps a descriptor";
}

// The connection's own socket, sent over itself, is what a careless receiver never gets rid of.
void descriptors(Stage &stage)
{
    stage.in_process([&] {
        Pipe pipe;
        for (int i = 0; i < 100; i++) {
            for (const bool own : {false, true}) {
                RawClient client(stage.socket_path(), "fb.gift");
                const int fd = own ? client.fd() : pipe.write_end();
                expect_answer_or_end(client, send_copies(client, RawClient::request("status"), fd));
            }
        }
        expect_nobody_has(pipe);
    });
    stage.add_done(200 * COPIES);
}

struct Sent {
    bool greeted;     // whether the client has
    size_t before;    // packets that go before it and carry none
    const char *word; // theirs; null: they are empty, which ends the connection
    bool hang_up;     // whether the client goes at once
};

// Whoever lets go of the last descriptor of such a socket waits for an hour, unless it is told not to.
void send_lingering(Stage &stage, const Sent &sent)
{
    LingeringSocket socket;
    const int fds[] = {socket.fd()};
    RawClient client(stage.socket_path());
    if (sent.greeted)
        client.greet("fb.gift");
    const std::string before = sent.word != nullptr ? RawClient::request(sent.word) : "";
    for (size_t i = 0; i < sent.before; i++)
        send(client.fd(), before.data(), before.size(), MSG_NOSIGNAL); // it may have ended already
    const std::string packet = sent.greeted ? RawClient::request("status") : RawClient::greeting("fb.gift");
    const int error = send_with_descriptors(client.fd(), packet, fds);
    EXPECT_TRUE(error == 0 || error == EPERM || error == EPIPE || error == ECONNRESET) << strerror(error);
    if (error == 0)
        socket.give_away();
    // An empty packet in front of the end is the end.
    const bool stays = error == EPERM && sent.word != nullptr;
    EXPECT_TRUE(sent.hang_up || stays || client.is_dropped());
}

void lingering_descriptors(Stage &stage)
{
    constexpr Sent ALL[] = {
        {false, 0, "", false}, {true, 0, "", false},      {true, 7, "status", false}, {true, 7, "status", true},
        {true, 20, "", true},  {true, 1, nullptr, false}, {true, 20, nullptr, true},
    };
    stage.in_process([&] {
        for (int i = 0; i < 20; i++) {
            for (const Sent &sent : ALL)
                send_lingering(stage, sent);
        }
    });
    stage.add_done(20 * std::size(ALL));
    stage.bystander().expect_progress(5);
    const std::string server = "/proc/" + std::to_string(stage.server());
    const std::string children = server + "/task/" + std::to_string(stage.server()) + "/children";
    ASSERT_TRUE(file_exists(children));
    EXPECT_TRUE(wait_until([&] { return file_text(children).empty(); })) << "a process is left behind";
}

} // namespace

std::vector<Misbehaviour> packet_rows()
{
    return {
        {"HalfPackets",
         "sends the beginning of a packet, cut anywhere",
         "its connection is closed, with a line",
         "packets",
         {times(400, "dropped client \"fb.bad\"")},
         half_packets},
        {"EmptyPackets",
         "sends packets of 0 bytes",
         "its connection is closed, with a line",
         "packets",
         {times(200, "dropped client \"fb.bad\"")},
         empty_packets},
        {"LongPackets",
         "sends packets of more than 4096 bytes",
         "its connection is closed, with a line",
         "packets",
         {times(200, "dropped client \"fb.bad\"")},
         long_packets},
        {"RandomGarbage",
         "sends random bytes",
         "its connection is closed, with a line",
         "packets",
         {times(400, "dropped client \"fb.bad\"")},
         random_garbage},
        {"UnknownWords",
         "sends words that nobody knows, and too few arguments for others than \"create\", without end",
         "nothing",
         "packets",
         {},
         unknown_words},
        {"Descriptors",
         "sends descriptors along with its packets, its own connection too",
         "from Linux 6.16 on the kernel does not let it; before that, its connection is closed, with a line",
         "descriptors",
         {LogLine{"sends descriptors", 0}},
         descriptors},
        {"DescriptorsThatLinger",
         "sends sockets that whoever closes them waits for",
         "the same",
         "descriptors",
         {{"sends descriptors", 0}, some("malformed packet"), {"hung up without a greeting", 0}},
         lingering_descriptors},
        {"DescriptorsBeforeLinux616",
         "sends such sockets, where the kernel lets it",
         "its connection is closed, with a line; a process that is gone at once closes what it sent",
         "descriptors",
         {some("sends descriptors"), some("malformed packet")},
         lingering_descriptors,
         {.older_kernel = true}},
    };
}
