// SPDX-License-Identifier: MIT
// pfb-vnc seen by a VNC client: the pictures that it gets, which parts of them are sent, and who gets none.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <rfb/rfbclient.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../support/test_client.h"
#include "ctl_support.h"

namespace {

constexpr int WIDTH = 160;
constexpr int HEIGHT = 120;
constexpr int WAIT_US = 20000;

// pfb-vnc on a port of its own.
class Mirror {
public:
    explicit Mirror(const RunningServer &server, const Words &options = {}) : file_(server.folder() + "/vnc")
    {
        Words words = {"--port", "0"};
        words.insert(words.end(), options.begin(), options.end());
        ProgramStart start = beside(server, from_build("PFB_TEST_VNC"), words);
        const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
        start.out_fd = start.err_fd = fd;
        pid_ = program_start(start);
        close(fd);
        EXPECT_TRUE(wait_until([&] { return count_of(out(), "\n") > 0; }));
        const std::string text = out();
        EXPECT_EQ(sscanf(text.c_str(), "viewers connect to %*[0-9.]:%d", &port_), 1) << text;
    }
    ~Mirror()
    {
        if (pid_ > 0) {
            EXPECT_EQ(end(SIGTERM), 0) << out();
        }
    }
    int end(int signal_number)
    {
        if (signal_number != 0)
            kill(pid_, signal_number);
        const int status = program_wait(pid_);
        pid_ = -1;
        EXPECT_EQ(sanitizer_report(out()), "") << out();
        return shell_status(status);
    }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string out() const { return file_text(file_); }

private:
    std::string file_;
    pid_t pid_ = -1;
    int port_ = 0;
};

struct Update {
    int x, y, width, height;
};

std::vector<Update> updates;
const char *password;

void note_update(rfbClient *, int x, int y, int width, int height)
{
    updates.push_back({x, y, width, height});
}

char *give_password(rfbClient *)
{
    return strdup(password != nullptr ? password : "");
}

void say_nothing(const char *, ...) {}

class Viewer {
public:
    explicit Viewer(int port, const char *its_password = nullptr) : client_(rfbGetClient(8, 3, 4))
    {
        rfbClientLog = rfbClientErr = say_nothing;
        password = its_password;
        updates.clear();
        free(client_->serverHost);
        client_->serverHost = strdup("127.0.0.1");
        client_->serverPort = port;
        client_->appData.encodingsString = "raw"; // no losses, and a rectangle as it was cut
        client_->GotFrameBufferUpdate = note_update;
        client_->GetPassword = give_password;
        if (!rfbInitClient(client_, nullptr, nullptr))
            client_ = nullptr; // the library has freed it
    }
    ~Viewer()
    {
        if (client_ == nullptr)
            return;
        free(client_->frameBuffer);
        rfbClientCleanup(client_);
    }
    Viewer(const Viewer &) = delete;
    Viewer &operator=(const Viewer &) = delete;

    bool is_connected() const { return client_ != nullptr; }
    // Takes what has come. False when the connection has ended.
    bool take()
    {
        const int n = WaitForMessage(client_, WAIT_US);
        return n == 0 || (n > 0 && HandleRFBServerMessage(client_));
    }
    Picture picture() const
    {
        Picture picture{client_->width, client_->height, {}};
        for (int i = 0; i < client_->width * client_->height; i++) {
            const uint8_t *p = client_->frameBuffer + 4 * i;
            picture.pixels.push_back(uint32_t{p[0]} << 16 | uint32_t{p[1]} << 8 | p[2]);
        }
        return picture;
    }
    bool sees(const Picture &expected)
    {
        return wait_until([&] { return take() && picture() == expected; });
    }

private:
    rfbClient *client_;
};

Picture panel_picture(const RunningServer &server)
{
    return widened(server.panel().picture(), server.panel().depth());
}

struct Photograph {
    explicit Photograph(uint32_t seed = 1) : client("fb.photograph")
    {
        client.create(pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, seed), 0, 0, 0);
        client.send("show");
        client.settle();
    }
    TestClient client;
};

