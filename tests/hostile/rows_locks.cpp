// SPDX-License-Identifier: MIT
// Whoever holds the render lock holds everybody's picture. Each way into a screen that stands still, and the way out.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "misbehaviour.h"

namespace {

constexpr unsigned UPDATES = 10;

// What the bystander has reported is not drawn, though `asker` makes sure that everything due would have been.
bool is_held_back(const Bystander &bystander, unsigned update, TestClient &asker)
{
    asker.settle();
    return !bystander.is_shown(update) && bystander.reported() == update;
}

// Nothing is drawn. The update that the bystander has reported last may have come before.
void expect_standstill(Stage &stage, TestClient &asker)
{
    const Bystander &bystander = stage.bystander();
    const unsigned last = bystander.reported();
    if (is_held_back(bystander, last, asker))
        return;
    EXPECT_TRUE(wait_until([&] { return bystander.reported() > last; }));
    EXPECT_TRUE(is_held_back(bystander, last + 1, asker)) << "drawn in spite of a lock";
}

// What `pfbctl status` makes the server print.
void expect_locks(Stage &stage, int count)
{
    stage.ctl({"status"});
    const std::string line = "count of lock: " + std::to_string(count) + "\n";
    EXPECT_TRUE(wait_until([&] {
        const std::string out = stage.out();
        const size_t last = out.rfind("count of lock: ");
        return last != std::string::npos && out.compare(last, line.size(), line) == 0;
    })) << stage.out();
}

SurfaceRequest small_surface(int level = 1)
{
    return {.x = 10, .y = 10, .width = 30, .height = 30, .level = level};
}

void nested_locks(Stage &stage)
{
    TestClient asker("x.asker");
    asker.create(small_surface());
    ClientProcess holder([&](ClientSteps &steps) {
        TestClient client("fb.holder");
        client.create(small_surface());
        client.send("show");
        for (int i = 0; i < 1000; i++) {
            client.lock(0, 0, 10, 10);
            stage.done()++;
        }
        for (int i = 0; i < 999; i++)
            client.send("unlock");
        client.native_depth();
        steps.reached();
    });
    holder.wait();
    expect_standstill(stage, asker);
    holder.go();
    EXPECT_EQ(holder.join(), 0);
}

// Stops itself with the lock held. When it goes on it says so, and gives the lock back as soon as it may.
void hold_and_stop(ClientSteps &steps)
{
    TestClient client("fb.holder");
    client.create(small_surface());
    client.send("show");
    client.lock(0, 0, 10, 10);
    raise(SIGSTOP);
    steps.reached();
    client.send("unlock");
    steps.reached();
}

void expect_stopped(Stage &stage, TestClient &asker, const ClientProcess &holder)
{
    int status = 0;
    EXPECT_EQ(waitpid(holder.pid(), &status, WUNTRACED), holder.pid());
    EXPECT_TRUE(WIFSTOPPED(status));
    expect_standstill(stage, asker);
    expect_locks(stage, 1);
}

void expect_picture_back(Stage &stage)
{
    stage.bystander().expect_progress(UPDATES);
    expect_locks(stage, 0);
}

void stopped_holder(Stage &stage)
{
    TestClient asker("x.asker");
    asker.create(small_surface());

    ClientProcess killed(hold_and_stop);
    expect_stopped(stage, asker, killed);
    killed.kill(SIGKILL);
    EXPECT_EQ(killed.join(), 128 + SIGKILL);
    expect_picture_back(stage);

    ClientProcess continued(hold_and_stop);
    expect_stopped(stage, asker, continued);
    continued.kill(SIGCONT);
    continued.wait();
    expect_standstill(stage, asker); // it goes on, and has the lock
    continued.go();
    continued.wait();
    expect_picture_back(stage);
    continued.go();
    EXPECT_EQ(continued.join(), 0);
    stage.add_done(2);
}

// The picture goes on before the holder has drawn; had the holder sent its own unlock, the server would have ended.
void strangers_unlock(Stage &stage)
{
    TestClient holder("fb.holder");
    holder.create(small_surface());
    holder.send("show");
    stage.in_process([&] {
        for (int i = 0; i < 20; i++) {
            holder.lock(0, 0, 10, 10);
            TestClient stranger("fb.stranger");
            stranger.send_text("set_surface", "fb.holder");
            stranger.send("unlock");
            EXPECT_TRUE(stranger.is_connected());
            stage.done()++;
        }
    });
    stage.bystander().expect_progress(UPDATES);
}

// They stay on the screen when their client has gone, and can be hidden by their name.
void orphans(Stage &stage)
{
    constexpr int COUNT = 50;
    stage.in_process([&] {
        TestClient client("fb.orphan");
        for (int i = 0; i < COUNT; i++) {
            client.create(pixels_random(PixelFormat::ARGB, 20, 20, 1), 2 * i, i, 1);
            client.native_depth(); // the server has its memory, before the next one takes its place here
        }
    });
    stage.in_process([&] {
        TestClient client("fb.seen");
        client.create(pixels_random(PixelFormat::XRGB, 60, 50, 1), 10, 10, 1);
        client.send("show");
        client.native_depth();
        client.create(small_surface());
        client.native_depth();
    });
    stage.add_done(COUNT);
    EXPECT_TRUE(wait_until(
        [&] { return stage.panel().raw(15, 15) << 8 == pixels_random(PixelFormat::XRGB, 60, 50, 1).at(5, 5) << 8; }));
    stage.ctl({"hide", "fb.seen"});
}

// docs/robustness.md has this program; it is run as it stands there.
std::string unlock_program()
{
    const std::string page = file_text(from_build("PFB_TEST_PAGE"));
    const std::string fence = "```python\n";
    const size_t begin = page.find(fence);
    if (begin == std::string::npos)
        throw std::runtime_error("the page has no program"); // ends the test
    return page.substr(begin + fence.size(), page.find("```\n", begin + fence.size()) - begin - fence.size());
}

void orphan_with_a_lock(Stage &stage)
{
    TestClient asker("x.asker");
    asker.create(small_surface());
    stage.in_process([] {
        TestClient client("fb.orphan");
        client.create(small_surface());
        client.lock(0, 0, 10, 10);
        client.create(small_surface());
        client.native_depth();
    });
    expect_standstill(stage, asker);
    expect_locks(stage, 1);
    const ProgramResult result =
        program_run(stage.beside({from_build("PFB_TEST_PYTHON"), "-c", unlock_program(), "fb.orphan"}));
    EXPECT_EQ(shell_status(result.status), 0) << result.err;
    stage.add_done(1);
    expect_picture_back(stage);
}

void turn_display(Stage &stage)
{
    stage.in_process([] {
        TestClient client("fb.turner");
        client.create({.x = 10, .y = 10, .width = 30, .height = 30, .rotation = 90});
        client.send("show");
        client.native_depth();
    });
    stage.add_done(1);
}

// Whoever turned it has gone, and nobody makes its surface anew for the turn. A surface of the old turn turns it back,
// and its end lets everybody draw.
void rotation_that_waits(Stage &stage)
{
    TestClient asker("x.asker");
    asker.create(small_surface());
    turn_display(stage);
    expect_standstill(stage, asker);
    expect_locks(stage, 1);
    stage.ctl({"fill", "black", "--size", "1x1", "--rotation", "0", "--for", "0.1"});
    expect_picture_back(stage);
}

// The other way out: what is still shown for the old turn is hidden, and a surface of the new turn comes and goes.
void rotation_that_waits_for_one(Stage &stage)
{
    TestClient asker("x.asker");
    asker.create(small_surface());
    turn_display(stage);
    expect_standstill(stage, asker);
    for (const char *name : {"fb.background", "fb.window"})
        stage.ctl({"hide", name});
    stage.ctl({"fill", "black", "--size", "1x1", "--rotation", "90", "--for", "0.1"});
    expect_locks(stage, 0);
    stage.ctl({"fill", "black", "--size", "1x1", "--rotation", "0", "--for", "0.1"});
    for (const char *name : {"fb.background", "fb.window"})
        stage.ctl({"unhide", name});
    stage.bystander().expect_progress(UPDATES);
}

constexpr const char *WORDS[] = {"lock_area",
                                 "unlock",
                                 "dirty",
                                 "show",
                                 "hide",
                                 "move",
                                 "resize",
                                 "set_layer",
                                 "opaque_area",
                                 "color_plane",
                                 "create",
                                 "status",
                                 "set_clip",
                                 "set_surface",
                                 "set_scale",
                                 "set_sync",
                                 "get_native_color_depth",
                                 "block_until_unlock",
                                 "set_color_format"};

// The word with arguments that do something.
void send_request(TestClient &client, const std::string &word)
{
    if (word == "create")
        return client.create(small_surface());
    if (word == "set_surface")
        return client.send_text("set_surface", "fb.window");
    if (word == "set_scale")
        return client.send("set_scale", {0, 0, 20, 20, 30, 30, 50, 40});
    client.send(word.c_str(), {12, 13, 14, 15});
}

// All that a request needs to be a right one goes with it: it must not end the server, wherever its client stops.
void send_whole(TestClient &client, const std::string &word)
{
    if (word == "unlock" || word == "block_until_unlock")
        client.send("lock_area", {0, 0, 10, 10});
    send_request(client, word);
    if (word == "block_until_unlock") // the unlock takes back two
        client.send("unlock");
}

enum class Instant { BEFORE, QUEUED, HANDLED };

void send_many(TestClient &client, const std::string &word)
{
    constexpr int MANY = 30;
    for (int i = 0; i < MANY; i++)
        send_whole(client, word);
}

// What is handled when the client dies: it does so over an answer in the midst. Of "create" there is only one, since
// all but the last one would leave a surface behind for good.
void send_around_an_answer(TestClient &client, const std::string &word)
{
    if (word == "create")
        client.send_text("set_surface", "fb.background");
    else
        send_many(client, word);
    client.send("get_native_color_depth");
    if (word == "create")
        send_whole(client, word);
    else
        send_many(client, word);
}

// Two steps: before the requests, and when all of them have been sent.
void send_and_die(ClientSteps &steps, const std::string &word, Instant instant)
{
    TestClient client("fb.victim");
    if (word != "create") {
        client.create(small_surface());
        client.send("show");
        client.native_depth();
    }
    steps.reached();
    if (instant == Instant::QUEUED)
        send_whole(client, word);
    if (instant == Instant::HANDLED)
        send_around_an_answer(client, word);
    steps.reached();
    if (instant == Instant::HANDLED)
        client.wait_for_answer();
    raise(SIGKILL);
}

void stop(pid_t server)
{
    kill(server, SIGSTOP);
    int status = 0;
    EXPECT_EQ(waitpid(server, &status, WUNTRACED), server);
    EXPECT_TRUE(WIFSTOPPED(status));
}

// The server does nothing while the client sends: all of it is in its queue. It goes on when the client is dead, or
// with the client waiting for an answer.
void die_at(Stage &stage, const std::string &word, Instant instant)
{
    ClientProcess victim([&](ClientSteps &steps) { send_and_die(steps, word, instant); });
    victim.wait();
    stop(stage.server());
    victim.go();
    victim.wait();
    victim.go();
    if (instant == Instant::HANDLED)
        kill(stage.server(), SIGCONT);
    EXPECT_EQ(victim.join(), 128 + SIGKILL) << word;
    kill(stage.server(), SIGCONT);
    stage.done()++;
}

void killed_at_every_request(Stage &stage)
{
    for (const char *word : WORDS) {
        for (const Instant instant :
             {Instant::BEFORE, Instant::QUEUED, Instant::HANDLED, Instant::HANDLED, Instant::HANDLED, Instant::HANDLED})
            die_at(stage, word, instant);
    }
}

} // namespace

