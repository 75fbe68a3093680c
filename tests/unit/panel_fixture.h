// SPDX-License-Identifier: MIT
// Runs pfbpanel and the probe program in a folder of the test's own, so that no other panel is in sight.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

using Words = std::vector<std::string>;

struct Result {
    int status; // the exit status, 1000 + signal, or -1 when it did not end
    std::string out;
    std::string err;
};

// A program that is running, its output going to files.
struct Started {
    pid_t pid;
    std::string out_file;
    std::string err_file;
};

// Polls, with a generous limit. False when the limit has passed.
bool wait_until(const std::function<bool()> &holds);
std::string from_environment(const char *variable);
std::string read_file(const std::string &path);
Words split(const std::string &text, char separator);
Words lines(const std::string &text);

class PanelTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override; // fails when a panel or a program is left behind, and ends such programs

    Started start(const Words &words);
    // Waits, generously, until the program has printed the text; a failure if it does not.
    void wait_for(const Started &program, const std::string &text);
    Result finish(const Started &program);
    Result run(const Words &words) { return finish(start(words)); }

    // pfbpanel with these options and the probe with these arguments.
    Words panel(const Words &options, const Words &probe_arguments) const;
    // pfbpanel's other commands.
    Words pfbpanel(const Words &words) const;
    // Starts the probe on a panel and waits until it is ready.
    Started start_panel(const Words &options, const Words &probe_arguments);
    void stop(const Started &program);
    // Signals pfbpanel and returns how it ended.
    Result end(const Started &program, int signal_number);

    Words folder_entries() const; // of the panels' place, hidden ones too

    std::string folder; // of the test
    std::string panels; // where the panels stand
    std::string probe;  // the probe to be used
    std::map<std::string, std::string> environment;
    int started = 0;
};
