// SPDX-License-Identifier: MIT
// The server's output as people read it: whole and in order in a pipe, and never in the way of the picture.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "../support/composer.h"
#include "../support/running_server.h"
#include "../support/test_client.h"

namespace {

const Pixels PICTURE = pixels_photograph(PixelFormat::XRGB, 160, 120, 1);

const char *const START_LINES = "option is \n\t w = -1 h = -1 use_input = 0\n\t fb = (null)\n\t console = (null)\n"
                                "\t scale = 1\n";
const char *const SCREEN_LINES = "screen info is\nwidth = 160 height = 120 depth = 32 stride = 640\n"
                                 "colormask = red:00ff0000, green:0000ff00, blue:000000ff, alpha:00000000, "
                                 "has_alph = 0\npixel unit: 4 bytes, byte order: LSB\n";

std::string dump(const std::string &name, int x, int dirty)
{
    const std::string left = std::to_string(x);
    const std::string right = std::to_string(x + 160);
    return "# of surface: 1\ncount of lock: 0\n\t[00]: backend = fb name=" + name +
           " level=3 shown=0 dirty=" + std::to_string(dirty) + " direct=0\n\t\t[" + left + ",0] - [" + right +
           ",120]\n\t\tdrawing area: [" + left + ",0] - [160,120]\n\t\tclip area: not set\n" +
           "\t\tdepth = 32 stride = 640 alpha = 0\n";
}

} // namespace

// Thousands of dumps, interleaved with what another client makes the server say, each in its place.
TEST(Log, ALongRunIntoAPipeIsCompleteAndInOrder)
{
    Pipe out;
    RunningServer server({.out_fd = out.write_end()});
    out.close_write();
    const std::string name = "fb.chatty";
    std::string expected = std::string(START_LINES) + SCREEN_LINES;
    {
        TestClient client(name);
        client.create(PICTURE, 0, 0, 3);
        client.native_depth(); // the server has it before the next "create" takes its place here
        for (int i = 0; i < 4000; i++) {
            client.send("status");
            expected += dump(name, i % 100, 0);
            if (i % 3 == 0) {
                client.create({.width = 0, .height = i, .bytes = 1}); // says one line and makes nothing
                expected += "Invalid pfb width/height (0/" + std::to_string(i) + ")\n";
            }
            client.send("move", {(i + 1) % 100, 0});
            if (i % 50 == 0) {
                client.native_depth();
                out.text();
            }
        }
        client.native_depth();
    }
    const pid_t reader_of_rest = server.pid();
    kill(reader_of_rest, SIGTERM);
    EXPECT_TRUE(wait_until([&] {
        out.text();
        return out.at_end();
    }));
    EXPECT_EQ(server.stop(0), 0);
    ASSERT_EQ(out.text().size(), expected.size());
    EXPECT_TRUE(out.text() == expected);
}

