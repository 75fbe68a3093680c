// SPDX-License-Identifier: MIT
// The requests and devices that end the server, on the real program: message, assertion, file, function and signal.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "../support/running_server.h"
#include "../support/test_client.h"

namespace {

struct Death {
    const char *before; // a line before the assertion, "" for none
    const char *file;   // where it stands: a path, or the folder of one
    const char *function;
    const char *expression;
};

// Not below /dev: a device that the panel does not stand in for is the machine's own.
const char *const NO_DEVICE = "/nonexistent/device";

const Pixels SOME_PIXELS = pixels_photograph(PixelFormat::XRGB, 40, 30, 1);

// The assertion is the last line of the log, in the form of the C library's.
void expect_death(RunningServer &server, const Death &death)
{
    EXPECT_EQ(server.stop(0), 128 + SIGABRT);
    std::vector<std::string> lines = lines_of(server.err());
    ASSERT_FALSE(lines.empty());
    const std::string last = lines.back();
    lines.pop_back();
    const std::string start = std::string("fbserver: ") + death.file;
    EXPECT_EQ(last.substr(0, start.size()), start);
    const std::string end = std::string(": ") + death.function + ": Assertion `" + death.expression + "' failed.";
    ASSERT_GE(last.size(), start.size() + end.size()) << last;
    EXPECT_EQ(last.substr(last.size() - end.size()), end);
    const std::string line = last.substr(0, last.size() - end.size());
    EXPECT_LT(line.find_last_not_of("0123456789"), line.size() - 1) << "no line number: " << last;
    const std::vector<std::string> expected =
        *death.before != '\0' ? std::vector<std::string>{death.before} : std::vector<std::string>{};
    EXPECT_EQ(lines, expected);
}

void expect_death_by(const std::function<void(TestClient &)> &client, const Death &death,
                     const ServerOptions &options = {})
{
    RunningServer server(options);
    TestClient bystander("x.bystander");
    bystander.create(SOME_PIXELS, 0, 0, -5);
    bystander.native_depth();
    TestClient culprit("fb.culprit");
    client(culprit);
    expect_death(server, death);
    EXPECT_FALSE(bystander.is_connected());
}

void create(TestClient &client)
{
    client.create(SOME_PIXELS, 5, 5, 0);
    client.native_depth();
}

std::string message(const char *what, int error)
{
    return std::string(what) + ": " + strerror(error);
}

} // namespace

TEST(Abort, CreateWithAMissingObject)
{
    const std::string name = unused_shared_memory_name();
    expect_death_by(
        [&](TestClient &) {
            mc_connection *connection = mc_connect("pfb", "fb.culprit");
            mc_packet *packet = mc_packet_new_command("create");
            mc_packet_build_args(packet, "iiiiiiiiis", 0, 32, 0, 0, 10, 10, 40, 0, 0, name.c_str());
            mc_send(connection, packet);
            mc_packet_free(packet);
            mc_close(connection);
        },
        {message("shm_open", ENOENT).c_str(), "src/fbserver/", "create", "0"});
}

TEST(Abort, CreateThatCannotBeMapped)
{
    expect_death_by([](TestClient &client) { client.create({.width = 10, .height = 10, .stride = -40}); },
                    {message("mmap", ENOMEM).c_str(), "src/fbserver/", "create", "0"});
    // 65536 x 65536 wraps to no byte at all
    expect_death_by(
        [](TestClient &client) { client.create({.width = 10, .height = 65536, .stride = 65536, .bytes = 4096}); },
        {message("mmap", EINVAL).c_str(), "src/fbserver/", "create", "0"});
}

TEST(Abort, ResizeToNothing)
{
    expect_death_by(
        [](TestClient &client) {
            create(client);
            client.send("resize", {0, 10});
        },
        {"", "src/composite/geometry.cpp:", "fs_resize_surface", "w > 0"});
    expect_death_by(
        [](TestClient &client) {
            create(client);
            client.send("resize", {10, -1});
        },
        {"", "src/composite/geometry.cpp:", "fs_resize_surface", "h > 0"});
}

TEST(Abort, UnlockWithoutALock)
{
    expect_death_by(
        [](TestClient &client) {
            create(client);
            client.send("unlock");
        },
        {"", "src/composite/damage.cpp:", "fs_set_unlock", "surface->lock_counter >= 0"});
}

TEST(Abort, BlockAndUnlockWithoutALockBetween)
{
    expect_death_by(
        [](TestClient &client) {
            create(client);
            client.send("block_until_unlock");
            client.send("unlock");
        },
        {"", "src/composite/damage.cpp:", "fs_set_unlock", "surface->lock_counter >= 0"});
}

TEST(Abort, HangUpWhileABlockIsOutstanding)
{
    expect_death_by(
        [](TestClient &client) {
            create(client);
            client.send("block_until_unlock");
            client.native_depth();
            client.hang_up();
        },
        {"", "src/composite/damage.cpp:", "fs_set_unlock", "surface->lock_counter >= 0"});
}

