// SPDX-License-Identifier: MIT
// One kind of request without end, as fast as the socket takes it.
#include <gtest/gtest.h>

#include <csignal>

#include "misbehaviour.h"

namespace {

constexpr unsigned UPDATES = 15;

using Request = void (*)(TestClient &client, int i);

// From a client with a surface that lies partly below the bystander's window; without end.
void send_on_and_on(Request request, std::atomic<unsigned long> &done)
{
    TestClient client("fb.flood");
    client.create(pixels_random(PixelFormat::ARGB, 90, 70, 1), 40, 10, 1);
    client.send("show");
    for (int i = 0;; i++) {
        request(client, i);
        done++;
    }
}

template <Request request> void flood(Stage &stage)
{
    stage.until_updates(UPDATES, [](std::atomic<unsigned long> &done) { send_on_and_on(request, done); });
}

void dirty(TestClient &client, int i)
{
    client.send("dirty", {i % 50, i % 40, 1 + i % 40, 1 + i % 30});
}

void show_and_hide(TestClient &client, int i)
{
    client.send(i % 2 == 0 ? "hide" : "show");
}

void move(TestClient &client, int i)
{
    client.send("move", {i * 7 % 200 - 60, i * 5 % 160 - 40});
}

void level(TestClient &client, int i)
{
    client.send("set_layer", {i % 900});
}

void shape(TestClient &client, int i)
{
    switch (i % 4) {
    case 0:
        return client.send("resize", {1 + i % 90, 1 + i % 70});
    case 1:
        return client.send("set_clip", {i % 60, i % 50, 1 + i % 80, 1 + i % 60});
    case 2:
        return client.send("opaque_area", {i % 90, i % 70, i % 30, i % 30});
    default:
        return client.send("color_plane", {i % 3 == 0 ? -1 : i * 0x01010101});
    }
}

void scale(TestClient &client, int i)
{
    client.send("set_scale", {0, 0, 10 + i % 30, 10 + i % 30, i % 100, i % 60, 40 + i % 60, 40 + i % 50});
}

void status(TestClient &client, int)
{
    client.send("status");
}

void flood_of_status(Stage &stage)
{
    flood<status>(stage);
    stage.expect_connections_of_clients(0); // what it has sent is handled
    const std::string out = stage.out();
    stage.expect_lists(count_of(out, "\n"));
    EXPECT_GE(count_of(out, "# of surface: 3\n"), stage.done());
}

void lock(TestClient &client, int i)
{
    client.lock(i % 50, i % 40, 20, 20);
    client.send("unlock");
}

// From a client without a surface, on that of another one.
void others(Stage &stage)
{
    TestClient victim("fb.victim");
    victim.create(pixels_random(PixelFormat::XRGB, 40, 40, 2), 20, 60, 2);
    victim.send("show");
    victim.native_depth();
    stage.until_updates(UPDATES, [](std::atomic<unsigned long> &done) {
        TestClient client("fb.stranger");
        for (int i = 0;; i++) {
            client.send_text("set_surface", i % 3 == 0 ? "fb.nobody" : "fb.victim");
            client.send(i % 2 == 0 ? "hide" : "show");
            client.send("move", {i % 100, i % 80});
            done += 3;
        }
    });
    // What the stranger has sent is still handled. The selection is a place in the stack: were the victim to go first,
    // the rest would meet the bystander.
    stage.expect_connections_of_clients(1);
    EXPECT_TRUE(victim.is_connected());
}

// Several of them, of several kinds, at once.
void all_together(Stage &stage)
{
    ClientProcess one([&](ClientSteps &) { send_on_and_on(dirty, stage.done()); });
    ClientProcess two([&](ClientSteps &) { send_on_and_on(move, stage.done()); });
    ClientProcess three([&](ClientSteps &) { send_on_and_on(show_and_hide, stage.done()); });
    stage.bystander().expect_progress(UPDATES);
    for (ClientProcess *process : {&one, &two, &three}) {
        process->kill(SIGKILL);
        process->join();
    }
}

} // namespace

std::vector<Misbehaviour> flood_rows()
{
    const char *const fair = "the others are served in turn";
    return {
        {"FloodOfDirty", "floods with \"dirty\"", fair, "requests", {}, flood<dirty>},
        {"FloodOfShowAndHide", "floods with \"show\" and \"hide\"", fair, "requests", {}, flood<show_and_hide>},
        {"FloodOfMove", "floods with \"move\"", fair, "requests", {}, flood<move>},
        {"FloodOfLevels", "floods with \"set_layer\"", fair, "requests", {}, flood<level>},
        {"FloodOfShapes",
         "floods with sizes, clips, opaque areas and colour planes",
         fair,
         "requests",
         {},
         flood<shape>},
        {"FloodOfScales", "floods with \"set_scale\"", fair, "requests", {}, flood<scale>},
        {"FloodOfStatus",
         "floods with \"status\"",
         "the same; the list is printed each time",
         "requests",
         {},
         flood_of_status},
        {"FloodOfLocks",
         "locks and unlocks without a pause",
         "the picture gets through between two locks",
         "locks",
         {},
         flood<lock>},
        {"FloodOnOthers",
         "selects another's surface, and hides, shows and moves it without end",
         "that surface does what it is told; all others are served in turn",
         "requests",
         {},
         others},
        {"FloodsTogether", "three of them flood at once", fair, "requests", {}, all_together},
    };
}
