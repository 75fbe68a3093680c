// SPDX-License-Identifier: MIT
// A server beside the stage's, in a folder where somebody has been before.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "../support/process.h"

class FurtherServer {
public:
    // Starts it and waits until it listens in `folder` or has said something.
    explicit FurtherServer(const std::string &folder,
                           const std::vector<std::pair<std::string, std::string>> &environment = {});
    ~FurtherServer(); // SIGTERM, and status 0
    FurtherServer(const FurtherServer &) = delete;
    FurtherServer &operator=(const FurtherServer &) = delete;

    pid_t pid() const { return pid_; }
    bool listens() const;
    const std::string &said() { return err_.text(); }

private:
    Pipe err_;
    pid_t pid_ = -1;
};

// Sends SIGTERM until the server has ended; what a shell would call its status.
int end_server(pid_t pid);

// A server in this folder says a line with this in it, once, and listens to nobody.
void expect_refusal(const std::string &folder, const std::string &line);
