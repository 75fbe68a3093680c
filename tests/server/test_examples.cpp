// SPDX-License-Identifier: MIT
// The examples run: each on a server of its own, and what it shows is looked at.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "../support/composer.h"
#include "../support/lasting_panel.h"

namespace {

const ServerOptions SCREEN = {"320x240"};

// An example that is running.
class Example {
public:
    Example(LastingPanel &panel, std::vector<std::string> words, int in_fd = -1) : out_(panel.folder() + "/example")
    {
        panel.start_server();
        EXPECT_TRUE(wait_until([&] { return is_listened_at(panel.folder() + "/pfb.mc"); }));
        ProgramStart start;
        start.words = std::move(words);
        start.environment = {{"ASAN_OPTIONS", "detect_leaks=0"}};
        start.in_fd = in_fd;
        start.out_fd = start.err_fd = open(out_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        pid_ = program_start(start);
        close(start.out_fd);
    }
    ~Example()
    {
        if (pid_ > 0)
            stop();
    }
    Example(const Example &) = delete;
    Example &operator=(const Example &) = delete;

    std::string printed() const { return file_text(out_); }
    int wait()
    {
        const int status = shell_status(program_wait(pid_));
        pid_ = -1;
        return status;
    }
    int stop()
    {
        kill(pid_, SIGTERM);
        return wait();
    }

private:
    std::string out_;
    pid_t pid_ = -1;
};

std::string built(const std::string &name)
{
    return from_build("PFB_TEST_EXAMPLES") + "/" + name;
}

// How much of a colour there is, and its middle.
struct Spot {
    int count = 0;
    int x = 0, y = 0;
};

Spot spot_of(const Picture &picture, const std::function<bool(uint32_t)> &matches)
{
    Spot spot;
    for (int y = 0; y < picture.height; y++) {
        for (int x = 0; x < picture.width; x++) {
            if (!matches(picture.at(x, y)))
                continue;
            spot.count++;
            spot.x += x;
            spot.y += y;
        }
    }
    if (spot.count > 0) {
        spot.x /= spot.count;
        spot.y /= spot.count;
    }
    return spot;
}

Spot spot_of(const LastingPanel &panel, uint32_t colour)
{
    return spot_of(panel.view().picture(), [&](uint32_t c) { return c == colour; });
}

} // namespace

TEST(Examples, HelloShowsItsRectangleAndEnds)
{
    LastingPanel panel(SCREEN);
    Example hello(panel, {built("hello"), "2"});
    PictureComposer composer(320, 240);
    composer.fill({60, 40, 200, 120}, 0xff8000);
    composer.fill({64, 44, 192, 112}, 0x2060c0);
    EXPECT_EQ(panel_shows(panel.view(), composer.picture(32)), "");
    EXPECT_EQ(hello.wait(), 0);
    EXPECT_EQ(hello.printed(), "");
}

TEST(Examples, HelloIsThereAgainWhenTheServerIsStartedAgain)
{
    LastingPanel panel(SCREEN);
    Example hello(panel, {built("hello"), "1000"});
    constexpr int EDGE = 200 * 120 - 192 * 112;
    EXPECT_TRUE(wait_until([&] { return spot_of(panel, 0xff8000).count == EDGE; }));
    panel.stop_server(SIGKILL);
    panel.erase();
    panel.start_server();
    EXPECT_TRUE(wait_until([&] { return spot_of(panel, 0xff8000).count == EDGE; }));
    EXPECT_EQ(hello.stop(), 128 + SIGTERM);
    EXPECT_EQ(hello.printed(), "");
}

// Its first second is half transparent white over the black of the panel, with black hands.
TEST(Examples, TheClockIsTranslucentAndTicks)
{
    LastingPanel panel(SCREEN);
    Example clock(panel, {built("clock"), "30", "40"});
    const auto is_face = [](uint32_t c) { return c >= 0x7e7e7e && c <= 0x828282; };
    const auto face = [&] { return spot_of(panel.view().picture(), is_face); };
    EXPECT_TRUE(wait_until([&] { return face().count > 6000; })) << face().count;
    EXPECT_NEAR(face().x, 80, 2);
    EXPECT_NEAR(face().y, 90, 2);
    EXPECT_EQ(panel.view().picture().at(80, 90), 0u) << "no hands";
    EXPECT_EQ(panel.view().picture().at(31, 41), 0u) << "the corner is transparent";
    const Picture first = panel.view().picture();
    EXPECT_TRUE(wait_until([&] { return panel.view().picture() != first; }));
    EXPECT_EQ(clock.stop(), 128 + SIGTERM);
    EXPECT_EQ(clock.printed(), "");
}

TEST(Examples, TheBallMoves)
{
    LastingPanel panel(SCREEN);
    Example ball(panel, {built("ball")});
    const auto is_yellow = [](uint32_t c) { return (c & 0xf0f080) == 0xf0f000; };
    const auto look = [&] { return spot_of(panel.view().picture(), is_yellow); };
    constexpr int WHOLE = 317; // pixels of a disc of radius 10
    Spot first;
    EXPECT_TRUE(wait_until([&] { return (first = look()).count == WHOLE; })) << first.count;
    EXPECT_TRUE(wait_until([&] {
        const Spot next = look();
        return next.count == WHOLE && next.x != first.x && next.y != first.y;
    }));
    EXPECT_EQ(ball.stop(), 128 + SIGTERM);
    EXPECT_EQ(ball.printed(), "");
}

TEST(Examples, PlayShowsFramesFromStandardInput)
{
    LastingPanel panel(SCREEN);
    Pipe film;
    fcntl(film.read_end(), F_SETFL, 0); // a shell's pipe waits
    Example play(panel, {built("pfb-play"), "50", "30", "7", "9"}, film.read_end());
    film.close_read();
    for (const uint32_t colour : {0xff8040u, 0x3366ccu}) {
        const std::vector<uint32_t> frame(50 * 30, colour);
        EXPECT_EQ(write(film.write_end(), frame.data(), frame.size() * 4), static_cast<ssize_t>(frame.size() * 4));
        PictureComposer composer(320, 240);
        composer.fill({7, 9, 50, 30}, colour);
        EXPECT_EQ(panel_shows(panel.view(), composer.picture(32)), "") << play.printed();
    }
    film.close_write();
    EXPECT_EQ(play.wait(), 0);
    EXPECT_EQ(play.printed(), "");
}

TEST(Examples, TheCounterCountsOnWhenTheServerIsStartedAgain)
{
    LastingPanel panel(SCREEN);
    Example counter(panel, {built("counter")});
    const auto is_growing = [&] {
        const int count = spot_of(panel.view().picture(), [](uint32_t c) { return c == 0x30c040; }).count;
        return wait_until([&] { return spot_of(panel, 0x30c040).count > count; });
    };
    EXPECT_TRUE(wait_until([&] { return spot_of(panel, 0x202020).count > 0; }));
    EXPECT_TRUE(is_growing());
    panel.stop_server(SIGKILL);
    panel.erase();
    panel.start_server();
    EXPECT_TRUE(is_growing());
    EXPECT_TRUE(wait_until([&] { return count_of(counter.printed(), "is back") == 1; }));
    EXPECT_EQ(counter.printed(), "the server has ended\nthe server is back\n");
    EXPECT_EQ(counter.stop(), 128 + SIGTERM);
}

TEST(Examples, ThePageIsEnoughForAClientInPython)
{
    LastingPanel panel(SCREEN);
    Example bars(panel, {from_build("PFB_TEST_PYTHON"), from_build("PFB_TEST_SOURCE") + "/examples/bars.py", "100"});
    EXPECT_TRUE(wait_until([&] { return spot_of(panel, 0xff0000).count == 12 * 64; }));
    const int x = spot_of(panel, 0xff0000).x;
    EXPECT_TRUE(wait_until([&] { return spot_of(panel, 0xff0000).x != x; }));
    EXPECT_EQ(bars.wait(), 0);
    EXPECT_EQ(bars.printed(), "");
    for (const std::string &name : folder_entries("/dev/shm"))
        EXPECT_EQ(count_of(name, "pfb-bars-"), 0u);
}
