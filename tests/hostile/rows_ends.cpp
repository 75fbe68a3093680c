// SPDX-License-Identifier: MIT
// The server ends: over what it takes for mistakes of trusted programs, or killed. It is started again, and the
// bystander is back by itself. The figure is how long its picture stood still.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>

#include "misbehaviour.h"
#include "server_limit.h"

namespace {

constexpr int ABORTED = 128 + SIGABRT;

// A client without a surface sends "create" of `name`.
void create_over(const char *name)
{
    mc_connection *connection = mc_connect("pfb", "fb.culprit");
    mc_packet *packet = mc_packet_new_command("create");
    EXPECT_EQ(mc_packet_build_args(packet, "iiiiiiiiis", 0, 32, 0, 0, 10, 10, 40, 0, 0, name), 10);
    mc_send(connection, packet);
    mc_packet_free(packet);
    mc_close(connection);
}

void missing_memory(Stage &stage)
{
    stage.in_process([] { create_over("/pfb-memory-that-is-not-there"); });
    stage.expect_end(ABORTED);
    stage.add_done(1);
}

void odd_memory_name(const std::string &name, Stage &stage)
{
    stage.in_process([&] { create_over(name.c_str()); });
    stage.expect_end(ABORTED);
    stage.add_done(1);
}

void odd_memory_names(Stage &stage)
{
    odd_memory_name("/../../etc/passwd", stage);
    odd_memory_name("", stage);
}

void long_memory_name(Stage &stage)
{
    odd_memory_name("/" + std::string(4000, 'm'), stage);
}

// From a client with a surface.
template <auto mistake> void mistake_of_one(Stage &stage)
{
    stage.in_process([] {
        TestClient client("fb.culprit");
        client.create({.x = 5, .y = 5, .width = 40, .height = 30, .level = 1});
        client.send("show");
        client.native_depth();
        mistake(client);
    });
    stage.expect_end(ABORTED);
    stage.add_done(1);
}

void unmapped(TestClient &client)
{
    client.create({.width = 10, .height = 65536, .stride = 65536, .bytes = 4096}); // wraps to no byte at all
    EXPECT_FALSE(client.is_connected()); // the name is there until the server has seen it
}

void resize(TestClient &client)
{
    client.send("resize", {0, 10});
}

void unlock(TestClient &client)
{
    client.send("unlock");
}

void block_and_unlock(TestClient &client)
{
    client.send("block_until_unlock");
    client.send("unlock");
}

void wrap(TestClient &client)
{
    client.send("move", {INT32_MAX - 10, 0});
}

void rotation_45(TestClient &client)
{
    client.create({.width = 40, .height = 30, .rotation = 45});
    EXPECT_FALSE(client.is_connected());
}

void death_while_blocking(Stage &stage)
{
    for (const bool killed : {false, true}) {
        ClientProcess culprit([&](ClientSteps &) {
            TestClient client("fb.culprit");
            client.create({.x = 5, .y = 5, .width = 40, .height = 30, .level = 1});
            client.send("show");
            client.send("block_until_unlock");
            client.native_depth();
            if (killed)
                raise(SIGKILL);
            client.hang_up();
        });
        EXPECT_EQ(culprit.join(), killed ? 128 + SIGKILL : 0);
        stage.expect_end(ABORTED);
        stage.done()++;
    }
}

// What is shown for the old turn holds the picture back, and with it the end: so it is hidden, and a surface of the new
// turn that goes lets the server draw.
void rotation_180(Stage &stage)
{
    stage.in_process([] {
        TestClient client("fb.culprit");
        client.create({.width = 40, .height = 30, .rotation = 180});
        client.send("show");
        client.native_depth();
        TestClient stranger("x.stranger");
        for (const char *name : {"fb.background", "fb.window"}) {
            stranger.send_text("set_surface", name);
            stranger.send("hide");
        }
        stranger.create({.width = 1, .height = 1, .rotation = 180});
        stranger.native_depth();
        stranger.hang_up();
        EXPECT_TRUE(wait_until([&] { return !client.is_connected(); })); // until it has drawn
    });
    stage.expect_end(ABORTED);
    stage.add_done(1);
}

void unlocked_by_a_stranger(TestClient &client)
{
    client.lock(0, 0, 10, 10);
    TestClient stranger("x.stranger");
    stranger.send_text("set_surface", "fb.culprit");
    stranger.send("unlock");
    EXPECT_TRUE(stranger.is_connected());
    client.send("unlock");
}

void no_descriptor(Stage &stage)
{
    const ServerLimit limit(stage.server(), RLIMIT_NOFILE, process_descriptors(stage.server()) + 1);
    stage.in_process([] {
        TestClient client("fb.last");
        client.create({.x = 5, .y = 5, .width = 40, .height = 30, .level = 1});
        EXPECT_FALSE(client.is_connected());
    });
    stage.expect_end(ABORTED);
    stage.add_done(1);
}

void no_second_layer(Stage &stage)
{
    stage.in_process([] {
        TestClient client("fb2.client");
        client.create({.x = 5, .y = 5, .width = 40, .height = 30, .level = 1});
        EXPECT_FALSE(client.is_connected());
    });
    stage.expect_end(ABORTED);
    stage.add_done(1);
}

void no_device(Stage &stage)
{
    for (int i = 0; i < 3; i++) {
        stage.in_process([] {
            TestClient client("fb.client");
            client.create({.x = 5, .y = 5, .width = 40, .height = 30, .level = 1});
            EXPECT_FALSE(client.is_connected());
        });
        stage.expect_end(ABORTED);
        stage.done()++;
    }
    EXPECT_EQ(count_of(stage.err(), "fb_init: Assertion `0' failed."), 3u) << stage.err();
    stage.stop_server();
}

// Its socket and lock stay behind, and are taken over.
void killed(Stage &stage)
{
    for (int i = 0; i < 3; i++) {
        kill(stage.server(), SIGKILL);
        stage.expect_end(128 + SIGKILL);
        stage.done()++;
    }
}

} // namespace

