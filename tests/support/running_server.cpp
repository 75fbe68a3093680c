// SPDX-License-Identifier: MIT
#include "running_server.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int stream_file(const std::string &path)
{
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
}

std::string find_panel_folder(const std::string &folder)
{
    for (const std::string &name : folder_entries(folder)) {
        if (name.rfind("pfbpanel-", 0) == 0)
            return folder + "/" + name;
    }
    return "";
}

} // namespace

std::string left_shared_memory()
{
    std::string left;
    for (const std::string &name : folder_entries("/dev/shm")) {
        if (("/" + name).rfind(shared_memory_prefix(), 0) == 0)
            left += " " + name;
    }
    return left;
}

// The kernel's table of sockets has the flag SO_ACCEPTCON from listen on; a connection would disturb the server.
bool is_listened_at(const std::string &socket_path)
{
    for (const std::string &line : lines_of(file_text("/proc/net/unix"))) {
        if (count_of(line, " " + socket_path) > 0 && count_of(line, " 00010000 ") > 0)
            return true;
    }
    return false;
}

std::string server_program()
{
    return from_build("PFB_TEST_SERVER");
}

std::vector<std::pair<std::string, std::string>> server_environment(const std::string &folder)
{
    // What surfaces hold when the server ends goes with the process, by design: the leak check would count it.
    return {{"MC_RUNTIME_DIR", folder}, {"XDG_RUNTIME_DIR", folder}, {"ASAN_OPTIONS", "detect_leaks=0"}};
}

std::string sanitizer_report(const std::string &text)
{
    for (const std::string &line : lines_of(text)) {
        if (line.find("runtime error:") != std::string::npos || line.find("Sanitizer:") != std::string::npos)
            return line;
    }
    return "";
}

ProgramStart panel_start(const std::string &folder, const ServerOptions &options, const std::string &program)
{
    ProgramStart start;
    start.words = {from_build("PFB_TEST_PANEL"), "--size", options.size, "--format", options.format};
    start.words.insert(start.words.end(), options.panel.begin(), options.panel.end());
    start.words.insert(start.words.end(), {"--", program});
    start.words.insert(start.words.end(), options.server.begin(), options.server.end());
    start.environment = server_environment(folder);
    start.environment.insert(start.environment.end(), options.environment.begin(), options.environment.end());
    start.closed = options.closed;
    return start;
}

RunningServer::RunningServer(const ServerOptions &options) : own_out_(options.out_fd < 0), own_err_(options.err_fd < 0)
{
    ProgramStart start = panel_start(folder(), options, server_program());
    start.out_fd = own_out_ ? stream_file(folder() + "/out") : options.out_fd;
    start.err_fd = own_err_ ? stream_file(folder() + "/err") : options.err_fd;
    pfbpanel_ = program_start(start);
    if (own_out_)
        close(start.out_fd);
    if (own_err_)
        close(start.err_fd);
    setenv("MC_RUNTIME_DIR", folder().c_str(), 1);
    if (wait_for_panel() && wait_until([&] { return is_listening() || has_ended(); }) && is_listening())
        return;
    kill(pfbpanel_, SIGTERM);
    program_wait(pfbpanel_);
    throw std::runtime_error("the server does not start: " + err()); // ends the test
}

// The panel's folder appears complete; the program's process id is entered as soon as it runs.
bool RunningServer::wait_for_panel()
{
    wait_until([&] {
        panel_folder_ = find_panel_folder(folder());
        return !panel_folder_.empty() || has_ended();
    });
    return panel_.open(panel_folder_) && wait_until([&] { return pid() > 0 || has_ended(); });
}

bool RunningServer::has_ended() const
{
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pfbpanel_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

RunningServer::~RunningServer()
{
    if (pfbpanel_ > 0) {
        stop(SIGTERM);
        ADD_FAILURE() << "the test did not stop its server";
    }
    EXPECT_EQ(find_panel_folder(folder()), "") << "the panel is left behind";
    EXPECT_EQ(left_shared_memory(), "") << "shared memory is left behind";
    expect_no_report();
}

void RunningServer::expect_no_report() const
{
    if (own_err_) {
        EXPECT_EQ(sanitizer_report(err()), "") << err();
    }
}

bool RunningServer::is_listening() const
{
    return is_listened_at(socket_path());
}

int RunningServer::stop(int signal_number)
{
    if (pfbpanel_ <= 0)
        return -1;
    const pid_t server = panel_.is_open() ? pid() : 0;
    if (signal_number != 0 && server > 0)
        kill(server, signal_number);
    const int status = program_wait(pfbpanel_);
    if (server > 0 && process_exists(server)) {
        ADD_FAILURE() << "the server outlives its panel";
        kill(server, SIGKILL);
    }
    pfbpanel_ = -1;
    return shell_status(status);
}
