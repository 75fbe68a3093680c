// SPDX-License-Identifier: MIT
// What surrounds the server: its log, its memory, its folder, other servers.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "misbehaviour.h"
#include "server_limit.h"

namespace {

// More than the pipe and the server's buffer hold, several times over.
void much_output(Stage &stage)
{
    stage.until_updates(15, [](std::atomic<unsigned long> &done) {
        TestClient client("fb.chatty");
        client.create({.x = 10, .y = 10, .width = 30, .height = 30, .level = 1});
        for (;;) {
            client.send("status");
            done++;
        }
    });
    EXPECT_GT(stage.done(), 1000u);
}

// What the server opens must not take the place of a stream that it was started without: the list would go there.
void output_closed(Stage &stage)
{
    for (const char *stream : {"0", "1"})
        EXPECT_EQ(link_target("/proc/" + std::to_string(stage.server()) + "/fd/" + stream), "/dev/null");
    much_output(stage);
    EXPECT_EQ(file_text(stage.socket_path() + ".lock"), "");
}

// The files that the server writes may become no larger than its log would.
void output_too_large(Stage &stage)
{
    constexpr unsigned LISTS = 3000, ROUNDS = 3;
    const std::string notice = " lines of output dropped: there was no room\n";
    for (unsigned round = 1; round <= ROUNDS; round++) {
        {
            const ServerLimit limit(stage.server(), RLIMIT_FSIZE, stage.out().size() + 10000);
            stage.in_process([&] {
                TestClient client("fb.chatty");
                client.create({.x = 10, .y = 10, .width = 30, .height = 30, .level = 1});
                for (unsigned i = 0; i < LISTS; i++)
                    client.send("status");
                EXPECT_EQ(client.native_depth(), stage.panel().depth());
            });
            stage.bystander().expect_progress(3);
        }
        stage.add_done(LISTS);
        EXPECT_TRUE(wait_until([&] {
            stage.ctl({"status"});
            return count_of(stage.out(), notice) == round;
        })) << "nobody says how many lines are missing";
    }
}

// Of a process; bytes.
size_t address_space(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    size_t pages = 0;
    file >> pages;
    return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

void memory_limit(Stage &stage)
{
    const ServerLimit limit(stage.server(), RLIMIT_AS, address_space(stage.server()) + (size_t{64} << 20));
    stage.in_process([&] {
        TestClient client("fb.large");
        client.create({.x = 10, .y = 10, .width = 30, .height = 30, .level = 1});
        client.send("show");
        for (int i = 0; i < 100; i++) {
            client.send("set_scale", {0, 0, 30, 30, 10, 10, 5000, 5000});
            stage.done()++;
        }
        EXPECT_TRUE(client.is_connected());
    });
    EXPECT_EQ(count_of(stage.out(), "fs_set_scale: invalid size: source 30 x 30 destination 5000 x 5000\n"), 100u);
    stage.bystander().expect_progress(3);
}

// A signal that comes before the main loop is not heeded: it is repeated.
void end_server(pid_t pid)
{
    int status = 0;
    EXPECT_TRUE(wait_until([&] {
        kill(pid, SIGTERM);
        return waitpid(pid, &status, WNOHANG) == pid;
    }));
    EXPECT_EQ(shell_status(status), 0);
}

void second_server(Stage &stage)
{
    for (int i = 0; i < 5; i++) {
        ProgramStart start = stage.beside({server_program()});
        Pipe err;
        start.err_fd = err.write_end();
        const pid_t second = program_start(start);
        err.close_write();
        EXPECT_TRUE(wait_until([&] { return count_of(err.text(), "\n") > 0; }));
        EXPECT_NE(err.text().find("another server already listens at " + stage.socket_path()), std::string::npos)
            << err.text();
        EXPECT_TRUE(process_exists(second)) << "it stays, and serves nobody";
        end_server(second);
        stage.done()++;
    }
}

// A server in a folder where somebody has been before. It says one line, and listens to nobody.
void expect_refusal(const std::string &folder, const std::string &line)
{
    ProgramStart start;
    start.words = {server_program()};
    start.environment = server_environment(folder);
    Pipe err;
    start.err_fd = err.write_end();
    const pid_t server = program_start(start);
    err.close_write();
    EXPECT_TRUE(wait_until([&] { return count_of(err.text(), "\n") > 0; }));
    EXPECT_NE(err.text().find(line), std::string::npos) << err.text() << "\nexpected: " << line;
    EXPECT_FALSE(is_listened_at(folder + "/pfb.mc"));
    end_server(server);
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path) << text;
}

struct Squatter {
    const char *line;
    void (*settle)(const Stage &stage, const std::string &folder, const std::string &treasure);
};

constexpr Squatter SQUATTERS[] = {
    {"cannot open",
     [](const Stage &, const std::string &folder, const std::string &treasure) {
         EXPECT_EQ(symlink(treasure.c_str(), (folder + "/pfb.mc.lock").c_str()), 0);
     }},
    {"cannot open",
     [](const Stage &, const std::string &folder, const std::string &) {
         EXPECT_EQ(symlink((folder + "/nowhere").c_str(), (folder + "/pfb.mc.lock").c_str()), 0);
     }},
    {"cannot open", [](const Stage &, const std::string &folder,
                       const std::string &) { EXPECT_EQ(mkdir((folder + "/pfb.mc.lock").c_str(), 0755), 0); }},
    {"is in the way: it is not a socket",
     [](const Stage &, const std::string &folder, const std::string &treasure) {
         EXPECT_EQ(symlink(treasure.c_str(), (folder + "/pfb.mc").c_str()), 0);
     }},
    {"is in the way: it is not a socket",
     [](const Stage &stage, const std::string &folder, const std::string &) {
         EXPECT_EQ(symlink(stage.socket_path().c_str(), (folder + "/pfb.mc").c_str()), 0);
     }},
    {"is in the way: it is not a socket",
     [](const Stage &, const std::string &folder, const std::string &) { write_file(folder + "/pfb.mc", "a file"); }},
    {"is in the way: it is not a socket",
     [](const Stage &, const std::string &folder, const std::string &) {
         EXPECT_EQ(mkfifo((folder + "/pfb.mc").c_str(), 0600), 0);
     }},
    {"is in the way: it is not a socket",
     [](const Stage &, const std::string &folder, const std::string &) {
         EXPECT_EQ(mkdir((folder + "/pfb.mc").c_str(), 0755), 0);
     }},
    {"another server already listens",
     [](const Stage &stage, const std::string &folder, const std::string &) { // a live socket without its lock
         EXPECT_EQ(link(stage.socket_path().c_str(), (folder + "/pfb.mc").c_str()), 0);
     }},
};

void squatters(Stage &stage)
{
    for (const Squatter &squatter : SQUATTERS) {
        const std::string folder = stage.folder() + "/squatted";
        const std::string treasure = stage.folder() + "/treasure";
        ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
        write_file(treasure, "untouched");
        squatter.settle(stage, folder, treasure);
        const std::string link = link_target(folder + "/pfb.mc") + link_target(folder + "/pfb.mc.lock");
        expect_refusal(folder, squatter.line);
        EXPECT_EQ(file_text(treasure), "untouched");
        EXPECT_FALSE(file_exists(folder + "/nowhere"));
        EXPECT_EQ(link_target(folder + "/pfb.mc") + link_target(folder + "/pfb.mc.lock"), link);
        std::filesystem::remove_all(folder);
        std::filesystem::remove(treasure);
        stage.done()++;
    }
}

// Somebody else holds the lock of a folder in which no server runs.
void lock_taken(Stage &stage)
{
    const std::string folder = stage.folder() + "/squatted";
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    const int fd = open((folder + "/pfb.mc.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(flock(fd, LOCK_EX), 0);
    for (int i = 0; i < 3; i++) {
        expect_refusal(folder, "another server already listens");
        stage.done()++;
    }
    close(fd);
    std::filesystem::remove_all(folder);
}

} // namespace

std::vector<Misbehaviour> system_rows()
{
    return {
        {"OutputClosed",
         "the server is started without standard output",
         "it goes to `/dev/null`",
         "lists",
         {},
         output_closed,
         {.reader = Reader::CLOSED}},
        {"OutputBlocked",
         "the reader of its output stops reading",
         "lines wait in a bounded buffer, then they are dropped and counted",
         "lists",
         {},
         much_output,
         {.reader = Reader::BLOCKED}},
        {"OutputGone",
         "the reader of its output is gone",
         "the lines are lost",
         "lists",
         {},
         much_output,
         {.reader = Reader::GONE}},
        {"OutputTooLarge",
         "the file that its output goes to may not become larger (RLIMIT_FSIZE), as on a full disk",
         "lines are dropped and counted, until there is room again",
         "lists",
         {},
         output_too_large},
        {"MemoryLimit",
         "the server may have no more memory (RLIMIT_AS), and a client wants a scale that needs it",
         "refused, with a line; the surface stays as it was",
         "scales",
         {},
         memory_limit},
        {"SecondServer",
         "a second server is started",
         "it says so in one line, and serves nobody",
         "servers",
         {},
         second_server},
        {"Squatters",
         "links, files, folders or a live socket stand where a server's socket or lock would be",
         "it says so in one line; nothing is followed, removed or written to",
         "servers",
         {"hung up without a greeting"},
         squatters},
        {"LockTaken",
         "somebody else holds the lock of a server's folder",
         "it says so in one line",
         "servers",
         {},
         lock_taken},
    };
}
