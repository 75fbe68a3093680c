// SPDX-License-Identifier: MIT
// Where a misbehaviour happens: the real server on a virtual panel with a bystander at work, and what has to be true
// of them afterwards.
#pragma once

#include <climits>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../support/lasting_panel.h"
#include "../support/test_client.h"
#include "bystander.h"
#include "namespace.h"

// A line that the server's log has afterwards, by a part of it, and how often.
struct LogLine {
    std::string part;
    unsigned long least = 1;
    unsigned long most = ULONG_MAX;
};

inline LogLine times(unsigned long n, const std::string &part)
{
    return {part, n, n};
}

inline LogLine some(const std::string &part)
{
    return {part};
}

inline LogLine perhaps(const std::string &part)
{
    return {part, 0};
}

enum class Reader { FILE, CLOSED, BLOCKED, GONE }; // of the server's standard output

struct StageOptions {
    std::string format = "xrgb8888";
    std::vector<std::string> panel = {}; // further options of the panel
    Reader reader = Reader::FILE;
    bool older_kernel = false; // sockets cannot refuse descriptors
    std::string room = {};     // of a /dev/shm of its own, where the system permits that; none: the machine's
    size_t kept = 0;           // descriptors that the server keeps for the next time
    size_t orphans = 0;        // surfaces that stay without an owner
    bool bystander = true;     // false: the misbehaviour is there from the start, and nobody can be shown
};

class Stage {
public:
    // Starts everything and waits until the bystander is on the panel. Throws when it does not get there.
    explicit Stage(const StageOptions &options);
    ~Stage(); // ends what still runs
    Stage(const Stage &) = delete;
    Stage &operator=(const Stage &) = delete;

    const std::string &folder() const { return panel_.folder(); }
    std::string socket_path() const { return folder() + "/pfb.mc"; }
    const PanelView &panel() const { return panel_.view(); }
    const std::string &panel_folder() const { return panel_folder_; }
    pid_t server() const { return server_; }
    std::string out() const { return file_text(folder() + "/server-out"); }
    // What has come out of the pipe that nobody reads otherwise.
    const std::string &piped() { return pipe_->text(); }
    size_t pipe_size() const { return static_cast<size_t>(fcntl(pipe_->read_end(), F_GETPIPE_SZ)); }
    std::string err() const { return without_emulators_line(file_text(folder() + "/server-err")); }
    Bystander &bystander() { return *bystander_; }
    bool has_small_memory() const { return memory_ != nullptr && memory_->is_entered(); }

    // A program beside the server: on its panel, and pointed at its socket.
    ProgramStart beside(const std::vector<std::string> &words) const;
    // pfbctl, expected to end with 0.
    void ctl(std::vector<std::string> words) const;

    // Runs a client in a process of its own, to its end.
    void in_process(const std::function<void()> &client);
    // Runs a client in a process of its own until the bystander has made this many further updates, and kills it.
    // Whatever it does without end adds to done().
    void until_updates(unsigned updates, const std::function<void(std::atomic<unsigned long> &done)> &client);
    // What the log has to have at the end beside the row's own lines: where the number shows only while it is done.
    void expect_line(const LogLine &line) { lines_.push_back(line); }
    // Waits until only so many clients are connected beside the bystander: the server has seen the others go.
    void expect_connections_of_clients(size_t n) const;
    // After a flood of "status" by a client with one surface: so many lines are the server's first ones and one list
    // for each request. There may be one more, whose sender was killed before it had counted it.
    void expect_lists(size_t lines) const;
    // How often it was done, for the table.
    std::atomic<unsigned long> &done() { return *done_; }
    void add_done(unsigned long n) { *done_ += n; }

    // The server ends with this status; it is started again as a supervisor would, on a black panel, and the bystander
    // comes back.
    void expect_end(int status);
    // Ends the server for good: status 0 and a black panel.
    void stop_server();
    void start_server();

    // After the misbehaviour: the server lives, the bystander goes on and has missed nothing, descriptors, connections
    // and memory are back, the log says what is expected and nothing else, and the picture is the bystander's.
    void expect_outcome(const std::vector<LogLine> &lines);

    // What was measured, in words.
    std::string figures(const std::string &unit) const;

private:
    struct Usage {
        size_t descriptors;
        size_t connections;
        size_t surfaces; // whose memory is mapped
        long resident_kb;
    };
    Usage usage() const;
    bool uses_no_more() const;
    void expect_usage_is_back();
    void expect_log() const;
    bool has_ended() const;

    StageOptions options_;
    std::unique_ptr<SmallMemory> memory_;
    LastingPanel panel_;
    std::string panel_folder_;
    std::unique_ptr<Pipe> pipe_;
    pid_t server_ = -1;
    std::unique_ptr<Bystander> bystander_;
    SharedCount done_;
    std::vector<LogLine> lines_;
    Usage before_{};
    Usage after_{};
    unsigned ends_ = 0;
    long standstill_ms_ = 0; // the longest, from the server's end to the next update on the panel
};