std::string password_file(const RunningServer &server, const std::string &text, mode_t mode)
{
    const std::string file = server.folder() + "/password";
    std::ofstream(file) << text;
    chmod(file.c_str(), mode);
    return file;
}

// Addresses that a port is listened at, as the kernel's tables write them.
std::vector<std::string> listening_at(int port)
{
    std::vector<std::string> found;
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        for (const std::string &line : lines_of(file_text(table))) {
            char address[64], state[8];
            unsigned its_port = 0;
            if (sscanf(line.c_str(), " %*d: %63[0-9A-F]:%x %*s %7s", address, &its_port, state) == 3 &&
                static_cast<int>(its_port) == port && std::string(state) == "0A")
                found.emplace_back(address);
        }
    }
    return found;
}

} // namespace

TEST(Vnc, AViewerSeesThePanelOfEveryDepth)
{
    for (const auto &[format, stride] : {std::pair("rgb565", "400"), {"rgb666", "704"}, {"xrgb8888", "640"}}) {
        SCOPED_TRACE(format);
        RunningServer server({.format = format, .panel = {"--stride", stride}});
        const Photograph photograph;
        const Mirror mirror(server);
        Viewer viewer(mirror.port());
        ASSERT_TRUE(viewer.is_connected()) << mirror.out();
        EXPECT_TRUE(viewer.sees(panel_picture(server))) << picture_difference(viewer.picture(), panel_picture(server));
        EXPECT_EQ(server.stop(SIGTERM), 0);
    }
}

