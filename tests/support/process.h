// SPDX-License-Identifier: MIT
// Processes that a test starts, and waiting for what they do. Nothing here sleeps for a fixed time: everything waits
// for a condition, for so long that only a hang runs out of it.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "emulator.h"

inline constexpr int WAIT_SECONDS = 60;

// Asks again and again until the predicate holds. False after WAIT_SECONDS.
bool wait_until(const std::function<bool()> &predicate);

// The value of an environment variable that the build sets for its tests; a test failure, and "", without it.
std::string from_build(const char *name);

// Names of shared-memory objects that the tests make begin with this; it holds the test program's process id.
std::string shared_memory_prefix();

struct ProgramStart {
    std::vector<std::string> words;                                    // the program's path and its arguments
    std::vector<std::pair<std::string, std::string>> environment = {}; // set in addition
    int in_fd = -1; // become its standard streams; -1: /dev/null. They stay the caller's.
    int out_fd = -1;
    int err_fd = -1;
    std::vector<int> closed = {}; // standard streams that it starts without
    void (*prepare)() = nullptr;  // done in the new process before the program
};

// The program ends with a SIGTERM when this process goes first. -1 when it could not be forked.
pid_t program_start(const ProgramStart &start);
// The status as waitpid gives it. After WAIT_SECONDS the program is killed, which is a test failure.
int program_wait(pid_t pid);

struct ProgramResult {
    int status;
    std::string out;
    std::string err;
};
// Starts, collects both streams in files, waits.
ProgramResult program_run(ProgramStart start);

// What a shell would call the status: the exit status, or 128 + the signal that ended it.
int shell_status(int status);

std::string link_target(const std::string &path); // "" for what is no link
std::string file_text(const std::string &path);
bool file_exists(const std::string &path);
size_t count_of(const std::string &text, const std::string &part);
std::vector<std::string> lines_of(const std::string &text);
std::vector<std::string> folder_entries(const std::string &path); // without "." and ".."

// A new, empty folder, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// Both ends of a pipe, closed at the end unless they were closed before.
class Pipe {
public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    int read_end() const { return fds_[0]; }
    int write_end() const { return fds_[1]; }
    void close_read();
    void close_write();
    // Takes what is there without waiting and returns all that was taken so far.
    const std::string &text();
    // True when every writer has closed its end and all was taken.
    bool at_end() const { return at_end_; }

private:
    int fds_[2];
    std::string text_;
    bool at_end_ = false;
};

// What the kernel says about a process; 0 when it is gone.
long process_switches(pid_t pid); // context switches so far, of both kinds
size_t process_descriptors(pid_t pid);
size_t process_mappings(pid_t pid);
long process_resident_kb(pid_t pid);
bool process_sleeps(pid_t pid);
bool process_exists(pid_t pid); // a zombie does not count
