// SPDX-License-Identifier: MIT
// What surrounds the server: its log, its memory.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
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
    };
}
