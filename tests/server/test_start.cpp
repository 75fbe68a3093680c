// SPDX-License-Identifier: MIT
// Start-up and end of the real program: every option, message, stream and exit status.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

#include "../support/composer.h"
#include "../support/running_server.h"
#include "../support/test_client.h"

namespace {

constexpr int START_ERROR = 255;

ProgramResult run(const std::vector<std::string> &arguments)
{
    const TemporaryFolder folder;
    ProgramStart start;
    start.words = {server_program()};
    start.words.insert(start.words.end(), arguments.begin(), arguments.end());
    start.environment = server_environment(folder.path());
    const ProgramResult result = program_run(start);
    EXPECT_EQ(sanitizer_report(result.err), "");
    EXPECT_EQ(folder_entries(folder.path()).size(), 0u) << "a server that did not start left something behind";
    return result;
}

std::string summary(const char *w, const char *h, const char *use_input, const char *fb, const char *console,
                    const char *scale)
{
    return std::string("option is \n\t w = ") + w + " h = " + h + " use_input = " + use_input + "\n\t fb = " + fb +
           "\n\t console = " + console + "\n\t scale = " + scale + "\n";
}

// The words are accepted: the program goes through its start and stops where the benchmark does.
void expect_summary(std::vector<std::string> arguments, const std::string &expected)
{
    arguments.insert(arguments.begin(), "-benchmark");
    const ProgramResult result = run(arguments);
    EXPECT_EQ(shell_status(result.status), 0);
    EXPECT_EQ(result.out, expected);
    EXPECT_EQ(result.err, "");
}

std::string scale_message()
{
    return "output scale must be bigger than 1\n";
}

} // namespace

TEST(Options, WithoutAnyEverythingHasItsDefault)
{
    expect_summary({}, summary("-1", "-1", "0", "(null)", "(null)", "1"));
}

TEST(Options, EachOneShowsInTheSummary)
{
    expect_summary(
        {"-fb", "/nonexistent/fb7", "-console", "/nonexistent/tty9", "-use-input", "-scale", "3", "640", "480", "1"},
        summary("640", "480", "1", "/nonexistent/fb7", "/nonexistent/tty9", "3"));
    expect_summary({"-send-event", "10.0.0.1", "320"}, summary("320", "-1", "0", "(null)", "(null)", "1"));
    expect_summary({"800", "-use-input", "600"}, summary("800", "600", "1", "(null)", "(null)", "1"));
    expect_summary({"-fb", "a", "-fb", "b"}, summary("-1", "-1", "0", "b", "(null)", "1"));
}

TEST(Options, UnknownWordsArePositional)
{
    expect_summary({"-fbx", "-what"}, summary("0", "0", "0", "(null)", "(null)", "1"));
    expect_summary({"320x240", "12monkeys"}, summary("320", "12", "0", "(null)", "(null)", "1"));
    expect_summary({"", "-7"}, summary("0", "-7", "0", "(null)", "(null)", "1"));
    expect_summary({"0x20", "010"}, summary("0", "10", "0", "(null)", "(null)", "1"));
}

TEST(Options, ThreePositionalWordsAreTakenAndTheFourthIsNot)
{
    expect_summary({"1", "2", "3"}, summary("1", "2", "0", "(null)", "(null)", "1"));
    const ProgramResult result = run({"1", "2", "3", "4"});
    EXPECT_EQ(shell_status(result.status), START_ERROR);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "USAGE:" + server_program() + " [-console DEVICE] [-fb DEVICE] [W [H[USE_X(EMUL)]]]\n");
}

TEST(Options, AnOptionAsTheLastWordHasNoValue)
{
    expect_summary({"-console"}, summary("-1", "-1", "0", "(null)", "(null)", "1"));
    expect_summary({"-fb"}, summary("-1", "-1", "0", "(null)", "(null)", "1"));
    expect_summary({"-fb", "a", "-fb"}, summary("-1", "-1", "0", "(null)", "(null)", "1"));
    expect_summary({"-send-event"}, summary("-1", "-1", "0", "(null)", "(null)", "1"));
    const ProgramResult result = run({"-scale"});
    EXPECT_EQ(shell_status(result.status), START_ERROR);
    EXPECT_EQ(result.out, summary("-1", "-1", "0", "(null)", "(null)", "0") + scale_message());
    EXPECT_EQ(result.err, "");
}

