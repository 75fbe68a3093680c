// SPDX-License-Identifier: MIT
#include "hostile_memory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../support/process.h"
#include "../support/test_client.h"

ChangingMemory::ChangingMemory(off_t bytes)
    : name_(unused_shared_memory_name()), fd_(shm_open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600))
{
    EXPECT_GE(fd_, 0) << strerror(errno);
    resize(bytes);
}

ChangingMemory::~ChangingMemory()
{
    shm_unlink(name_.c_str()); // gone already when the server has taken it
    close(fd_);
}

void ChangingMemory::create_hidden(mc_connection *connection, int width, int height, int stride, int alpha,
                                   int depth) const
{
    mc_packet *packet = mc_packet_new_command("create");
    mc_packet_build_args(packet, "iiiiiiiiis", alpha, depth, 5, 5, width, height, stride, 1, 0, name_.c_str());
    EXPECT_EQ(mc_send(connection, packet), 0);
    mc_packet_free(packet);
}

void ChangingMemory::create(mc_connection *connection, int width, int height, int stride, int alpha) const
{
    create_hidden(connection, width, height, stride, alpha);
    send_word(connection, "show");
}

void ChangingMemory::resize(off_t bytes) const
{
    EXPECT_EQ(ftruncate(fd_, bytes), 0) << strerror(errno);
}

void ChangingMemory::fill(off_t bytes, int byte) const
{
    const std::string text(static_cast<size_t>(bytes), static_cast<char>(byte));
    EXPECT_EQ(pwrite(fd_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size())) << strerror(errno);
}

void send_word(mc_connection *connection, const char *word)
{
    mc_packet *packet = mc_packet_new_command(word);
    EXPECT_EQ(mc_send(connection, packet), 0) << word << ": " << strerror(errno);
    mc_packet_free(packet);
}

void send_dirty(mc_connection *connection, int width, int height)
{
    mc_packet *packet = mc_packet_new_command("dirty");
    mc_packet_build_args(packet, "iiii", 0, 0, width, height);
    EXPECT_EQ(mc_send(connection, packet), 0) << strerror(errno);
    mc_packet_free(packet);
}

bool is_answered(mc_connection *connection)
{
    mc_packet *question = mc_packet_new_command("get_native_color_depth");
    mc_packet *answer = mc_call(connection, question, WAIT_SECONDS * 1000);
    const bool answered = answer != nullptr;
    mc_packet_free(question);
    mc_packet_free(answer);
    return answered;
}

bool settles(mc_connection *connection)
{
    for (int i = 0; i < QUESTIONS_TO_SETTLE; i++) {
        if (!is_answered(connection))
            return false;
    }
    return true;
}