std::vector<Misbehaviour> end_rows()
{
    const char *const ends = "**the server ends**; it is started again, and clients of libpfb come back";
    const std::string counter = "fs_set_unlock: Assertion `surface->lock_counter >= 0' failed.";
    const std::string create = "create: Assertion `0' failed.";
    return {
        {"ServerKilled",
         "the server is killed; its socket and lock stay behind",
         "the next one takes them over, and clients of libpfb come back",
         "times",
         {},
         killed},
        {"MissingMemory",
         "\"create\" with a memory that does not exist or may not be opened",
         ends,
         "times",
         {times(1, "shm_open: No such file or directory"), times(1, create)},
         missing_memory},
        {"OddMemoryNames",
         "\"create\" with a name of slashes, dots or nothing",
         ends,
         "times",
         {times(2, "shm_open: "), times(2, create)},
         odd_memory_names},
        {"LongMemoryName",
         "\"create\" with a name of 4 KiB",
         ends,
         "times",
         {times(1, "shm_open: "), times(1, create)},
         long_memory_name},
        {"UnmappedMemory",
         "\"create\" with a memory that cannot be mapped",
         ends,
         "times",
         {times(1, "mmap: Invalid argument"), times(1, create)},
         mistake_of_one<unmapped>},
        {"NoDescriptor",
         "\"create\" when the server has no descriptor left",
         ends,
         "times",
         {times(1, "shm_open: Too many open files"), times(1, create)},
         no_descriptor},
        {"ResizeToNothing",
         "\"resize\" to nothing or less",
         ends,
         "times",
         {times(1, "fs_resize_surface: Assertion `w > 0' failed.")},
         mistake_of_one<resize>},
        {"UnlockWithoutLock", "\"unlock\" without a lock", ends, "times", {times(1, counter)}, mistake_of_one<unlock>},
        {"UnlockedByAStranger",
         "\"unlock\" after somebody else has given the lock back",
         ends,
         "times",
         {times(1, counter)},
         mistake_of_one<unlocked_by_a_stranger>},
        {"BlockAndUnlock",
         "\"block_until_unlock\" and \"unlock\" without a lock between them",
         ends,
         "times",
         {times(1, counter)},
         mistake_of_one<block_and_unlock>},
        {"DeathWhileBlocking",
         "a hang-up, or a kill, between \"block_until_unlock\" and \"unlock\"",
         ends,
         "times",
         {times(2, counter)},
         death_while_blocking},
        {"RectangleThatWraps",
         "a place and size whose sum wraps",
         ends,
         "times",
         {times(1, "fs_crop_area: Assertion `rect->x2 >= rect->x1' failed.")},
         mistake_of_one<wrap>},
        {"Rotation45",
         "a rotation other than 0, 90, 180, 270",
         ends,
         "times",
         {times(1, "fs_rotate_display: Assertion `0' failed.")},
         mistake_of_one<rotation_45>},
        {"Rotation180",
         "180 degrees, on 16 and 18 bits",
         ends,
         "times",
         {times(1, "No render function: src depth: 32 dst depth: 16"), times(1, "image_render: Assertion `0' failed.")},
         rotation_180,
         {.format = "rgb565"}},
        {"NoSecondLayer",
         "a surface for the second layer, where there is none",
         ends,
         "times",
         {times(1, "can't open fb2 device: No such file or directory"),
          times(1, "qarno_fb2_init: Assertion `0' failed.")},
         no_second_layer},
        {"NoScreen",
         "a surface, where there is no framebuffer",
         "**the server ends**, each time",
         "times",
         {},
         no_device,
         {.panel = {"--fault", "fb0-none"}, .bystander = false}},
        {"NoConsole",
         "a surface, where there is no console",
         "**the server ends**, each time",
         "times",
         {},
         no_device,
         {.panel = {"--fault", "tty0-none"}, .bystander = false}},
    };
}
