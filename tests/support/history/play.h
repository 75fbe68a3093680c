// SPDX-License-Identifier: MIT
// What the two processes that play a history share.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include "history.h"

// Unlinked files that the child's output and its findings go to.
struct Channel {
    int out, err, report;
};

// From `at` to the end; `at` moves there.
std::string file_from(int fd, off_t &at);
// Of an object of the player whose parent process is `family`.
std::string object_name(pid_t family, int object);
// ANY_ADDRESS in `expected` stands for a printed pointer.
bool text_matches(const std::string &expected, const std::string &actual);
// Lines; the notices about short memory of one pass come in no particular order and are sorted.
std::vector<std::string> sorted_notices(const std::string &text);
std::string different(const char *what, const std::string &expected, const std::string &actual);

// The child's part. A report stands in the channel unless the child ends with 0.
[[noreturn]] void history_play_child(const Channel &channel, const Config &config, const History &history);