TEST(Options, AnOptionTakesTheNextWordWhateverItIs)
{
    expect_summary({"-fb", "-console", "5"}, summary("5", "-1", "0", "-console", "(null)", "1"));
    const ProgramResult result = run({"-console", "-benchmark", "-scale", "0"});
    EXPECT_EQ(result.out, summary("-1", "-1", "0", "(null)", "-benchmark", "0") + scale_message());
}

TEST(Options, TheScaleMustBeOneAtLeast)
{
    for (const char *scale : {"0", "-1", "many", ""}) {
        const ProgramResult result = run({"-benchmark", "-scale", scale});
        EXPECT_EQ(shell_status(result.status), START_ERROR) << scale;
        const char *number = strcmp(scale, "-1") == 0 ? "-1" : "0";
        EXPECT_EQ(result.out, summary("-1", "-1", "0", "(null)", "(null)", number) + scale_message());
        EXPECT_EQ(result.err, "");
    }
    expect_summary({"-scale", "1"}, summary("-1", "-1", "0", "(null)", "(null)", "1"));
    expect_summary({"-scale", "2"}, summary("-1", "-1", "0", "(null)", "(null)", "2"));
}

// ---- the end ----

namespace {

void expect_clean_end(int signal_number)
{
    const Pixels pixels = pixels_photograph(PixelFormat::XRGB, 160, 120, 1);
    RunningServer server;
    EXPECT_FALSE(server.panel().console_in_graphics_mode()) << "nothing is opened before a surface asks for it";
    TestClient client("fb.photograph");
    client.create(pixels, 0, 0, 0);
    client.send("show");
    PictureComposer composer(160, 120);
    composer.draw(pixels, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");
    EXPECT_TRUE(server.panel().console_in_graphics_mode());
    EXPECT_EQ(server.stop(signal_number), 0);
    EXPECT_TRUE(server.panel().is_black());
    EXPECT_TRUE(server.panel().console_in_graphics_mode()) << "the text console stays hidden";
    EXPECT_FALSE(file_exists(server.socket_path()));
    EXPECT_FALSE(file_exists(server.socket_path() + ".lock"));
    EXPECT_EQ(server.err(), "");
    EXPECT_EQ(server.out(), summary("-1", "-1", "0", "(null)", "(null)", "1") +
                                "screen info is\nwidth = 160 height = 120 depth = 32 stride = 640\n"
                                "colormask = red:00ff0000, green:0000ff00, blue:000000ff, alpha:00000000, "
                                "has_alph = 0\npixel unit: 4 bytes, byte order: LSB\n");
}

} // namespace

TEST(End, SigtermLeavesABlackPanelAndStatusZero)
{
    expect_clean_end(SIGTERM);
}

TEST(End, SigintLeavesABlackPanelAndStatusZero)
{
    expect_clean_end(SIGINT);
}

TEST(End, WhileTheRenderLockIsHeld)
{
    RunningServer server;
    TestClient client("fb.client");
    client.create(pixels_photograph(PixelFormat::XRGB, 160, 120, 1), 0, 0, 0);
    client.send("show");
    client.lock(0, 0, 10, 10);
    EXPECT_EQ(server.stop(SIGTERM), 0);
    EXPECT_TRUE(server.panel().is_black());
}

// From the first instruction on, whenever the signal comes: the program ends, by the signal's default action before it
// is caught and with status 0 afterwards. Until it ends there are more: one that comes before the main loop exists is
// reported and ignored.
TEST(End, SignalsAtAnyMomentOfTheStart)
{
    std::mt19937 random(20);
    const TemporaryFolder folder;
    int orderly = 0;
    for (int i = 0; i < 200; i++) {
        ProgramStart start;
        start.words = {server_program()};
        start.environment = server_environment(folder.path());
        Pipe err;
        start.err_fd = err.write_end();
        const pid_t pid = program_start(start);
        usleep(static_cast<useconds_t>(random() % 12000));
        int status = 0;
        ASSERT_TRUE(wait_until([&] {
            kill(pid, random() % 2 == 0 ? SIGTERM : SIGINT);
            return waitpid(pid, &status, WNOHANG) == pid;
        })) << "round "
            << i;
        const int ended = shell_status(status);
        EXPECT_TRUE(ended == 0 || ended == 128 + SIGTERM || ended == 128 + SIGINT)
            << "round " << i << ": " << ended << "\n"
            << err.text();
        orderly += ended == 0;
    }
    EXPECT_GT(orderly, 0) << "no signal came after the start";
}

// One signal is enough once the first request is answered.
TEST(End, OneSignalAsSoonAsTheServiceWorks)
{
    for (int i = 0; i < 30; i++) {
        RunningServer server;
        TestClient client("x.first");
        client.create(pixels_new(PixelFormat::XRGB, 1, 1), 0, 0, 0);
        client.native_depth();
        EXPECT_EQ(server.stop(i % 2 == 0 ? SIGTERM : SIGINT), 0) << "round " << i;
    }
}

namespace {

// A client that keeps the server busy until it goes.
void busy_client(ClientSteps &steps, uint32_t seed)
{
    TestClient client("fb.busy" + std::to_string(seed));
    client.create(pixels_random(PixelFormat::ARGB, 100, 80, seed), static_cast<int>(seed) * 7, 10, 0);
    client.send("show");
    steps.reached();
    int x = 0;
    while (client.is_connected()) {
        client.send("move", {++x % 60, x % 40});
        client.send("dirty", {0, 0, 50, 50});
        client.send("status");
    }
}

} // namespace

TEST(End, SignalsUnderLoad)
{
    std::mt19937 random(21);
    for (int i = 0; i < 20; i++) {
        RunningServer server;
        TestClient background("fb.background");
        background.create(pixels_photograph(PixelFormat::XRGB, 160, 120, 1), 0, 0, -1);
        background.send("show");
        background.native_depth();
        ClientProcess busy([](ClientSteps &steps) { busy_client(steps, 1); });
        ClientProcess busy_too([](ClientSteps &steps) { busy_client(steps, 2); });
        for (ClientProcess *process : {&busy, &busy_too}) {
            process->wait();
            process->go();
        }
        usleep(static_cast<useconds_t>(random() % 20000));
        for (auto n = random() % 5; n > 0; n--)
            kill(server.pid(), n % 2 == 0 ? SIGTERM : SIGINT);
        EXPECT_EQ(server.stop(SIGTERM), 0) << "round " << i;
        EXPECT_TRUE(server.panel().is_black()) << "round " << i;
        EXPECT_EQ(busy.join(), 0);
        EXPECT_EQ(busy_too.join(), 0);
    }
}

// Clients that never pause keep the main loop's descriptors ready for ever; the signal must get in all the same.
TEST(End, WhileClientsFlood)
{
    for (int signal_number : {SIGTERM, SIGINT}) {
        RunningServer server;
        const auto flood = [](ClientSteps &steps) {
            TestClient client("fb.flood");
            client.create(pixels_random(PixelFormat::ARGB, 100, 80, 1), 0, 0, 0);
            client.send("show");
            client.native_depth();
            steps.reached();
            for (;;)
                client.send("dirty", {0, 0, 100, 80});
        };
        ClientProcess one(flood), two(flood), three(flood);
        for (ClientProcess *process : {&one, &two, &three}) {
            process->wait();
            process->go();
        }
        EXPECT_EQ(server.stop(signal_number), 0);
        EXPECT_TRUE(server.panel().is_black());
    }
}

// ---- a service is one server's ----

namespace {

ProgramStart second_server(const RunningServer &server)
{
    ProgramStart start;
    start.words = {from_build("PFB_TEST_PANEL"), "run", "--panel", server.panel_folder(), "--", server_program()};
    start.environment = server_environment(server.folder());
    return start;
}

} // namespace

TEST(Service, ASecondServerSaysSoInOneLine)
{
    RunningServer server;
    TestClient client("fb.photograph");
    const Pixels pixels = pixels_photograph(PixelFormat::XRGB, 160, 120, 1);
    client.create(pixels, 0, 0, 0);
    client.send("show");
    PictureComposer composer(160, 120);
    composer.draw(pixels, 0, 0);
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "");

