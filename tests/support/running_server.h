// SPDX-License-Identifier: MIT
// The real server on a virtual panel, each with a folder of its own, so that any number of them run side by side.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "panel_view.h"
#include "process.h"

struct ServerOptions {
    std::string size = "160x120";
    std::string format = "xrgb8888";
    std::vector<std::string> panel = {};  // further options of the panel
    std::vector<std::string> server = {}; // the server's arguments
    int out_fd = -1;                      // its streams; -1: collected in files
    int err_fd = -1;
    std::vector<int> closed = {};                                      // streams that it starts without
    std::vector<std::pair<std::string, std::string>> environment = {}; // goes before server_environment's
};

class RunningServer {
public:
    // Starts it and waits until it listens, and points this process's clients at it. Throws when it does not get there.
    explicit RunningServer(const ServerOptions &options = {});
    // Ends what still runs. A test failure: anything left behind, and a report of a sanitizer.
    ~RunningServer();
    RunningServer(const RunningServer &) = delete;
    RunningServer &operator=(const RunningServer &) = delete;

    bool is_listening() const;
    const PanelView &panel() const { return panel_; }
    pid_t pid() const { return panel_.program(); }
    const std::string &folder() const { return folder_.path(); }
    std::string panel_folder() const { return panel_folder_; }
    std::string socket_path() const { return folder() + "/pfb.mc"; }
    std::string out() const { return file_text(folder() + "/out"); }
    std::string err() const { return without_emulators_line(file_text(folder() + "/err")); }

    // Sends the server a signal (0: none), waits for its end and returns what a shell would call its status.
    int stop(int signal_number);

private:
    bool wait_for_panel();
    bool has_ended() const;
    void expect_no_report() const;

    TemporaryFolder folder_;
    std::string panel_folder_;
    PanelView panel_;
    pid_t pfbpanel_ = -1;
    bool own_out_;
    bool own_err_;
};

// The start of a program on a virtual panel in `folder`, without streams.
ProgramStart panel_start(const std::string &folder, const ServerOptions &options, const std::string &program);

bool is_listened_at(const std::string &socket_path);

// The server's program, and the environment in which a test runs it.
std::string server_program();
std::vector<std::pair<std::string, std::string>> server_environment(const std::string &folder);

// A line that a sanitizer wrote, or "".
std::string sanitizer_report(const std::string &text);

// Names of shared memory that the tests' clients have left, each after a blank.
std::string left_shared_memory();
