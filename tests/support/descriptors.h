// SPDX-License-Identifier: MIT
// Descriptors that are sent to a server along with bytes, among them such as make whoever lets go of them wait.
#pragma once

#include <span>
#include <string>

// Sends both as one datagram. Returns 0, or the error.
int send_with_descriptors(int socket, const std::string &bytes, std::span<const int> fds);

// Whether this kernel lets a socket refuse them (Linux 6.16).
bool kernel_refuses_descriptors();
// From now on this process and what it starts meet a kernel without that.
void pretend_older_kernel();

// One end of a TCP connection. What was written into it is never read, and closing it waits an hour for that.
class LingeringSocket {
public:
    LingeringSocket();
    ~LingeringSocket(); // does not wait
    LingeringSocket(LingeringSocket &&other) noexcept;
    LingeringSocket(const LingeringSocket &) = delete;
    LingeringSocket &operator=(const LingeringSocket &) = delete;
    int fd() const { return fd_; }
    // Closes this process's descriptor alone: somebody else has one.
    void give_away();

private:
    int fd_, peer_;
};