std::vector<Misbehaviour> lock_rows()
{
    return {
        {"KilledAtEveryRequest",
         "is killed (SIGKILL) before any of the 19 requests, with it in the server's queue, or while it is handled",
         "its surface goes, with its locks; what lies below is drawn",
         "kills",
         {},
         killed_at_every_request},
        {"NestedLocks",
         "locks a thousand times, gives all but one back, and ends",
         "the rest goes with its surface",
         "locks",
         {},
         nested_locks},
        {"StoppedHolder",
         "is stopped (SIGSTOP) while it holds the lock",
         "nothing is drawn until it goes on and unlocks, or is killed; either gives the picture back",
         "times",
         {},
         stopped_holder},
        {"StrangersUnlock",
         "gives back the lock of another's surface",
         "the picture goes on too early; the other's own unlock would end the server",
         "locks",
         {},
         strangers_unlock},
        {"Orphans",
         "makes further surfaces on its connection, and ends",
         "the earlier ones stay, shown or hidden; `pfbctl hide` takes them away",
         "surfaces",
         {},
         orphans,
         {.orphans = 50}},
        {"OrphanWithALock",
         "leaves a surface behind that holds the lock",
         "nothing is drawn until somebody unlocks it by its name",
         "times",
         {},
         orphan_with_a_lock,
         {.orphans = 1}},
        {"RotationThatWaits",
         "turns the display while others are shown, and ends",
         "nothing is drawn until a surface of the old turn comes and goes",
         "times",
         {},
         rotation_that_waits},
        {"RotationThatWaitsForOne",
         "turns the display for good, and one program does not follow",
         "nothing is drawn until that one is hidden, and a surface of the new turn has gone",
         "times",
         {},
         rotation_that_waits_for_one},
    };
}
