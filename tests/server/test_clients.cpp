// SPDX-License-Identifier: MIT
// Clients come and go and die. What happens to each concerns itself alone: the others' picture stays as it is.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <unistd.h>

#include "../support/scenery.h"

namespace {

constexpr int WIDTH = SCENERY_WIDTH;
constexpr int HEIGHT = SCENERY_HEIGHT;

} // namespace

TEST(Clients, AKilledClientsSurfaceGoesAndNothingElseChanges)
{
    Scenery scenery;
    const Pixels pixels = pixels_random(PixelFormat::RGB565, 70, 60, 3);
    ClientProcess process([&](ClientSteps &steps) {
        TestClient client("fb.victim");
        client.create(pixels, 50, 40, 5);
        client.send("show");
        client.native_depth();
        steps.reached();
        for (;;)
            pause();
    });
    process.wait();
    PictureComposer with(WIDTH, HEIGHT);
    with.draw(pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 1), 0, 0);
    with.draw(pixels, 50, 40);
    with.draw(pixels_random(PixelFormat::ARGB, 60, 50, 2), 30, 20);
    EXPECT_EQ(panel_shows(scenery.server.panel(), with.picture(32)), "");
    process.go();
    process.kill(SIGKILL);
    EXPECT_EQ(process.join(), 128 + SIGKILL);
    EXPECT_EQ(panel_shows(scenery.server.panel(), scenery.composer.picture(32)), "") << "what lies below shows again";
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(Clients, KilledWhileHoldingTheRenderLock)
{
    Scenery scenery;
    ClientProcess process([&](ClientSteps &steps) {
        TestClient client("fb.victim");
        client.create(pixels_random(PixelFormat::RGB565, 70, 60, 3), 50, 40, 20);
        client.send("show");
        client.native_depth();
        client.lock(0, 0, 70, 60);
        client.lock(0, 0, 70, 60);
        steps.reached();
        for (;;)
            pause();
    });
    process.wait();
    process.kill(SIGKILL);
    process.join();
    scenery.glass.send("move", {31, 20}); // only drawn when the lock went with its holder
    PictureComposer moved(WIDTH, HEIGHT);
    moved.draw(pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 1), 0, 0);
    moved.draw(pixels_random(PixelFormat::ARGB, 60, 50, 2), 31, 20);
    EXPECT_EQ(panel_shows(scenery.server.panel(), moved.picture(32)), "");
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(Clients, AHangUpWithoutASurfaceOnlyEndsTheConnection)
{
    Scenery scenery;
    const size_t descriptors = process_descriptors(scenery.server.pid());
    {
        TestClient client("fb.nobody");
        client.native_depth();
        EXPECT_EQ(process_descriptors(scenery.server.pid()), descriptors + 1);
    }
    EXPECT_TRUE(wait_until([&] { return process_descriptors(scenery.server.pid()) == descriptors; }));
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.err(), "");
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

// The server answers somebody who is gone, and writes to a log that nobody reads: SIGPIPE must not end it.
TEST(Clients, VanishingBeforeTheAnswer)
{
    Scenery scenery;
    for (int i = 0; i < 50; i++) {
        TestClient client("fb.hasty");
        for (int n = 0; n < 20; n++)
            client.send("get_native_color_depth");
        client.hang_up();
    }
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(Clients, SigpipeItselfIsIgnored)
{
    Scenery scenery;
    kill(scenery.server.pid(), SIGPIPE);
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(Clients, FiftyAtOnceLeaveNothing)
{
    Scenery scenery;
    const pid_t pid = scenery.server.pid();
    const size_t descriptors = process_descriptors(pid);
    for (int round = 0; round < 3; round++) {
        std::vector<std::unique_ptr<TestClient>> clients;
        for (int i = 0; i < 50; i++) {
            clients.push_back(std::make_unique<TestClient>("fb.crowd" + std::to_string(i)));
            const auto format = static_cast<PixelFormat>(i % 4);
            clients.back()->create(pixels_random(format, 20 + i, 10 + i, static_cast<uint32_t>(i)), 2 * i, i,
                                   1 + i % 7);
            clients.back()->send("show");
        }
        for (const auto &client : clients)
            client->native_depth();
        EXPECT_EQ(process_descriptors(pid), descriptors + 50) << "shared memory is closed once it is mapped";
        clients.clear();
        EXPECT_EQ(panel_shows(scenery.server.panel(), scenery.composer.picture(32)), "") << "round " << round;
    }
    EXPECT_TRUE(wait_until([&] { return process_descriptors(pid) == descriptors; })) << process_descriptors(pid);
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(Clients, AThousandOneAfterTheOtherLeaveNoMemory)
{
    Scenery scenery;
    const pid_t pid = scenery.server.pid();
    const auto run = [](int n) {
        for (int i = 0; i < n; i++) {
            TestClient client("fb.passer-by");
            client.create(pixels_new(PixelFormat::RGB565, 30 + i * 7 % 60, 20 + i * 5 % 50), i % 100, i % 60, 1);
            client.send("show");
            client.native_depth();
        }
    };
    run(100); // the allocators' own stores fill
    EXPECT_EQ(panel_shows(scenery.server.panel(), scenery.composer.picture(32)), "");
    const size_t mappings = process_mappings(pid);
    const long resident = process_resident_kb(pid);
    run(1000);
    EXPECT_EQ(panel_shows(scenery.server.panel(), scenery.composer.picture(32)), "");
    EXPECT_LE(process_mappings(pid), mappings + 5);
    // A kilobyte for each of them would be a leak; a sanitizer keeps freed memory back for a while.
    const bool sanitized = file_text("/proc/" + std::to_string(pid) + "/maps").find("asan") != std::string::npos;
    EXPECT_LE(process_resident_kb(pid), resident + (sanitized ? 20000 : 500));
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

// The last surface closes the output and the next one opens it: a thousand times without running out of anything.
TEST(Clients, OneThatIsRestartedAgainAndAgain)
{
    RunningServer server;
    TestClient watcher("x.watcher"); // its surface is on no output
    watcher.create(pixels_new(PixelFormat::XRGB, 1, 1), 0, 0, 0);
    watcher.native_depth();
    const Pixels pixels = pixels_random(PixelFormat::RGB565, 40, 30, 1);
    size_t descriptors = 0;
    size_t mappings = 0;
    for (int i = 0; i < 300; i++) {
        {
            TestClient client("fb.restarted");
            client.create(pixels, 0, 0, 0);
            client.send("show");
            EXPECT_EQ(client.native_depth(), 32);
            ASSERT_TRUE(wait_until([&] { return !server.panel().is_black(); }));
        }
        ASSERT_TRUE(wait_until([&] { return server.panel().is_black(); }));
        EXPECT_EQ(count_of(server.out(), "screen info is\n"), static_cast<size_t>(i + 1));
        if (i == 10) {
            descriptors = process_descriptors(server.pid());
            mappings = process_mappings(server.pid());
        }
    }
    watcher.settle();
    EXPECT_LE(process_descriptors(server.pid()), descriptors);
    EXPECT_LE(process_mappings(server.pid()), mappings + 2);
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