// A tile is 32 x 32 pixels.
TEST(Vnc, OnlyTheTileThatChangesIsSent)
{
    RunningServer server;
    Photograph photograph;
    const Mirror mirror(server);
    Viewer viewer(mirror.port());
    ASSERT_TRUE(viewer.is_connected()) << mirror.out();
    ASSERT_TRUE(viewer.sees(panel_picture(server)));
    updates.clear();
    const Picture before = panel_picture(server);
    photograph.client.draw(pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 2));
    photograph.client.send("dirty", {70, 40, 12, 9});
    photograph.client.settle();
    ASSERT_NE(panel_picture(server), before);
    EXPECT_TRUE(viewer.sees(panel_picture(server)));
    ASSERT_FALSE(updates.empty());
    for (const Update &update : updates) {
        EXPECT_GE(update.x, 64);
        EXPECT_GE(update.y, 32);
        EXPECT_LE(update.x + update.width, 96);
        EXPECT_LE(update.y + update.height, 64);
    }
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Vnc, APlaceAtTheEdgeIsATileOfItsOwn)
{
    RunningServer server({.size = "150x101"});
    TestClient client("fb.edge");
    client.create(pixels_photograph(PixelFormat::XRGB, 150, 101, 1), 0, 0, 0);
    client.send("show");
    client.settle();
    const Mirror mirror(server);
    Viewer viewer(mirror.port());
    ASSERT_TRUE(viewer.is_connected()) << mirror.out();
    ASSERT_TRUE(viewer.sees(panel_picture(server)));
    updates.clear();
    client.draw(pixels_photograph(PixelFormat::XRGB, 150, 101, 2));
    client.send("dirty", {149, 100, 1, 1});
    client.settle();
    EXPECT_TRUE(viewer.sees(panel_picture(server)));
    ASSERT_FALSE(updates.empty());
    for (const Update &update : updates) {
        EXPECT_GE(update.x, 128);
        EXPECT_GE(update.y, 96);
    }
    client.hang_up();
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Vnc, APasswordIsAskedFor)
{
    RunningServer server;
    const Photograph photograph;
    const Mirror mirror(server, {"--password-file", password_file(server, "tea4two\nmore\n", 0600)});
    EXPECT_FALSE(Viewer(mirror.port(), "tea4one").is_connected());
    EXPECT_FALSE(Viewer(mirror.port(), "t").is_connected());
    Viewer viewer(mirror.port(), "tea4two");
    ASSERT_TRUE(viewer.is_connected()) << mirror.out();
    EXPECT_TRUE(viewer.sees(panel_picture(server)));
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Vnc, OtherMachinesReachItOnlyWithAPassword)
{
    RunningServer server;
    const auto run = [&](const Words &words) {
        ProgramResult result = program_run(beside(server, from_build("PFB_TEST_VNC"), words));
        return std::pair(shell_status(result.status), result.err);
    };
    EXPECT_EQ(run({"--listen", "0.0.0.0"}),
              std::pair(2, std::string("pfb-vnc: other machines can reach 0.0.0.0: a --password-file is required\n")));
    EXPECT_EQ(run({"--listen", "all"}),
              std::pair(2, std::string("pfb-vnc: --listen: all is no IPv4 address such as 192.168.1.20\n")));
    const std::string file = password_file(server, "tea4two", 0644);
    EXPECT_EQ(run({"--listen", "0.0.0.0", "--password-file", file}),
              std::pair(1, "pfb-vnc: " + file + ": other users may read it; chmod 600 it\n"));
    password_file(server, "\n", 0600);
    EXPECT_EQ(run({"--password-file", file}),
              std::pair(1, "pfb-vnc: " + file + ": its first line has to be a password of 1 to 8 bytes\n"));
    password_file(server, "tea4twomore", 0600);
    EXPECT_EQ(run({"--password-file", file}).first, 1);
    EXPECT_EQ(run({"--password-file", server.folder() + "/none"}).first, 1);
    {
        const Mirror loopback(server);
        EXPECT_EQ(listening_at(loopback.port()), std::vector<std::string>{"0100007F"});
    }
    password_file(server, "tea4two", 0600);
    const Mirror everywhere(server, {"--listen", "0.0.0.0", "--password-file", file});
    EXPECT_EQ(listening_at(everywhere.port()), std::vector<std::string>{"00000000"});
    EXPECT_FALSE(Viewer(everywhere.port(), "coffee").is_connected());
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Vnc, ItSleepsWhileNobodyViews)
{
    RunningServer server;
    Photograph photograph;
    const Mirror mirror(server);
    const auto is_idle = [&] {
        const long before = process_switches(mirror.pid());
        for (int i = 0; i < 40; i++) {
            photograph.client.send("dirty", {0, 0, 50, 50});
            photograph.client.settle();
            usleep(5000);
        }
        return process_switches(mirror.pid()) == before && process_sleeps(mirror.pid());
    };
    EXPECT_TRUE(wait_until(is_idle)) << "before the first viewer";
    {
        Viewer viewer(mirror.port());
        ASSERT_TRUE(viewer.is_connected());
        EXPECT_TRUE(viewer.sees(panel_picture(server)));
        EXPECT_FALSE(is_idle()) << "the measure finds nothing";
    }
    EXPECT_TRUE(wait_until(is_idle)) << "after the last one";
    // What changed meanwhile is in the next viewer's first picture.
    photograph.client.draw(pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 3));
    photograph.client.send("dirty", {0, 0, WIDTH, HEIGHT});
    photograph.client.settle();
    Viewer viewer(mirror.port());
    ASSERT_TRUE(viewer.is_connected());
    EXPECT_TRUE(viewer.sees(panel_picture(server)));
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Vnc, ItEndsWithThePanel)
{
    RunningServer server;
    const Photograph photograph;
    Mirror mirror(server);
    Viewer viewer(mirror.port());
    ASSERT_TRUE(viewer.is_connected());
    const std::string panel = server.panel_folder();
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_TRUE(wait_until([&] { return !viewer.take(); }));
    EXPECT_EQ(mirror.end(0), 1);
    EXPECT_EQ(count_of(mirror.out(), "pfb-vnc: the panel " + panel + " has ended\n"), 1u) << mirror.out();
}

TEST(Vnc, APortInUseIsNamed)
{
    RunningServer server;
    const Mirror mirror(server);
    const std::string port = std::to_string(mirror.port());
    const ProgramResult result = program_run(beside(server, from_build("PFB_TEST_VNC"), {"--port", port}));
    EXPECT_EQ(shell_status(result.status), 1);
    EXPECT_EQ(result.err, "pfb-vnc: cannot listen at 127.0.0.1 port " + port + ": is it in use?\n");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