    ProgramStart start = second_server(server);
    Pipe err;
    start.err_fd = err.write_end();
    const pid_t second = program_start(start);
    err.close_write();
    EXPECT_TRUE(wait_until([&] { return count_of(err.text(), "\n") > 0; }));
    int status = 0; // a signal that comes before the main loop is not heeded
    EXPECT_TRUE(wait_until([&] {
        kill(second, SIGTERM);
        return waitpid(second, &status, WNOHANG) == second;
    }));
    EXPECT_EQ(shell_status(status), 0);
    EXPECT_TRUE(wait_until([&] {
        err.text();
        return err.at_end();
    }));
    EXPECT_EQ(count_of(err.text(), "libmc: "), 1u) << err.text();
    EXPECT_NE(err.text().find("another server already listens at " + server.socket_path()), std::string::npos)
        << err.text();
    EXPECT_TRUE(client.is_connected());
    EXPECT_TRUE(file_exists(server.socket_path()));
    EXPECT_EQ(panel_shows(server.panel(), composer.picture(32)), "") << "the first one's picture stays";
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

TEST(Service, TheSocketOfAKilledServerIsTakenOver)
{
    const TemporaryFolder folder;
    setenv("MC_RUNTIME_DIR", folder.path().c_str(), 1);
    ProgramStart start;
    start.words = {server_program()};
    start.environment = server_environment(folder.path());
    const std::string socket = folder.path() + "/pfb.mc";
    const auto connects = [] {
        mc_connection *connection = mc_connect("pfb", "x.probe");
        mc_close(connection);
        return connection != nullptr;
    };
    const pid_t first = program_start(start);
    ASSERT_TRUE(wait_until(connects));
    kill(first, SIGKILL);
    EXPECT_EQ(shell_status(program_wait(first)), 128 + SIGKILL);
    EXPECT_TRUE(file_exists(socket)) << "nobody was left to remove it";
    EXPECT_FALSE(connects());
    Pipe err;
    start.err_fd = err.write_end();
    const pid_t second = program_start(start);
    err.close_write();
    EXPECT_TRUE(wait_until(connects));
    {
        TestClient client("x.last"); // it listens before it handles signals
        client.create(pixels_new(PixelFormat::XRGB, 1, 1), 0, 0, 0);
        client.native_depth();
    }
    kill(second, SIGTERM);
    EXPECT_EQ(shell_status(program_wait(second)), 0);
    EXPECT_EQ(err.text(), "");
    EXPECT_FALSE(file_exists(socket));
}

TEST(Service, TwoPanelsSideBySide)
{
    RunningServer one({.size = "64x48"});
    TestClient client_one("fb.one");
    RunningServer two({.size = "80x60", .format = "rgb565"});
    TestClient client_two("fb.two");
    const Pixels pixels = pixels_random(PixelFormat::RGB565, 80, 60, 1);
    client_one.create(pixels, 0, 0, 0);
    client_one.send("show");
    client_two.create(pixels, 0, 0, 0);
    client_two.send("show");
    PictureComposer composer_one(64, 48), composer_two(80, 60);
    composer_one.draw(pixels, 0, 0);
    composer_two.draw(pixels, 0, 0);
    EXPECT_EQ(panel_shows(one.panel(), composer_one.picture(32)), "");
    EXPECT_EQ(panel_shows(two.panel(), composer_two.picture(16)), "");
    EXPECT_EQ(client_one.native_depth(), 32);
    EXPECT_EQ(client_two.native_depth(), 16);
    EXPECT_EQ(one.stop(SIGTERM), 0);
    EXPECT_EQ(panel_shows(two.panel(), composer_two.picture(16)), "");
    EXPECT_EQ(two.stop(SIGTERM), 0);
}
