// SPDX-License-Identifier: MIT
// pfbctl beside a running server, and the pictures that it writes.
#pragma once

#include <string>
#include <vector>

#include "../support/composer.h"
#include "../support/process.h"
#include "../support/running_server.h"

using Words = std::vector<std::string>;

// A program that is pointed at the server and its panel.
ProgramStart beside(const RunningServer &server, const std::string &program, const Words &words);

// pfbctl to its end.
ProgramResult ctl(const RunningServer &server, const Words &words);
// The same, expected to end with 0 and to say nothing on standard error.
std::string ctl_done(const RunningServer &server, const Words &words);

// pfbctl in the foreground; its output goes to a file.
class Foreground {
public:
    Foreground(const RunningServer &server, const Words &words);
    Foreground(ProgramStart start, const std::string &file);
    ~Foreground(); // ends it, if it still runs
    Foreground(const Foreground &) = delete;
    Foreground &operator=(const Foreground &) = delete;

    // Sends a signal (0: none), waits for its end and returns what a shell would call its status.
    int end(int signal_number);
    std::string out() const { return file_text(file_); }

private:
    std::string file_;
    pid_t pid_;
};

// A PNG file without alpha; an empty picture after a test failure.
Picture read_png(const std::string &path);
// 0xAARRGGBB, not multiplied by alpha.
void write_png(const std::string &path, int width, int height, const std::vector<uint32_t> &pixels);

// A picture as panels of that depth have it (the low bits cut off), its channels widened to 8 bits: the largest value
// of 5 or 6 bits becomes 255.
Picture widened(const Picture &picture, int depth);

// What `pfbctl shot` with these options writes.
Picture shot(const RunningServer &server, const Words &options);
