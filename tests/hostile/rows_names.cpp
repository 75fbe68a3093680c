// SPDX-License-Identifier: MIT
// Names, which end up in the log and choose an output.
#include <gtest/gtest.h>

#include "../support/raw_client.h"
#include "misbehaviour.h"

namespace {

// A surface under the name, shown, asked for, and over memory that is too short; and a connection that ends over a
// broken packet: all that brings a name into the log.
void live_under(const Stage &stage, const std::string &name)
{
    {
        TestClient client(name);
        client.create({.x = 5, .y = 5, .width = 60, .height = 60, .level = 1, .bytes = 1});
        client.send("show");
        client.send_text("set_surface", name);
        client.send("status");
        client.settle();
    }
    RawClient broken(stage.socket_path(), name);
    broken.send_bytes("?");
    EXPECT_TRUE(broken.is_dropped());
}

bool begins_with(const std::string &line, const char *start)
{
    return line.rfind(start, 0) == 0;
}

void expect_no_forged_line(const Stage &stage)
{
    for (const char byte : stage.err())
        EXPECT_TRUE(byte == '\n' || (byte >= ' ' && byte < '\x7f')) << "a control character in the log: " << int{byte};
    for (const std::string &line : lines_of(stage.err()))
        EXPECT_TRUE(begins_with(line, "libmc: dropped client \"") || begins_with(line, "shared memory of ") ||
                    begins_with(line, "dirty region is empty"))
            << "forged: " << line;
}

void odd_names(Stage &stage)
{
    const std::string names[] = {"",
                                 ".",
                                 "....",
                                 "/",
                                 "../../etc/passwd",
                                 "fb./dev/mem",
                                 "x.\x01\x02",
                                 "%s%n%s",
                                 "fb.\"quoted\\",
                                 std::string(255, 'n'),
                                 "\xff\xfe fb"};
    stage.in_process([&] {
        for (const std::string &name : names) {
            live_under(stage, name);
            stage.done()++;
        }
    });
}

void forging_names(Stage &stage)
{
    stage.in_process([&] {
        for (const std::string name : {"fb.a\nlibmc: all is well", "fb.\r\x1b[2J\x1b]0;title\x07", "fb.\n\n\n"}) {
            live_under(stage, name);
            stage.done()++;
        }
    });
    EXPECT_TRUE(wait_until([&] { return count_of(stage.err(), "is too short") >= stage.done(); })) << stage.err();
    expect_no_forged_line(stage);
}

void names_with_zero_bytes(Stage &stage)
{
    stage.in_process([&] {
        for (const size_t at : {size_t{0}, size_t{1}, size_t{3}, size_t{7}}) {
            std::string name = "fb.zero!";
            name[at] = '\0';
            RawClient client(stage.socket_path(), name);
            EXPECT_TRUE(client.is_dropped());
            stage.done()++;
        }
    });
}

void endless_names(Stage &stage)
{
    stage.in_process([&] {
        for (const size_t length : {size_t{256}, size_t{1000}, size_t{4000}, size_t{4096}, size_t{100000}}) {
            RawClient client(stage.socket_path(), std::string(length, 'n'));
            EXPECT_TRUE(client.is_dropped());
            stage.done()++;
        }
        TestClient client("fb.long");
        client.create({.x = 5, .y = 5, .width = 30, .height = 30, .level = 1});
        for (int i = 0; i < 200; i++) {
            client.send_text("set_surface", std::string(4000, static_cast<char>('a' + i % 26)));
            stage.done()++;
        }
        EXPECT_TRUE(client.is_connected());
    });
}

} // namespace

std::vector<Misbehaviour> name_rows()
{
    return {
        {"OddNames",
         "has a name of dots, slashes, percent signs, bytes that are no text, 255 bytes or none",
         "it is a name as any other",
         "names",
         {times(11, "dropped client \""), times(7, "is too short")},
         odd_names},
        {"ForgingNames",
         "has line breaks and escape sequences in its name",
         "standard error shows them escaped; the list of \"status\" shows a name as it is",
         "names",
         {times(3, "dropped client \""), times(3, "is too short")},
         forging_names},
        {"NamesWithZeroBytes",
         "has a byte 0 in its name",
         "its connection is closed, with a line",
         "names",
         {times(4, "malformed packet")},
         names_with_zero_bytes},
        {"EndlessNames",
         "has a name of up to 100 000 bytes, or selects one of 4 KiB",
         "it is closed, with a line; nothing is selected",
         "names",
         {times(3, "its name is too long"), times(2, "malformed packet")},
         endless_names},
    };
}
