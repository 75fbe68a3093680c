// SPDX-License-Identifier: MIT
// What the system tells the client library, where a test wants it to be otherwise: the test program's own functions go
// before the C library's.
#pragma once

#include <optional>
#include <sys/socket.h>
#include <sys/types.h>

struct PfbSystem {
    std::optional<ucred> peer; // who listens; none: who does
    bool gives_groups = true;  // whether a file may be given to another group
    off_t room = -1;           // of /dev/shm, in bytes, for this process's objects that are mapped; below 0: no limit
    off_t unbroken = -1;       // bytes that are allocated in one go before a signal comes; below 0: no signals do
    int signals = 0;           // that have come in the midst of an allocation
    bool hides_processes = false; // of others, in /proc
};

extern PfbSystem pfb_system;
