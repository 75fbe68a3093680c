// SPDX-License-Identifier: MIT
// What surrounds the server: its log, its memory, its folder, other servers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../../src/base/output.h"
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

// Each line is read or counted once the reader is back, and the lists are whole again from then on.
void output_blocked(Stage &stage)
{
    much_output(stage);
    stage.expect_connections_of_clients(0); // what it has sent is handled
    const std::string notice = " lines of output dropped: nobody was reading\n";
    EXPECT_TRUE(wait_until([&] { return count_of(stage.piped(), notice) > 0; }));
    const std::string text = stage.piped();
    const size_t kept = text.rfind('\n', text.find(notice)) + 1;
    const size_t dropped = strtoul(text.c_str() + kept, nullptr, 10);
    EXPECT_GT(dropped, 0u);
    stage.expect_lists(count_of(text.substr(0, kept), "\n") + dropped);
    EXPECT_LE(kept, OUT_BUFFER_SIZE + stage.pipe_size()) << "more waited than there is room";
    EXPECT_EQ(text.substr(text.find('\n', kept) + 1), "") << "something comes after the notice";
    stage.ctl({"status"});
    const std::string list = "# of surface: 2\ncount of lock: 0\n";
    EXPECT_TRUE(wait_until([&] { return stage.piped().compare(text.size(), list.size(), list) == 0; }));
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

// What a server had to say, but for GLib's complaint about a signal that came before the main loop.
void expect_one_line(const std::string &err, const std::string &line)
{
    EXPECT_EQ(count_of(err, "libmc: "), 1u) << err;
    EXPECT_EQ(count_of(err, line), 1u) << err << "\nexpected: " << line;
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
        EXPECT_TRUE(process_exists(second)) << "it stays, and serves nobody";
        end_server(second);
        expect_one_line(err.text(), "another server already listens at " + stage.socket_path());
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
    EXPECT_FALSE(is_listened_at(folder + "/pfb.mc"));
    end_server(server);
    expect_one_line(err.text(), line);
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
    // A file of the lock's name that nobody locks, beside what is in the way.
    {"is in the way: it is not a socket",
     [](const Stage &, const std::string &folder, const std::string &) {
         write_file(folder + "/pfb.mc", "a file");
         write_file(folder + "/pfb.mc.lock", "a file");
     }},
    {"another server already listens",
     [](const Stage &stage, const std::string &folder, const std::string &) {
         EXPECT_EQ(link(stage.socket_path().c_str(), (folder + "/pfb.mc").c_str()), 0);
         write_file(folder + "/pfb.mc.lock", "");
     }},
};

// What lies there: whatever is made, removed, replaced, written to or given other rights changes this.
std::string listing(const std::string &folder)
{
    std::vector<std::string> names = folder_entries(folder);
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string &name : names) {
        const std::string path = folder + "/" + name;
        struct stat file {};
        EXPECT_EQ(lstat(path.c_str(), &file), 0) << path << ": " << strerror(errno);
        text += name + ": inode " + std::to_string(file.st_ino) + ", mode " + std::to_string(file.st_mode) +
                ", owner " + std::to_string(file.st_uid) + ":" + std::to_string(file.st_gid) + " " + link_target(path) +
                (S_ISREG(file.st_mode) ? file_text(path) : "") + "\n";
    }
    return text;
}

void squatters(Stage &stage)
{
    for (const Squatter &squatter : SQUATTERS) {
        const std::string folder = stage.folder() + "/squatted";
        const std::string treasure = stage.folder() + "/treasure";
        ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
        write_file(treasure, "untouched");
        squatter.settle(stage, folder, treasure);
        const std::string before = listing(folder);
        expect_refusal(folder, squatter.line);
        EXPECT_EQ(listing(folder), before) << squatter.line;
        EXPECT_EQ(file_text(treasure), "untouched");
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
         "lines wait in a bounded buffer, then they are dropped; their number is printed once it reads again",
         "lists",
         {},
         output_blocked,
         {.reader = Reader::BLOCKED}},
        {"OutputGone",
         "the reader of its output is gone",
         "the lines are lost",
         "lists",
         {},
         much_output,
         {.reader = Reader::GONE}},
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
         "it says so in one line; nothing is followed, made, removed or written to",
         "servers",
         {times(2, "hung up without a greeting")},
         squatters},
        {"LockTaken",
         "somebody else holds the lock of a server's folder",
         "it says so in one line",
         "servers",
         {},
         lock_taken},
    };
}
