// SPDX-License-Identifier: MIT
#include "further_server.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sstream>
#include <sys/wait.h>

#include "../support/running_server.h"

FurtherServer::FurtherServer(const std::string &folder,
                             const std::vector<std::pair<std::string, std::string>> &environment)
{
    ProgramStart start;
    start.words = {server_program()};
    start.environment = server_environment(folder);
    start.environment.insert(start.environment.end(), environment.begin(), environment.end());
    start.err_fd = err_.write_end();
    pid_ = program_start(start);
    err_.close_write();
    EXPECT_TRUE(wait_until([&] { return listens() || count_of(said(), "\n") > 0; }));
}

FurtherServer::~FurtherServer()
{
    EXPECT_EQ(end_server(pid_), 0) << said();
}

// The server itself, not somebody else at the same place.
bool FurtherServer::listens() const
{
    std::string sockets;
    const std::string folder = "/proc/" + std::to_string(pid_) + "/fd";
    for (const std::string &fd : folder_entries(folder))
        sockets += link_target(folder + "/" + fd);
    // Number, flags, inode and path of each socket; the flag is there from listen on.
    for (const std::string &line : lines_of(file_text("/proc/net/unix"))) {
        std::istringstream columns(line);
        std::string number, references, protocol, flags, type, state, inode, path;
        columns >> number >> references >> protocol >> flags >> type >> state >> inode >> path;
        if (flags == "00010000" && count_of(sockets, "socket:[" + inode + "]") > 0)
            return true;
    }
    return false;
}

// A signal that comes before the main loop is not heeded.
int end_server(pid_t pid)
{
    int status = 0;
    const bool ended = wait_until([&] {
        kill(pid, SIGTERM);
        return waitpid(pid, &status, WNOHANG) == pid;
    });
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    return shell_status(status);
}

void expect_refusal(const std::string &folder, const std::string &line)
{
    FurtherServer server(folder);
    EXPECT_NE(server.said().find(line), std::string::npos) << server.said() << "\nexpected: " << line;
    EXPECT_EQ(count_of(server.said(), "\n"), 1u) << server.said();
    EXPECT_FALSE(server.listens());
}
