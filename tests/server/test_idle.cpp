// SPDX-License-Identifier: MIT
// The server works when there is something to do, and only then.
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "../support/composer.h"
#include "../support/running_server.h"
#include "../support/test_client.h"

namespace {

constexpr int WIDTH = 160;
constexpr int HEIGHT = 120;

// What a render pass leaves to be counted: with several surfaces to draw, each of 16 bits that nothing covers says
// this once.
const char *const PASS_LINE = "image_render: render region is null\n";
// And one that finds no damage says this.
const char *const EMPTY_LINE = "dirty region is empty!!!!!!!!!!!!!!!!!!!!\n";

// Sleeps, and its context switches have stopped growing for a while.
bool is_at_rest(pid_t pid)
{
    const long before = process_switches(pid);
    for (int i = 0; i < 20; i++) {
        if (!process_sleeps(pid) || process_switches(pid) != before)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void expect_no_wake_ups(pid_t pid)
{
    ASSERT_TRUE(wait_until([&] { return is_at_rest(pid); }));
    EXPECT_EQ(folder_entries("/proc/" + std::to_string(pid) + "/task").size(), 1u) << "one thread";
    const long before = process_switches(pid);
    std::this_thread::sleep_for(std::chrono::seconds(2)); // the time that is measured
    EXPECT_EQ(process_switches(pid), before);
}

// A 16-bit window and a 32-bit one beside each other, so that every pass over both can be counted.
struct Pair {
    Pair() : narrow("fb.narrow"), wide("fb.wide")
    {
        narrow.create(pixels_random(PixelFormat::RGB565, 50, 50, 1), 0, 0, 0);
        wide.create(pixels_random(PixelFormat::XRGB, 50, 50, 2), 60, 0, 1);
        narrow.send("show");
        narrow.native_depth();
        wide.send("show");
        wide.settle();
    }
    TestClient narrow, wide;
};

// A lock and its release make one pass of all that was asked for in between.
template <typename Requests> void in_one_pass(TestClient &client, Requests requests)
{
    client.lock(0, 0, 0, 0);
    requests();
    client.native_depth();
    client.send("unlock");
    client.settle();
}

} // namespace

TEST(Idle, AServerWithoutClientsSleeps)
{
    RunningServer server;
    expect_no_wake_ups(server.pid());
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Idle, AServerThatShowsPicturesSleeps)
{
    RunningServer server;
    Pair pair;
    TestClient silent("fb.silent"), veil("fb.veil");
    veil.create(pixels_new(PixelFormat::ARGB, WIDTH, HEIGHT), 0, 0, 5);
    veil.send("color_plane", {0x40FFFFFF});
    veil.send("set_sync", {1});
    veil.send("show");
    veil.settle();
    expect_no_wake_ups(server.pid());
    const std::string out = server.out();
    for (int i = 0; i < 10; i++)
        pair.narrow.send("dirty", {0, 0, 10, 10});
    pair.narrow.settle();
    EXPECT_NE(server.out(), out) << "the server was not asleep for good";
    expect_no_wake_ups(server.pid());
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Idle, AServerWithAHeldRenderLockSleeps)
{
    RunningServer server;
    Pair pair;
    pair.narrow.lock(0, 0, 50, 50);
    pair.wide.send("dirty", {0, 0, 50, 50});
    pair.wide.native_depth();
    expect_no_wake_ups(server.pid());
    pair.narrow.send("unlock");
    pair.narrow.settle();
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// Clients that died, were dropped, and never greeted leave nothing that wakes it.
TEST(Idle, AServerThatLostClientsSleeps)
{
    RunningServer server;
    Pair pair;
    for (int i = 0; i < 5; i++) {
        ClientProcess process([](ClientSteps &steps) {
            TestClient client("fb.victim");
            client.create(pixels_random(PixelFormat::ARGB, 50, 50, 3), 20, 20, 5);
            client.send("show");
            client.native_depth();
            steps.reached();
            client.native_depth();
        });
        process.wait();
        process.kill(SIGKILL);
        process.join();
    }
    pair.wide.settle();
    expect_no_wake_ups(server.pid());
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// A log whose reader has stopped is not asked about again and again.
TEST(Idle, AServerWhoseLogNobodyReadsSleeps)
{
    Pipe out;
    RunningServer server({.out_fd = out.write_end()});
    Pair pair;
    for (int i = 0; i < 5000; i++)
        pair.wide.send("status");
    pair.wide.settle();
    expect_no_wake_ups(server.pid());
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// ---- a pass only for damage ----

TEST(Passes, RequestsThatDamageNothingDrawNothing)
{
    RunningServer server;
    Pair pair;
    const size_t empty = count_of(server.err(), EMPTY_LINE);
    const size_t passes = count_of(server.out(), PASS_LINE);
    TestClient hidden("fb.hidden");
    hidden.create(pixels_random(PixelFormat::XRGB, 30, 30, 5), 10, 10, 5);
    for (TestClient *client : {&pair.narrow, &pair.wide, &hidden}) {
        client->send("opaque_area", {0, 0, 10, 10});
        client->send("set_color_format", {3});
        client->send("set_sync", {1});
        client->send("status");
        client->send("set_surface", {});
        client->send("nonsense");
        client->send("dirty", {0, 0, 10});
    }
    pair.narrow.send("show");
    pair.narrow.send("move", {0, 0});
    hidden.send("hide");
    hidden.send("move", {20, 20});
    hidden.send("dirty", {0, 0, 10, 10});
    hidden.send("resize", {31, 30});
    hidden.send("color_plane", {static_cast<int32_t>(0xFF00FF00)});
    pair.wide.send("color_plane", {0});
    pair.wide.send("dirty", {0, 0, 10, 10}); // ignored: the surface shows a plane
    for (TestClient *client : {&pair.narrow, &pair.wide, &hidden})
        client->settle();
    EXPECT_EQ(count_of(server.out(), PASS_LINE), passes);
    EXPECT_EQ(count_of(server.err(), EMPTY_LINE), empty) << "not even a pass that finds nothing";
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Passes, ManyReportsMeetInOne)
{
    RunningServer server;
    Pair pair;
    const size_t passes = count_of(server.out(), PASS_LINE);
    in_one_pass(pair.narrow, [&] {
        for (int i = 0; i < 30; i++) {
            pair.narrow.send("dirty", {i, i, 5, 5});
            pair.wide.send("dirty", {i, i, 5, 5});
            pair.wide.native_depth();
        }
    });
    EXPECT_EQ(count_of(server.out(), PASS_LINE), passes + 1);
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Passes, DamageIsDrawnOnce)
{
    RunningServer server;
    Pair pair;
    const size_t passes = count_of(server.out(), PASS_LINE);
    for (size_t i = 1; i <= 5; i++) {
        in_one_pass(pair.narrow, [&] {
            pair.narrow.send("dirty", {0, 0, 5, 5});
            pair.wide.send("dirty", {0, 0, 5, 5});
            pair.wide.native_depth();
        });
        EXPECT_EQ(count_of(server.out(), PASS_LINE), passes + i);
    }
    EXPECT_EQ(count_of(server.err(), EMPTY_LINE), 0u);
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Passes, NothingIsDrawnWhileTheLockIsHeld)
{
    RunningServer server;
    Pair pair;
    const Picture before = server.panel().picture();
    const size_t passes = count_of(server.out(), PASS_LINE);
    pair.narrow.lock(0, 0, 50, 50);
    pair.wide.lock(0, 0, 50, 50);
    pair.narrow.draw(pixels_random(PixelFormat::RGB565, 50, 50, 11));
    pair.wide.draw(pixels_random(PixelFormat::XRGB, 50, 50, 12));
    pair.wide.send("move", {70, 10});
    pair.wide.settle();
    pair.narrow.send("unlock");
    pair.narrow.settle();
    EXPECT_EQ(picture_difference(server.panel().picture(), before), "") << "one still holds it";
    EXPECT_EQ(count_of(server.out(), PASS_LINE), passes);
    pair.wide.send("unlock");
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(pixels_random(PixelFormat::XRGB, 50, 50, 2), 60, 0); // its old place: nothing lies below
    composer.draw(pixels_random(PixelFormat::RGB565, 50, 50, 11), 0, 0);
    composer.draw(pixels_random(PixelFormat::XRGB, 50, 50, 12), 70, 10);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Passes, BlockUntilUnlockHoldsThePicture)
{
    RunningServer server;
    Pair pair;
    const Picture before = server.panel().picture();
    pair.narrow.send("block_until_unlock");
    pair.narrow.send("block_until_unlock"); // as good as one
    pair.narrow.draw(pixels_random(PixelFormat::RGB565, 50, 50, 11));
    pair.narrow.send("dirty", {0, 0, 50, 50});
    pair.narrow.lock(0, 0, 50, 50);
    pair.narrow.settle();
    EXPECT_EQ(picture_difference(server.panel().picture(), before), "");
    pair.narrow.send("unlock");
    PictureComposer composer(WIDTH, HEIGHT);
    composer.draw(pixels_random(PixelFormat::RGB565, 50, 50, 11), 0, 0);
    composer.draw(pixels_random(PixelFormat::XRGB, 50, 50, 2), 60, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
