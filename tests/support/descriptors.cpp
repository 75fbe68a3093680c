// SPDX-License-Identifier: MIT
#include "descriptors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

namespace {

void set_linger(int fd, int on, int seconds)
{
    const linger time = {on, seconds};
    EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_LINGER, &time, sizeof time), 0) << strerror(errno);
}

// The halves of system calls' arguments that hold 32-bit values.
constexpr uint32_t argument(int n)
{
    constexpr bool is_big = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
    return static_cast<uint32_t>(offsetof(seccomp_data, args)) + static_cast<uint32_t>(n) * 8 + (is_big ? 4 : 0);
}

} // namespace

int send_with_descriptors(int socket, const std::string &bytes, std::span<const int> fds)
{
    std::vector<std::byte> control(CMSG_SPACE(fds.size_bytes()));
    iovec part = {const_cast<char *>(bytes.data()), bytes.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(fds.size_bytes());
    memcpy(CMSG_DATA(header), fds.data(), fds.size_bytes());
    return sendmsg(socket, &message, MSG_NOSIGNAL) < 0 ? errno : 0;
}

bool kernel_refuses_descriptors()
{
    int value;
    socklen_t size = sizeof value;
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const bool has_option = getsockopt(fd, SOL_SOCKET, SO_PASSRIGHTS, &value, &size) == 0;
    close(fd);
    return has_option;
}

void pretend_older_kernel()
{
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_setsockopt, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(1)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SOL_SOCKET, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument(2)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SO_PASSRIGHTS, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOPROTOOPT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {std::size(steps), steps};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        _exit(126);
}

LingeringSocket::LingeringSocket()
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int little = 4096;
    setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *name = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(bind(listener, name, size), 0) << strerror(errno);
    EXPECT_EQ(listen(listener, 1), 0) << strerror(errno);
    EXPECT_EQ(getsockname(listener, name, &size), 0) << strerror(errno);
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd_, name, size), 0) << strerror(errno);
    peer_ = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    close(listener);
    const std::string much(65536, 'x');
    while (send(fd_, much.data(), much.size(), MSG_DONTWAIT) > 0)
        continue;
    set_linger(fd_, 1, 3600);
}

LingeringSocket::LingeringSocket(LingeringSocket &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), peer_(std::exchange(other.peer_, -1))
{
}

LingeringSocket::~LingeringSocket()
{
    if (fd_ >= 0)
        set_linger(fd_, 0, 0);
    give_away();
    if (peer_ >= 0)
        close(peer_);
}

void LingeringSocket::give_away()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}
