// SPDX-License-Identifier: MIT
// A limit on what the running server may have, taken away again at the end.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/resource.h>
#include <sys/types.h>

class ServerLimit {
public:
    ServerLimit(pid_t server, __rlimit_resource resource, rlim_t limit) : server_(server), resource_(resource)
    {
        EXPECT_EQ(prlimit(server, resource, nullptr, &before_), 0) << strerror(errno);
        rlimit low = before_;
        low.rlim_cur = limit;
        EXPECT_EQ(prlimit(server, resource, &low, nullptr), 0) << strerror(errno);
    }
    ~ServerLimit() { prlimit(server_, resource_, &before_, nullptr); } // it may have ended
    ServerLimit(const ServerLimit &) = delete;
    ServerLimit &operator=(const ServerLimit &) = delete;

private:
    pid_t server_;
    __rlimit_resource resource_;
    rlimit before_{};
};
