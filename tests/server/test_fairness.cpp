// SPDX-License-Identifier: MIT
// Clients flood the server, in every way that the benchmark knows: each frame of another one reaches the panel.
// How late it comes is the benchmark's business.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "../../bench/e2e/flood.h"
#include "../support/running_server.h"
#include "../support/test_client.h"

namespace {

constexpr int WIDTH = 160;
constexpr int HEIGHT = 120;
constexpr int FRAMES = 30;

volatile sig_atomic_t stopped;

void run_flood(const Flood &flood, int level, ClientSteps &steps)
{
    signal(SIGTERM, [](int) { stopped = 1; });
    Flooder flooder{WIDTH, HEIGHT, level, nullptr, false, 0};
    flood.stretch(&flooder);
    steps.reached();
    while (stopped == 0)
        flood.stretch(&flooder);
    flood_end(&flooder);
}

using Flooders = std::vector<std::unique_ptr<ClientProcess>>;

Flooders start_flooders(const Flood &flood)
{
    Flooders flooders;
    for (int i = 0; i < flood.count; i++)
        flooders.push_back(
            std::make_unique<ClientProcess>([&flood, i](ClientSteps &steps) { run_flood(flood, i, steps); }));
    for (const auto &flooder : flooders) {
        flooder->wait();
        flooder->go();
    }
    return flooders;
}

std::vector<std::string> flood_names()
{
    std::vector<std::string> names;
    for (const Flood *flood = floods; flood->name != nullptr; flood++)
        names.emplace_back(flood->name);
    return names;
}

// What clients have made that were turned away, or not yet heard, when the server ended.
void remove_left_memory()
{
    const std::string prefix = "raw-" + std::to_string(getpid()) + "-";
    for (const std::string &name : folder_entries("/dev/shm")) {
        if (name.rfind(prefix, 0) == 0)
            shm_unlink(("/" + name).c_str());
    }
}

class Floods : public testing::TestWithParam<std::string> {};

TEST_P(Floods, EveryFrameArrives)
{
    RunningServer server;
    TestClient client("fb.fair");
    client.create({.width = WIDTH, .height = 20, .level = 100});
    client.send("show");
    const Flooders flooders = start_flooders(*flood_find(GetParam().c_str()));
    for (uint32_t frame = 1; frame <= FRAMES; frame++) {
        client.draw(pixels_filled(PixelFormat::XRGB, WIDTH, 20, frame * 0x010203));
        client.send("dirty", {0, 0, WIDTH, 20});
        ASSERT_TRUE(wait_until([&] { return (server.panel().raw(WIDTH - 1, 19) & 0xffffff) == frame * 0x010203; }))
            << "frame " << frame;
    }
    for (const auto &flooder : flooders)
        flooder->kill(SIGTERM);
    for (const auto &flooder : flooders)
        EXPECT_EQ(flooder->join(), 0);
    client.settle();
    EXPECT_EQ(server.stop(SIGTERM), 0);
    remove_left_memory();
}

INSTANTIATE_TEST_SUITE_P(Fairness, Floods, testing::ValuesIn(flood_names()), [](const auto &info) {
    std::string name = info.param;
    name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
    return name;
});

} // namespace

// Without a rest between its drawings a client sends the next lock together with the unlock: the lock takes away the
// pass that has just become due.
TEST(Fairness, ALockAgainAtOnceKeepsThePassWaiting)
{
    RunningServer server;
    TestClient client("fb.locking");
    client.create(pixels_filled(PixelFormat::XRGB, WIDTH, HEIGHT, 0x111111), 0, 0, 0);
    client.send("show");
    client.settle();
    const auto lock_at_once = [&](uint32_t colour, int times) {
        kill(server.pid(), SIGSTOP); // so that it finds all of it at once
        client.draw(pixels_filled(PixelFormat::XRGB, WIDTH, HEIGHT, colour));
        client.send("dirty", {0, 0, WIDTH, HEIGHT});
        for (int i = 0; i < times; i++) {
            if (i > 0)
                client.send("unlock");
            client.send("lock_area", {0, 0, 0, 0});
        }
        kill(server.pid(), SIGCONT);
        client.settle();
        return server.panel().raw(5, 5) & 0xffffff;
    };
    EXPECT_EQ(lock_at_once(0x222222, 1), 0x111111u) << "drawn in spite of the lock";
    client.send("unlock");
    client.settle();
    EXPECT_EQ(server.panel().raw(5, 5) & 0xffffff, 0x222222u);
    EXPECT_EQ(lock_at_once(0x333333, 2), 0x222222u) << "drawn in spite of the second lock";
    client.send("unlock");
    client.settle();
    EXPECT_EQ(server.panel().raw(5, 5) & 0xffffff, 0x333333u);
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
