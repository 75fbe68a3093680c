// SPDX-License-Identifier: MIT
#include "lasting_panel.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

LastingPanel::LastingPanel(const ServerOptions &options)
{
    setenv("MC_RUNTIME_DIR", folder().c_str(), 1);
    ServerOptions idle = options;
    idle.server = {"infinity"};
    pfbpanel_ = program_start(panel_start(folder(), idle, "/bin/sleep"));
    EXPECT_TRUE(wait_until([&] { return find_panel() && view_.open(panel_) && view_.program() > 0; }));
}

LastingPanel::~LastingPanel()
{
    if (server_ > 0)
        stop_server(SIGTERM);
    kill(pfbpanel_, SIGTERM);
    program_wait(pfbpanel_);
}

bool LastingPanel::find_panel()
{
    for (const std::string &name : folder_entries(folder())) {
        if (name.rfind("pfbpanel-", 0) == 0)
            panel_ = folder() + "/" + name;
    }
    return !panel_.empty();
}

void LastingPanel::start_server(int socket)
{
    ProgramStart start;
    if (socket >= 0) {
        start.words = {"/bin/sh", "-c", "export LISTEN_FDS=1 LISTEN_PID=$$; exec \"$@\" 3<&0 </dev/null", "sh"};
        start.in_fd = socket;
    }
    for (const std::string &word : {from_build("PFB_TEST_PANEL"), std::string("run"), std::string("--panel"), panel_,
                                    std::string("--"), server_program()})
        start.words.push_back(word);
    start.environment = server_environment(folder());
    start.out_fd = open(out_path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    server_ = program_start(start);
    close(start.out_fd);
}

int LastingPanel::stop_server(int signal_number)
{
    kill(server_, signal_number);
    const int status = shell_status(program_wait(server_));
    server_ = -1;
    return status;
}

void LastingPanel::erase()
{
    for (size_t i = 0; i < view_.memory_size(); i++)
        view_.memory()[i] = 0;
}