TEST(Abort, ARectangleThatWraps)
{
    expect_death_by(
        [](TestClient &client) {
            create(client);
            client.send("move", {INT32_MAX - 10, 0});
        },
        {"", "src/composite/geometry.cpp:", "fs_crop_area", "rect->x2 >= rect->x1"});
}

TEST(Abort, RotationOf45Degrees)
{
    RunningServer server;
    TestClient culprit("fb.culprit");
    culprit.create({.width = 40, .height = 30, .rotation = 45});
    expect_death(server, {"", "src/composite/rotation.cpp:", "fs_rotate_display", "0"});
    EXPECT_EQ(lines_of(server.out()).back(), "rot is not valid = 45") << "what it printed before is not lost";
}

// 180 degrees are accepted, and no converter to 16 bits knows them: the first picture ends the server.
TEST(Abort, RotationOf180DegreesOn16Bits)
{
    expect_death_by(
        [](TestClient &client) {
            client.create({.width = 40, .height = 30, .rotation = 180});
            client.send("show");
        },
        {"No render function: src depth: 32 dst depth: 16", "src/composite/image_render.cpp:", "image_render", "0"},
        {.format = "rgb565"});
}

TEST(Abort, NoFramebufferDevice)
{
    expect_death_by([](TestClient &client) { client.create(SOME_PIXELS, 0, 0, 0); },
                    {message("can't open fb device", ENOENT).c_str(), "src/backend/fb.cpp:", "fb_init", "0"},
                    {.panel = {"--fault", "fb0-none"}});
    expect_death_by([](TestClient &client) { client.create(SOME_PIXELS, 0, 0, 0); },
                    {message("can't open fb device", ENOENT).c_str(), "src/backend/fb.cpp:", "fb_init", "0"},
                    {.server = {"-fb", NO_DEVICE}});
}

TEST(Abort, NoConsole)
{
    expect_death_by(
        [](TestClient &client) { client.create(SOME_PIXELS, 0, 0, 0); },
        {message("can't open virtual console device", ENOENT).c_str(), "src/backend/fb.cpp:", "fb_init", "0"},
        {.panel = {"--fault", "tty0-none"}});
    expect_death_by(
        [](TestClient &client) { client.create(SOME_PIXELS, 0, 0, 0); },
        {message("can't open virtual console device", ENOENT).c_str(), "src/backend/fb.cpp:", "fb_init", "0"},
        {.server = {"-console", NO_DEVICE}});
}

// ---- devices that are there but do not work: no abort ----

TEST(Devices, TheOtherNamesAreTriedToo)
{
    RunningServer server({.panel = {"--fault", "fb0-other,tty0-other"}});
    TestClient client("fb.client");
    client.create(SOME_PIXELS, 0, 0, 0);
    client.send("show");
    EXPECT_EQ(client.native_depth(), 32);
    EXPECT_TRUE(wait_until([&] { return server.panel().raw(39, 29) == SOME_PIXELS.at(39, 29); }));
    EXPECT_TRUE(server.panel().console_in_graphics_mode());
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Devices, OneThatDoesNotWorkIsReportedAndTriedAgain)
{
    const std::pair<const char *, std::string> faults[] = {
        {"fb0-fix", message("FBIOGET_FSCREENINFO", EIO)},
        {"fb0-var", message("FBIOGET_VSCREENINFO", EIO)},
        {"fb0-mmap", message("mmap", ENODEV)},
        {"fb0-zero-width", message("framebuffer width is 0", ENODEV)},
    };
    for (const auto &[fault, text] : faults) {
        RunningServer server({.panel = {"--fault", fault}});
        for (int i = 1; i <= 3; i++) {
            TestClient client("fb.client");
            client.create(SOME_PIXELS, 0, 0, 0);
            client.send("show");
            EXPECT_EQ(client.native_depth(), 0) << fault;
            EXPECT_EQ(count_of(server.err(), text + "\ninit failed\n"), static_cast<size_t>(i)) << server.err();
        }
        EXPECT_EQ(count_of(server.out(), "screen info is"), 0u);
        EXPECT_EQ(server.stop(SIGTERM), 0);
    }
}

TEST(Devices, AConsoleThatKeepsItsModeIsNoReasonToStop)
{
    RunningServer server({.panel = {"--fault", "tty0-mode"}});
    TestClient client("fb.client");
    client.create(SOME_PIXELS, 0, 0, 0);
    client.send("show");
    EXPECT_TRUE(wait_until([&] { return server.panel().raw(39, 29) == SOME_PIXELS.at(39, 29); }));
    EXPECT_FALSE(server.panel().console_in_graphics_mode());
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_EQ(server.err(), "");
}