TEST(Log, LinesAppearWithTheRequestThatCausedThem)
{
    Pipe out;
    RunningServer server({.out_fd = out.write_end()});
    out.close_write();
    TestClient client("fb.client");
    client.send("status");
    EXPECT_TRUE(wait_until([&] { return count_of(out.text(), "handle_command: not yet create surface\n") == 1; }))
        << out.text();
    client.create(PICTURE, 0, 0, 3);
    EXPECT_TRUE(wait_until([&] {
        return out.text() == std::string(START_LINES) + "handle_command: not yet create surface\n" + SCREEN_LINES;
    })) << out.text();
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Log, AReaderThatStopsReadingDoesNotStopThePicture)
{
    Pipe out;
    RunningServer server({.out_fd = out.write_end()});
    out.close_write();
    TestClient client("fb.chatty");
    client.create(PICTURE, 0, 0, 3);
    client.send("show");
    constexpr int DUMPS = 5000; // about a megabyte, several times what pipe and buffer hold
    for (int i = 0; i < DUMPS; i++)
        client.send("status");
    EXPECT_EQ(client.native_depth(), 32) << "the server goes on handling requests";
    const Pixels after = pixels_photograph(PixelFormat::XRGB, 160, 120, 2);
    client.draw(after);
    client.send("dirty", {0, 0, 160, 120});
    PictureComposer composer(160, 120);
    composer.draw(after, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "") << "and drawing";

    const std::string notice = " lines of output dropped: nobody was reading\n";
    EXPECT_TRUE(wait_until([&] { return count_of(out.text(), notice) == 1; })) << "the reader is back";
    const std::string text = out.text();
    const size_t end = text.find(notice);
    const size_t start = text.rfind('\n', end) + 1;
    const size_t dropped = strtoul(text.c_str() + start, nullptr, 10);
    const size_t received = count_of(text.substr(0, start), "\n");
    const size_t lines_before_dumps = count_of(std::string(START_LINES) + SCREEN_LINES, "\n");
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(received - lines_before_dumps + dropped, DUMPS * 7u) << "the count is exact";
    client.send("status");
    EXPECT_TRUE(wait_until([&] { return out.text().find("# of surface: 1\n", end) != std::string::npos; }));
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// What still waits when the reader is slow comes before the program ends, as far as it takes it.
TEST(Log, ReaderThatNeverReadsDoesNotKeepTheServerFromEnding)
{
    Pipe out;
    RunningServer server({.out_fd = out.write_end()});
    TestClient client("fb.chatty");
    client.create(PICTURE, 0, 0, 3);
    client.send("show");
    for (int i = 0; i < 5000; i++)
        client.send("status");
    client.native_depth();
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_TRUE(server.panel().is_black());
}

TEST(Log, AReaderThatIsGone)
{
    Pipe out;
    RunningServer server({.out_fd = out.write_end()});
    out.close_write();
    out.close_read();
    TestClient client("fb.chatty");
    client.create(PICTURE, 0, 0, 3);
    client.send("show");
    for (int i = 0; i < 3000; i++)
        client.send("status");
    EXPECT_EQ(client.native_depth(), 32);
    PictureComposer composer(160, 120);
    composer.draw(PICTURE, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_EQ(server.err(), "");
}

// A descriptor that the server opens must not take the place of a stream that it was started without: lines of the log
// would go into the lock file, to a client or onto the screen.
TEST(Log, WithoutStandardStreams)
{
    for (const std::vector<int> &closed : {std::vector<int>{1}, {0, 1}, {0, 1, 2}}) {
        RunningServer server({.closed = closed});
        for (int stream : closed)
            EXPECT_EQ(link_target("/proc/" + std::to_string(server.pid()) + "/fd/" + std::to_string(stream)),
                      "/dev/null");
        TestClient client("fb.chatty");
        client.create(PICTURE, 0, 0, 3);
        client.send("show");
        for (int i = 0; i < 100; i++)
            client.send("status");
        EXPECT_EQ(client.native_depth(), 32);
        PictureComposer composer(160, 120);
        composer.draw(PICTURE, 0, 0);
        EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
        EXPECT_EQ(file_text(server.socket_path() + ".lock"), "");
        EXPECT_EQ(server.stop(SIGTERM), 0);
        EXPECT_EQ(server.err(), "");
    }
}

TEST(Log, BothStreamsInOnePipeKeepTheirOrder)
{
    Pipe both;
    RunningServer server({.out_fd = both.write_end(), .err_fd = both.write_end()});
    both.close_write();
    TestClient client("fb.client");
    client.create(PICTURE, 0, 0, 3);
    client.send("show");
    client.settle();
    std::string expected = std::string(START_LINES) + SCREEN_LINES;
    for (int i = 0; i < 20; i++) {
        client.create({.width = 0, .height = i, .bytes = 1});
        client.send("dirty", {500, 500, 1, 1}); // schedules a render that finds nothing to draw
        client.settle();
        expected += "Invalid pfb width/height (0/" + std::to_string(i) + ")\n";
        expected += "dirty region is empty!!!!!!!!!!!!!!!!!!!!\n";
    }
    EXPECT_TRUE(wait_until([&] { return both.text().size() >= expected.size(); }));
    EXPECT_EQ(both.text(), expected);
    client.create({.width = 0, .height = 99, .bytes = 1});
    client.send("unlock"); // an assertion
    expected += "Invalid pfb width/height (0/99)\nfbserver: src/composite/damage.cpp:";
    EXPECT_EQ(server.stop(0), 128 + SIGABRT);
    both.text();
    EXPECT_EQ(both.text().substr(0, expected.size()), expected);
    EXPECT_EQ(lines_of(both.text()).size(), lines_of(expected).size()) << both.text();
}
