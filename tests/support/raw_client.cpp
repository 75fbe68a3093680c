// SPDX-License-Identifier: MIT
#include "raw_client.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "process.h"

namespace {

std::string padded(std::string bytes)
{
    bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
    return bytes;
}

} // namespace

RawClient::RawClient(const std::string &socket_path) : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_path.c_str());
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
}

RawClient::RawClient(const std::string &socket_path, const std::string &name) : RawClient(socket_path)
{
    greet(name);
}

RawClient::~RawClient()
{
    hang_up();
}

void RawClient::hang_up()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

void RawClient::send_bytes(const std::string &bytes)
{
    EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()))
        << strerror(errno);
}

bool RawClient::is_dropped()
{
    return wait_until([&] {
        char byte;
        const ssize_t n = recv(fd_, &byte, 1, MSG_DONTWAIT);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    });
}

bool RawClient::is_answered()
{
    send_bytes(request("get_native_color_depth"));
    char answer[64];
    return recv(fd_, answer, sizeof answer, 0) > 0;
}

std::string RawClient::greeting(const std::string &name)
{
    std::string bytes("\0\0\0\0connect\0is\0\0", 16);  // serial, word, signature, padding
    bytes += std::string("\1\0\0\0", 4) + name + '\0'; // version, name
    return padded(bytes);
}

std::string RawClient::request(const std::string &word)
{
    return padded(std::string("\0\0\0\0", 4) + word + std::string("\0\0", 2)); // serial, word, empty signature
}
