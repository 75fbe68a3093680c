// SPDX-License-Identifier: MIT
// Clients flood, hang and send nonsense. Each request has its stated answer, and the others' picture stays as it is.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../support/raw_client.h"
#include "../support/scenery.h"

namespace {

constexpr int WIDTH = SCENERY_WIDTH;
constexpr int HEIGHT = SCENERY_HEIGHT;

} // namespace

TEST(BadInput, WordsThatNobodyKnows)
{
    Scenery scenery;
    TestClient client("fb.odd");
    for (const char *word : {"", "SHOW", "shows", "sho", "show ", "explode"}) {
        client.send(word);
        client.send(word, {1, 2, 3, 4});
    }
    EXPECT_TRUE(client.is_connected());
    const std::string before = scenery.server.out();
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.out(), before);
    EXPECT_EQ(count_of(before, "not yet create surface"), 0u) << "the selected surface exists: nothing to say";
    EXPECT_EQ(scenery.server.err(), "");
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

// One argument too few, or one of another kind, and the request does nothing. The words without arguments take any.
TEST(BadInput, WrongArgumentsOfEveryWord)
{
    Scenery scenery;
    const std::pair<const char *, size_t> words[] = {{"lock_area", 4},   {"dirty", 4},           {"move", 2},
                                                     {"resize", 2},      {"set_layer", 1},       {"opaque_area", 4},
                                                     {"color_plane", 1}, {"set_clip", 4},        {"set_scale", 8},
                                                     {"set_sync", 1},    {"set_color_format", 1}};
    for (const auto &[word, count] : words) {
        for (size_t n = 0; n < count; n++) {
            mc_packet *packet = mc_packet_new_command(word);
            for (size_t i = 0; i < n; i++)
                mc_packet_build_args(packet, "i", 5);
            mc_packet_build_args(packet, "s", "five");
            mc_connection *connection = mc_connect("pfb", "fb.odd"); // speaks for the surface at the bottom
            ASSERT_NE(connection, nullptr);
            EXPECT_EQ(mc_send(connection, packet), 0);
            mc_packet *question = mc_packet_new_command("get_native_color_depth");
            mc_packet *answer = mc_call(connection, question, WAIT_SECONDS * 1000);
            ASSERT_NE(answer, nullptr) << word;
            EXPECT_STREQ(mc_packet_signature(answer), "i") << word;
            for (mc_packet *each : {packet, question, answer})
                mc_packet_free(each);
            mc_close(connection);
        }
    }
    scenery.glass.send("set_surface", {7}); // wants a string
    TestClient client("fb.odd");
    client.send("hide", {1, 2}); // the surface at the bottom, which is shown again right after
    client.native_depth();
    client.send("show", {1, 2});
    client.native_depth();
    scenery.expect_unchanged();
    EXPECT_EQ(count_of(scenery.server.out(), "\n"), 9u)
        << "nothing is said about any of them: " << scenery.server.out();
    EXPECT_EQ(scenery.server.err(), "");
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

// "create" alone does not count its arguments; what is missing reads as a surface without a size.
TEST(BadInput, CreateWithoutItsArguments)
{
    Scenery scenery;
    TestClient client("fb.odd");
    client.send("create");
    client.send("create", {1, 32, 0, 0});
    EXPECT_TRUE(client.is_connected());
    scenery.expect_unchanged();
    EXPECT_EQ(count_of(scenery.server.out(), "Invalid pfb width/height ("), 2u) << scenery.server.out();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(BadInput, PacketsThatDoNotDecodeCloseTheirConnection)
{
    Scenery scenery;
    const std::string nonsense[] = {
        std::string("\0", 1),                             // ends inside the serial number
        std::string("\0\0\0\0show", 8),                   // a word without an end
        std::string("\0\0\0\0dirty\0iiii\0\0\0\0\0", 20), // arguments announced that are not there
        std::string("\0\0\0\0show\0\0\0\0garbage!", 20),  // and the other way round
        std::string("\0\0\0\0move\0zz\0\0", 12),          // letters that are no type
        std::string(5000, 'a'),                           // longer than a packet may be
        std::string(""),                                  // an empty datagram
    };
    size_t faults = 0;
    for (const std::string &bytes : nonsense) {
        RawClient client(scenery.server.socket_path());
        client.greet("fb.raw");
        client.send_bytes(bytes);
        EXPECT_TRUE(client.is_dropped()) << faults;
        faults++;
        EXPECT_TRUE(wait_until([&] { return lines_of(scenery.server.err()).size() >= faults; }));
    }
    scenery.expect_unchanged();
    EXPECT_EQ(lines_of(scenery.server.err()).size(), faults) << scenery.server.err();
    EXPECT_EQ(count_of(scenery.server.err(), "dropped client \"fb.raw\""), faults) << scenery.server.err();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(BadInput, GreetingsThatAreNone)
{
    Scenery scenery;
    const std::string greetings[] = {
        std::string("\0\0\0\0show\0\0\0\0", 12),                   // no greeting at all
        RawClient::greeting(std::string(MC_NAME_MAX + 1, 'n')),    // too long a name
        std::string("\0\0\0\0connect\0is\0\0\7\0\0\0n\0\0\0", 24), // another version
        std::string("\0\0\0\0connect\0i\0\0\0\1\0\0\0", 20),       // no name
    };
    size_t faults = 0;
    for (const std::string &bytes : greetings) {
        RawClient client(scenery.server.socket_path());
        client.send_bytes(bytes);
        EXPECT_TRUE(client.is_dropped()) << faults;
        faults++;
        EXPECT_TRUE(wait_until([&] { return lines_of(scenery.server.err()).size() >= faults; }));
    }
    EXPECT_EQ(lines_of(scenery.server.err()).size(), faults) << scenery.server.err();
    RawClient longest(scenery.server.socket_path());
    longest.greet("fb." + std::string(MC_NAME_MAX - 3, 'n'));
    longest.send_bytes(std::string("\0\0\0\0status\0\0", 12));
    EXPECT_TRUE(wait_until([&] { return count_of(scenery.server.out(), "# of surface: 2\n") > 0; }));
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(BadInput, AConnectionThatNeverGreetsIsDropped)
{
    Scenery scenery;
    RawClient silent(scenery.server.socket_path());
    EXPECT_TRUE(silent.is_dropped());
    scenery.expect_unchanged();
    EXPECT_EQ(lines_of(scenery.server.err()).size(), 1u) << scenery.server.err();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(BadInput, ASecondCreateReplacesTheFirstOnItsConnection)
{
    Scenery scenery;
    const Pixels first = pixels_random(PixelFormat::XRGB, 30, 30, 7);
    const Pixels second = pixels_random(PixelFormat::XRGB, 30, 30, 8);
    {
        TestClient client("fb.twice");
        client.create(first, 100, 80, 3);
        client.native_depth();
        client.create(second, 5, 5, 3);
        client.send("show");
        PictureComposer with(WIDTH, HEIGHT);
        with.draw(pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 1), 0, 0);
        with.draw(second, 5, 5);
        with.draw(pixels_random(PixelFormat::ARGB, 60, 50, 2), 30, 20);
        EXPECT_EQ(panel_shows(scenery.server.panel(), with.picture(32)), "") << "requests reach the second surface";
        client.send("status");
        client.native_depth();
        EXPECT_EQ(count_of(scenery.server.out(), "# of surface: 4\n"), 1u) << scenery.server.out();
    }
    EXPECT_EQ(panel_shows(scenery.server.panel(), scenery.composer.picture(32)), "");
    scenery.background.send("status");
    scenery.background.native_depth();
    EXPECT_EQ(count_of(scenery.server.out(), "# of surface: 3\n"), 1u)
        << "the first one stays: " << scenery.server.out();
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(BadInput, CreatesThatAreRefused)
{
    Scenery scenery;
    struct Refusal {
        SurfaceRequest request;
        const char *line;
    };
    const Refusal refusals[] = {
        {{.width = 0, .height = 7, .bytes = 100}, "Invalid pfb width/height (0/7)\n"},
        {{.width = 7, .height = -2, .bytes = 100}, "Invalid pfb width/height (7/-2)\n"},
        {{.width = 7, .height = 7, .depth = 24, .alpha = 1},
         "unsupported color depth&alpha combination:depth=24 alpha=1\n"},
        {{.width = 7, .height = 7, .depth = 0}, "unsupported color depth&alpha combination:depth=0 alpha=0\n"},
    };
    for (const Refusal &refusal : refusals) {
        TestClient client("fb.refused");
        client.create(refusal.request);
        client.native_depth();
        EXPECT_EQ(count_of(scenery.server.out(), refusal.line), 1u) << refusal.line;
        client.send("status");
        client.native_depth();
    }
    EXPECT_EQ(count_of(scenery.server.out(), "# of surface: 2\n"), 4u);
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

TEST(BadInput, MemoryThatIsTooSmallOrVanishes)
{
    Scenery scenery;
    TestClient small("fb.small"), cut("fb.cut"), odd("fb.odd");
    small.create({.x = 0, .y = 0, .width = 100, .height = 100, .level = 1, .stride = 8, .bytes = 800});
    small.send("show");
    odd.create({.x = 0, .y = 0, .width = 50, .height = 50, .level = 2, .stride = 200, .bytes = 1});
    odd.send("show"); // one page exists of what it claims
    small.settle();
    odd.settle();
    const Pixels pixels = pixels_random(PixelFormat::XRGB, 50, 40, 9);
    ClientProcess process([&](ClientSteps &steps) {
        TestClient client("fb.cut");
        const std::string name = unused_shared_memory_name();
        const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        EXPECT_EQ(ftruncate(fd, 50 * 40 * 4), 0);
        mc_packet *packet = mc_packet_new_command("create");
        mc_packet_build_args(packet, "iiiiiiiiis", 0, 32, 100, 70, 50, 40, 200, 3, 0, name.c_str());
        mc_connection *connection = mc_connect("pfb", "fb.truncating");
        mc_send(connection, packet);
        mc_send(connection, mc_packet_new_command("show"));
        mc_packet_free(mc_call(connection, mc_packet_new_command("get_native_color_depth"), WAIT_SECONDS * 1000));
        EXPECT_EQ(ftruncate(fd, 0), 0);
        mc_send(connection, mc_packet_new_command("hide"));
        mc_send(connection, mc_packet_new_command("show"));
        mc_packet *answer = mc_call(connection, mc_packet_new_command("get_native_color_depth"), WAIT_SECONDS * 1000);
        EXPECT_NE(answer, nullptr);
        client.native_depth();
        client.settle();
        steps.reached();
    });
    process.wait();
    process.go();
    EXPECT_EQ(process.join(), 0);
    small.hang_up();
    odd.hang_up();
    EXPECT_EQ(panel_shows(scenery.server.panel(), scenery.composer.picture(32)), "");
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

// A client that asks and never reads the answers is dropped; the others do not notice.
TEST(BadInput, AClientThatDoesNotReadItsAnswers)
{
    Scenery scenery;
    RawClient deaf(scenery.server.socket_path());
    deaf.greet("fb.deaf");
    const std::string question("\0\0\0\0get_native_color_depth\0\0", 28);
    EXPECT_TRUE(wait_until([&] {
        ssize_t n = 0;
        for (int i = 0; i < 1000 && n >= 0; i++)
            n = ::send(deaf.fd(), question.data(), question.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return n < 0 && errno != EAGAIN;
    }));
    EXPECT_TRUE(wait_until([&] { return count_of(scenery.server.err(), "does not read its replies") == 1; }))
        << scenery.server.err();
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}

// Requests without end from one client: another one's are handled and drawn all the same.
TEST(BadInput, AFloodDoesNotStopTheOthers)
{
    Scenery scenery;
    ClientProcess flood([](ClientSteps &) {
        TestClient client("fb.flood");
        for (;;)
            client.send("nonsense", {1, 2, 3});
    });
    for (int i = 0; i < 20; i++) {
        scenery.glass.send("move", {30 + i, 20});
        scenery.glass.native_depth();
    }
    scenery.glass.send("move", {30, 20});
    EXPECT_EQ(panel_shows(scenery.server.panel(), scenery.composer.picture(32)), "");
    flood.kill(SIGKILL);
    flood.join();
    scenery.expect_unchanged();
    EXPECT_EQ(scenery.server.stop(SIGTERM), 0);
}
