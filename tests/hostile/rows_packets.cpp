// SPDX-License-Identifier: MIT
// What arrives is no packet, or carries more than bytes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

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

// One descriptor `fd` several times over, beside the bytes.
void send_with_descriptors(int socket, const std::string &bytes, int fd)
{
    constexpr int COUNT = 20;
    alignas(cmsghdr) char control[CMSG_SPACE(COUNT * sizeof(int))] = {};
    iovec part{const_cast<char *>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(COUNT * sizeof(int));
    for (int i = 0; i < COUNT; i++)
        memcpy(CMSG_DATA(header) + static_cast<size_t>(i) * sizeof fd, &fd, sizeof fd);
    EXPECT_EQ(sendmsg(socket, &message, MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size())) << strerror(errno);
}

// A pipe's end comes when nobody has its other side any more: the server has closed what it was sent. The connection's
// own socket, sent over itself, is what a careless receiver never gets rid of.
void descriptors(Stage &stage)
{
    stage.in_process([&] {
        Pipe pipe;
        RawClient client(stage.socket_path());
        send_with_descriptors(client.fd(), RawClient::greeting("fb.gift"), pipe.write_end());
        for (int i = 0; i < 200; i++) {
            send_with_descriptors(client.fd(), RawClient::request("status"), pipe.write_end());
            send_with_descriptors(client.fd(), RawClient::request("status"), client.fd());
            EXPECT_TRUE(client.is_answered());
        }
        pipe.close_write();
        EXPECT_TRUE(wait_until([&] {
            pipe.text();
            return pipe.at_end();
        })) << "the server keeps a descriptor";
    });
    stage.add_done(401 * 20);
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
         "sends words that nobody knows, and too few arguments, without end",
         "nothing",
         "packets",
         {},
         unknown_words},
        {"Descriptors",
         "sends descriptors along with its packets, its own connection too",
         "they are closed, and the packets count",
         "descriptors",
         {},
         descriptors},
    };
}
