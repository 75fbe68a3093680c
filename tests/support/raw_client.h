// SPDX-License-Identifier: MIT
// A connection below the library, for what the library would not send.
#pragma once

#include <string>

class RawClient {
public:
    // Connects, and greets when it is given a name. A test failure when nobody listens.
    explicit RawClient(const std::string &socket_path);
    RawClient(const std::string &socket_path, const std::string &name);
    ~RawClient();
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    void send_bytes(const std::string &bytes);
    void greet(const std::string &name) { send_bytes(greeting(name)); }
    // Waits until the server has closed the connection.
    bool is_dropped();
    // Asks for the depth of the output and waits for the answer: false when the connection ends instead.
    bool is_answered();
    void hang_up();
    int fd() const { return fd_; }

    static std::string greeting(const std::string &name);
    // A request without arguments.
    static std::string request(const std::string &word);

private:
    int fd_;
};
