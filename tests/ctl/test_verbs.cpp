// SPDX-License-Identifier: MIT
// The verbs of pfbctl against the real server: what the panel shows of them, and how they end.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstring>

#include "../support/lasting_panel.h"
#include "../support/test_client.h"
#include "ctl_support.h"

namespace {

constexpr int WIDTH = 160;
constexpr int HEIGHT = 120;

const Pixels PHOTOGRAPH = pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 1);

// The column of a 32-bit surface that the server shows at column `x` when it doubles it: each but the first one is
// shown one pixel late.
int doubled_column(int x)
{
    return x == 0 ? 0 : (x - 1) / 2;
}

// A photograph that fills the panel.
class Verbs : public testing::Test {
protected:
    Verbs() : background("fb.background")
    {
        background.create(PHOTOGRAPH, 0, 0, -1);
        background.send("show");
        background.settle();
    }
    ~Verbs() override { EXPECT_EQ(server.stop(SIGTERM), 0); }

    std::string sees(const std::function<void(PictureComposer &)> &draw) const
    {
        PictureComposer composer(WIDTH, HEIGHT);
        composer.draw(PHOTOGRAPH, 0, 0);
        draw(composer);
        return panel_shows(server.panel(), composer.picture(32));
    }
    std::string sees_nothing() const
    {
        return sees([](PictureComposer &) {});
    }

    RunningServer server;
    TestClient background;
};

const auto premultiply = [](uint32_t colour, double share) {
    const double alpha = std::floor((colour >> 24) * share + 0.5);
    const auto part = [&](int shift) {
        return static_cast<uint32_t>(std::lround((colour >> shift & 255) * alpha / 255)) << shift;
    };
    return static_cast<uint32_t>(alpha) << 24 | part(16) | part(8) | part(0);
};

// A picture with every kind of alpha in it, and the same as a client draws it.
std::vector<uint32_t> translucent_picture(int width, int height)
{
    std::vector<uint32_t> pixels;
    for (int i = 0; i < width * height; i++)
        pixels.push_back(static_cast<uint32_t>(i) * 2654435761u ^ static_cast<uint32_t>(i) << 21);
    pixels[0] = 0x00FFFFFF;
    pixels[1] = 0xFF123456;
    return pixels;
}

Pixels drawn(const std::vector<uint32_t> &picture, int width, int height, double share)
{
    Pixels pixels = pixels_new(PixelFormat::ARGB, width, height);
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++)
            pixels.set(x, y, premultiply(picture[static_cast<size_t>(y * width + x)], share));
    }
    return pixels;
}

} // namespace

TEST_F(Verbs, ShowAPictureWithAlphaAtAPlaceAndALevel)
{
    const std::vector<uint32_t> picture = translucent_picture(37, 23);
    const std::string file = server.folder() + "/picture.png";
    write_png(file, 37, 23, picture);
    const Foreground lower(server, {"fill", "#204060", "--size", "30x30", "--at", "50,40"});
    const Foreground shown(server, {"show", file, "--at", "40,-5", "--level", "3"});
    const Foreground upper(server, {"fill", "white", "--size", "5x5", "--at", "45,2", "--level", "4"});
    EXPECT_EQ(sees([&](PictureComposer &composer) {
                  composer.draw(pixels_filled(PixelFormat::XRGB, 30, 30, 0x204060), 50, 40);
                  composer.draw(drawn(picture, 37, 23, 1), 40, -5);
                  composer.draw(pixels_filled(PixelFormat::XRGB, 5, 5, 0xFFFFFF), 45, 2);
              }),
              "");
}

TEST_F(Verbs, ShowWithLessOpacityAndScaledByTheServer)
{
    const std::vector<uint32_t> picture = translucent_picture(20, 10);
    const std::string file = server.folder() + "/picture.png";
    write_png(file, 20, 10, picture);
    const Foreground faint(server, {"show", file, "--alpha", "30", "--at", "100,80"});
    const Foreground large(server, {"show", file, "--scale", "40x20", "--at", "10,20", "--level", "1"});
    const Pixels once = drawn(picture, 20, 10, 1);
    Pixels twice = pixels_new(PixelFormat::ARGB, 40, 20);
    for (int y = 0; y < 20; y++) {
        for (int x = 0; x < 40; x++)
            twice.set(x, y, once.at(doubled_column(x), y / 2));
    }
    EXPECT_EQ(sees([&](PictureComposer &composer) {
                  composer.draw(drawn(picture, 20, 10, 0.3), 100, 80);
                  composer.draw(twice, 10, 20);
              }),
              "");
}

TEST_F(Verbs, ShowResamplesToASize)
{
    const std::string file = server.folder() + "/picture.png";
    write_png(file, 10, 10, std::vector<uint32_t>(100, 0xFF336699));
    const Foreground shown(server, {"show", file, "--size", "50x30", "--at", "60,60"});
    EXPECT_EQ(sees([&](PictureComposer &composer) {
                  composer.draw(pixels_filled(PixelFormat::XRGB, 50, 30, 0x336699), 60, 60);
              }),
              "");
}

TEST_F(Verbs, FillWithAndWithoutAlpha)
{
    const Foreground opaque(server, {"fill", "steelblue", "--size", "40x40", "--at", "10,10"});
    const Foreground glass(server, {"fill", "#ff800060", "--size", "50x50", "--at=-10,30", "--level", "1"});
    EXPECT_EQ(sees([&](PictureComposer &composer) {
                  composer.draw(pixels_filled(PixelFormat::XRGB, 40, 40, 0x4682B4), 10, 10);
                  composer.draw(pixels_filled(PixelFormat::ARGB, 50, 50, premultiply(0x60FF8000, 1)), -10, 30);
              }),
              "");
}

TEST_F(Verbs, AVeilDims)
{
    const Foreground veil(server, {"veil", "40", "--size", "100x60", "--at", "20,20"});
    EXPECT_EQ(sees([&](PictureComposer &composer) { composer.veil({20, 20, 100, 60}, 102); }), "");
}

TEST_F(Verbs, AVeilOfNearlyFullBrightnessIsNoPlaneOfAnotherKind)
{
    const Foreground veil(server, {"veil", "100", "--size", "100x60"});
    EXPECT_EQ(sees([&](PictureComposer &composer) { composer.veil({0, 0, 100, 60}, 254); }), "");
}

// What a surface is made of: its pixels differ from the photograph's only where the words stand.
TEST_F(Verbs, TextHasItsBackgroundItsColourAndRoom)
{
    const Foreground text(server, {"text", "Il", "--colour", "#ff0000", "--background", "#0000ff", "--padding", "9",
                                   "--at", "30,20", "--font", "Sans 20px"});
    Picture now;
    ASSERT_TRUE(wait_until([&] {
        now = server.panel().picture();
        return now.at(31, 21) == 0x0000FF;
    }));
    int x2 = 30, y2 = 20;
    while (x2 < WIDTH && now.at(x2, 21) == 0x0000FF)
        x2++;
    while (y2 < HEIGHT && now.at(31, y2) == 0x0000FF)
        y2++;
    int red = 0, room = 0, others = 0;
    for (int y = 20; y < y2; y++) {
        for (int x = 30; x < x2; x++) {
            const uint32_t pixel = now.at(x, y);
            const bool in_room = x < 39 || y < 29 || x >= x2 - 9 || y >= y2 - 9;
            room += in_room && pixel != 0x0000FF;
            red += pixel == 0xFF0000;
            others += (pixel & 0x00FF00) != 0;
        }
    }
    EXPECT_GT(x2, 30 + 18 + 5);
    EXPECT_GT(y2, 20 + 18 + 15);
    EXPECT_EQ(room, 0) << "the padding is written into";
    EXPECT_GT(red, 10) << "there are no words";
    EXPECT_EQ(others, 0) << "neither background, words, nor a mixture of both";
    EXPECT_EQ(sees([&](PictureComposer &composer) {
                  for (int y = 20; y < y2; y++) {
                      for (int x = 30; x < x2; x++)
                          composer.fill({x, y, 1, 1}, now.at(x, y));
                  }
              }),
              "");
}

TEST_F(Verbs, TextBreaksLinesAndReadsMarkup)
{
    const auto size_of = [&](const Words &options) {
        Words words = {"text", "--name", "fb.words"};
        words.insert(words.end(), options.begin(), options.end());
        const Foreground text(server, words);
        EXPECT_TRUE(wait_until([&] {
            ctl_done(server, {"status"});
            background.settle();
            const std::string dump = server.out().substr(server.out().rfind("# of surface"));
            return dump.find("name=fb.words level=0 shown=1") != std::string::npos;
        }));
        const std::string dump = server.out().substr(server.out().rfind("name=fb.words"));
        int x1 = 0, y1 = 0, x2 = 0, y2 = 0;
        EXPECT_EQ(sscanf(strchr(dump.c_str(), '\n'), " [%d,%d] - [%d,%d]", &x1, &y1, &x2, &y2), 4);
        return std::pair(x2 - x1, y2 - y1);
    };
    const auto line = size_of({"one two three four", "--font", "Sans 12"});
    const auto wrapped = size_of({"one two three four", "--font", "Sans 12", "--width", "60"});
    const auto bold = size_of({"<b>one two three four</b>", "--markup", "--font", "Sans 12"});
    const auto plain = size_of({"<b>one two three four</b>", "--font", "Sans 12"});
    EXPECT_LE(wrapped.first, 60);
    EXPECT_GE(wrapped.second, line.second * 3 / 2);
    EXPECT_GT(bold.first, line.first);
    EXPECT_GT(plain.first, bold.first) << "the tags themselves are shown";
}

TEST_F(Verbs, ASurfaceGoesWithItsProgram)
{
    for (const int signal_number : {SIGTERM, SIGINT, SIGHUP}) {
        Foreground fill(server, {"fill", "red", "--size", "20x20"});
        EXPECT_EQ(sees([](PictureComposer &composer) { composer.fill({0, 0, 20, 20}, 0xFF0000); }), "");
        EXPECT_EQ(fill.end(signal_number), 0) << fill.out();
        EXPECT_EQ(fill.out(), "");
        EXPECT_EQ(sees_nothing(), "") << "signal " << signal_number;
    }
    EXPECT_EQ(ctl_done(server, {"fill", "red", "--size", "20x20", "--for", "0.2"}), "");
    EXPECT_EQ(sees_nothing(), "");
}

TEST_F(Verbs, AnothersSurfaceIsMovedHiddenRaisedClippedAndScaled)
{
    TestClient other("fb.other"), fixed("fb.fixed");
    const Pixels pixels = pixels_random(PixelFormat::XRGB, 40, 30, 4),
                 over = pixels_random(PixelFormat::XRGB, 20, 90, 5);
    other.create(pixels, 10, 10, 1);
    fixed.create(over, 60, 5, 2);
    show_together({&other, &fixed});
    const auto with_other = [&](int x, int y, bool on_top) {
        return sees([&](PictureComposer &composer) {
            if (!on_top)
                composer.draw(pixels, x, y);
            composer.draw(over, 60, 5);
            if (on_top)
                composer.draw(pixels, x, y);
        });
    };
    const auto clipped = [&] {
        return sees([&](PictureComposer &composer) {
            composer.draw(over, 60, 5);
            composer.set_clip({50, 20, 20, 15});
            composer.draw(pixels, 45, 15);
        });
    };
    ctl_done(server, {"move", "fb.other", "45", "15"});
    EXPECT_EQ(with_other(45, 15, false), "");
    ctl_done(server, {"level", "fb.other", "3"});
    EXPECT_EQ(with_other(45, 15, true), "");
    ctl_done(server, {"level", "fb.other", "-5"});
    background.settle(); // below the photograph
    EXPECT_EQ(sees([&](PictureComposer &composer) { composer.draw(over, 60, 5); }), "");
    ctl_done(server, {"level", "fb.other", "3"});
    ctl_done(server, {"move", "fb.other", "-7", "-3"});
    EXPECT_EQ(with_other(-7, -3, true), "");
    ctl_done(server, {"hide", "fb.other"});
    EXPECT_EQ(sees([&](PictureComposer &composer) { composer.draw(over, 60, 5); }), "");
    ctl_done(server, {"move", "fb.other", "45", "15"});
    ctl_done(server, {"unhide", "fb.other"});
    EXPECT_EQ(with_other(45, 15, true), "");
    ctl_done(server, {"clip", "fb.other", "50", "20", "20", "15"});
    EXPECT_EQ(clipped(), "");
}

TEST_F(Verbs, AnothersSurfaceIsScaledAndBack)
{
    TestClient other("fb.other");
    const Pixels pixels = pixels_random(PixelFormat::XRGB, 40, 30, 4);
    other.create(pixels, 10, 10, 1);
    other.send("show");
    ctl_done(server, {"scale", "fb.other", "5", "6", "20", "10", "30", "40", "40", "20"});
    EXPECT_EQ(sees([&](PictureComposer &composer) {
                  for (int y = 0; y < 20; y++) {
                      for (int x = 0; x < 40; x++)
                          composer.fill({30 + x, 40 + y, 1, 1}, pixels.at(5 + doubled_column(x), 6 + y / 2) & 0xFFFFFF);
                  }
              }),
              "");
    ctl_done(server, {"scale", "fb.other", "0", "0", "40", "30", "70", "20", "40", "30"});
    EXPECT_EQ(sees([&](PictureComposer &composer) { composer.draw(pixels, 70, 20); }), "");
}

TEST_F(Verbs, ASurfaceThatIsNotThereHasAStatusOfItsOwn)
{
    const ProgramResult result = ctl(server, {"move", "fb.none", "1", "2"});
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.err, "pfbctl move: no surface is named fb.none (or the server does not answer); \"pfbctl status\" "
                          "makes it print its surfaces\n");
    EXPECT_EQ(sees_nothing(), "");
}

TEST_F(Verbs, StatusSaysWhereTheDumpIs)
{
    const std::string said = ctl_done(server, {"status"});
    EXPECT_EQ(said, "fbserver (process " + std::to_string(server.pid()) + ") prints its surfaces to " +
                        server.folder() + "/out\n");
    background.settle();
    EXPECT_EQ(count_of(server.out(), "name=fb.background level=-1 shown=1"), 1u) << server.out();
}

TEST_F(Verbs, WatchCountsWhereThePanelChanges)
{
    Foreground watch(server, {"watch", "--interval", "0.2", "--grid", "2x2"});
    int n = 0;
    const auto changes_at_the_lower_left = [&] {
        background.draw(pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, static_cast<uint32_t>(++n)));
        background.send("dirty", {5, 70, 30, 20});
        for (const std::string &line : lines_of(watch.out())) {
            double left = 0, right = 0;
            if (sscanf(line.c_str(), "%lf %lf", &left, &right) == 2 && left > 0 && right == 0)
                return true;
        }
        return false;
    };
    EXPECT_TRUE(wait_until(changes_at_the_lower_left)) << watch.out();
    EXPECT_EQ(watch.end(SIGINT), 0);
    const std::vector<std::string> lines = lines_of(watch.out());
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], server.panel_folder() + ", 160 x 120 pixels of 32 bits: updates per second");
    for (size_t i = 0; i + 3 < lines.size(); i += 4) {
        double cells[4];
        EXPECT_EQ(sscanf(lines[i + 1].c_str(), "%lf %lf", &cells[0], &cells[1]), 2) << lines[i + 1];
        EXPECT_EQ(cells[0] + cells[1], 0) << "nothing changes in the upper half";
        EXPECT_EQ(lines[i + 3].rfind("whole screen: ", 0), 0u) << lines[i + 3];
    }
}

// On a panel of its own: its server comes and goes.
class VerbsAndDeaths : public testing::Test {
protected:
    VerbsAndDeaths() { start_server(); }

    void start_server()
    {
        panel.start_server();
        EXPECT_TRUE(wait_until([&] { return is_listened_at(panel.folder() + "/pfb.mc"); }));
    }
    ProgramStart fill(const Words &words) const
    {
        ProgramStart start;
        start.words = {from_build("PFB_TEST_CTL"), "fill", "red", "--size", "20x20"};
        start.words.insert(start.words.end(), words.begin(), words.end());
        start.environment = {{"MC_RUNTIME_DIR", panel.folder()}, {"LSAN_OPTIONS", from_build("PFB_TEST_LSAN")}};
        return start;
    }
    bool turns_red() const
    {
        return wait_until([&] { return panel.view().picture().at(1, 1) == 0xFF0000; });
    }

    LastingPanel panel;
};

TEST_F(VerbsAndDeaths, WhatIsShownComesBackWithTheServer)
{
    Foreground shown(fill({}), panel.folder() + "/shown");
    EXPECT_TRUE(turns_red());
    panel.stop_server(SIGKILL);
    panel.erase();
    start_server();
    EXPECT_TRUE(turns_red());
    EXPECT_EQ(shown.end(SIGTERM), 0);
    EXPECT_EQ(shown.out(), "pfbctl fill: the server has ended: waiting for the next one\n");
}

TEST_F(VerbsAndDeaths, TheTimeOfForEndsWithoutAServerToo)
{
    Foreground shown(fill({"--for", "1"}), panel.folder() + "/shown");
    EXPECT_TRUE(turns_red());
    panel.stop_server(SIGKILL);
    EXPECT_EQ(shown.end(0), 0);
}

TEST_F(Verbs, WithoutAServerEveryVerbSaysSo)
{
    const TemporaryFolder empty;
    for (const Words &words : {Words{"status"},
                               {"fill", "red", "--size", "2x2"},
                               {"move", "a", "1", "2"},
                               {"text", "a"},
                               {"veil", "5", "--size", "2x2"},
                               {"hide", "a"},
                               {"bench"}}) {
        ProgramStart start = beside(server, from_build("PFB_TEST_CTL"), words);
        start.environment[0].second = empty.path();
        const ProgramResult result = program_run(start);
        EXPECT_EQ(shell_status(result.status), 3) << words[0];
        EXPECT_EQ(result.err,
                  "pfbctl " + words[0] + ": no server listens at " + empty.path() + "/pfb.mc: is fbserver running?\n");
    }
}

TEST_F(Verbs, WrongUsageIsStatusTwoAndDoesNothing)
{
    const std::pair<Words, std::string> CASES[] = {
        {{}, "pfbctl: which verb? (see --help)"},
        {{"shwo"}, "pfbctl: there is no verb shwo (see --help)"},
        {{"show"}, "pfbctl show: show takes one picture file (see --help)"},
        {{"show", "a", "--at", "1"}, "pfbctl show: --at: 1 is no position such as 100,50"},
        {{"show", "a", "--size", "0x5"}, "pfbctl show: --size: 0x5 is no size such as 320x200"},
        {{"show", "a", "--alpha", "101"}, "pfbctl show: --alpha takes 0 to 100"},
        {{"show", "a", "--rotation", "180"}, "pfbctl show: --rotation takes 0, 90 or 270"},
        {{"show", "a", "--for", "-1"}, "pfbctl show: --for takes 0 to a thousand million seconds"},
        {{"show", "--wrong"}, "pfbctl show: Unknown option --wrong (see --help)"},
        {{"fill", "red"}, "pfbctl fill: fill takes one colour, and a --size (see --help)"},
        {{"fill", "reddish", "--size", "1x1"},
         "pfbctl fill: fill: reddish is no colour such as red, #ff8000 or #ff800080"},
        {{"veil", "x", "--size", "1x1"}, "pfbctl veil: veil: x is no number"},
        {{"veil", "200", "--size", "1x1"}, "pfbctl veil: veil takes 0 to 100"},
        {{"text"}, "pfbctl text: text takes its words as one argument, and a --padding up to 10000 (see --help)"},
        {{"text", "a", "--align", "top"}, "pfbctl text: --align: top is neither left, centre nor right"},
        {{"move", "a", "1"}, "pfbctl move: which words? NAME X Y (see --help)"},
        {{"move", "a", "1", "x"}, "pfbctl move: the numbers: x is no number"},
        {{"move", "a", "1", "-x"}, "pfbctl move: Unknown option -x (see --help)"},
        {{"scale", "a", "0", "0", "0", "5", "0", "0", "5", "5"},
         "pfbctl scale: the source begins at 0,0 or more, and sizes are 1 to 32767"},
        {{"watch", "--grid", "99x1"},
         "pfbctl watch: watch takes up to a million --for and --interval seconds, a --rate of 1 to 1000, a --grid up "
         "to "
         "16x16, and no words (see --help)"},
        {{"bench", "--format", "rgb24"}, "pfbctl bench: --format: rgb24 is none of xrgb32, argb32, rgb16, rgb18"},
        {{"status", "now"}, "pfbctl status: status takes no words (see --help)"},
    };
    for (const auto &[words, message] : CASES) {
        const ProgramResult result = ctl(server, words);
        EXPECT_EQ(result.status, 2) << testing::PrintToString(words);
        EXPECT_EQ(result.err, message + "\n");
    }
    EXPECT_EQ(sees_nothing(), "");
}

TEST_F(Verbs, APictureThatCannotBeReadIsAFailure)
{
    const ProgramResult result = ctl(server, {"show", server.folder() + "/none.png"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("none.png"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("No such file"), std::string::npos) << result.err;
}

TEST(VerbsOnNarrowPanels, AlphaIsWarnedOfAndAVeilRefused)
{
    RunningServer server({.format = "rgb565"});
    const ProgramResult glass = ctl(server, {"fill", "#ff000080", "--size", "9x9", "--for", "0.1"});
    EXPECT_EQ(glass.status, 0);
    EXPECT_EQ(glass.err, "pfbctl fill: the screen has 16 bits and no alpha: the colour comes out darker and opaque\n");
    const ProgramResult veil = ctl(server, {"veil", "50", "--size", "9x9", "--for", "0.1"});
    EXPECT_EQ(veil.status, 1);
    EXPECT_EQ(veil.err, "pfbctl veil: the screen has 16 bits and no alpha: it cannot be dimmed\n");
    EXPECT_EQ(ctl_done(server, {"fill", "red", "--size", "9x9", "--for", "0.1"}), "");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// Translucent ones, since an opaque surface that is drawn alone on a turned 16-bit panel comes out turned twice.
TEST(VerbsTurned, TheDisplayIsTurnedAsTheyAreTold)
{
    RunningServer server({.size = "120x160", .format = "rgb565"});
    TestClient background("fb.background");
    background.create({.width = WIDTH, .height = HEIGHT, .depth = 32, .level = -1, .rotation = 90});
    background.draw(PHOTOGRAPH);
    background.send("show");
    background.settle();
    ProgramStart start = beside(server, from_build("PFB_TEST_CTL"),
                                {"fill", "#ff0000fe", "--size", "30x20", "--at", "100,10", "--for", "60"});
    start.environment.emplace_back("PFB_ROTATION", "90");
    const pid_t fill = program_start(start);
    Foreground second(server, {"fill", "#0000fffe", "--size", "9x9", "--at", "5,100", "--rotation", "90"});
    const auto red_is_there = [&] { return shot(server, {"--rotation", "90"}).at(110, 20) == 0xFF0000; };
    const auto blue_is_there = [&] { return shot(server, {"--rotation", "90"}).at(7, 104) == 0x0000FF; };
    EXPECT_TRUE(wait_until([&] { return red_is_there() && blue_is_there(); }));
    kill(fill, SIGTERM);
    EXPECT_EQ(program_wait(fill), 0);
    EXPECT_EQ(second.end(SIGTERM), 0);
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

class Bench : public testing::TestWithParam<std::pair<const char *, const char *>> {};

TEST_P(Bench, CountsFramesThatReachThePanel)
{
    RunningServer server({.format = GetParam().first});
    const std::string out =
        ctl_done(server, {"bench", "--for", "0.5", "--size", "64x48", "--at", "20,30", "--format", GetParam().second});
    const std::vector<std::string> lines = lines_of(out);
    ASSERT_EQ(lines.size(), 2u) << out;
    int frames = 0, bits = 0;
    double seconds = 0, rate = 0, pixels = 0;
    char format[16];
    ASSERT_EQ(sscanf(lines[0].c_str(),
                     "64 x 48 %15s on %d bits: %d frames in %lf s: %lf frames per second, %lf Mpixel per second",
                     format, &bits, &frames, &seconds, &rate, &pixels),
              6)
        << out;
    EXPECT_STREQ(format, GetParam().second);
    EXPECT_EQ(bits, server.panel().depth());
    EXPECT_GT(frames, 0);
    EXPECT_NEAR(rate, frames / seconds, rate * 0.03 + 0.1);
    EXPECT_EQ(lines[1].rfind("from unlock to panel: median ", 0), 0u) << out;
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

INSTANTIATE_TEST_SUITE_P(Formats, Bench,
                         testing::Values(std::pair("rgb565", "rgb16"), std::pair("rgb666", "rgb18"),
                                         std::pair("xrgb8888", "argb32"), std::pair("rgb565", "xrgb32")));

TEST(BenchBelow, FramesThatNobodySeesAreNotCounted)
{
    RunningServer server;
    TestClient cover("fb.cover");
    cover.create(PHOTOGRAPH, 0, 0, 10);
    cover.send("show");
    cover.settle();
    const ProgramResult result = ctl(server, {"bench", "--level", "0", "--for", "0.5"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "pfbctl bench: " + server.panel_folder() +
                              " shows nothing of the frames: is it this server's panel, and is the surface the topmost "
                              "one there?\n");
    EXPECT_EQ(server.stop(SIGTERM), 0);
}

// While another client holds the lock nothing is drawn, and a frame that is not drawn is none.
TEST(BenchHeld, AFrameThatDoesNotArriveEndsIt)
{
    RunningServer server;
    TestClient holder("fb.holder");
    holder.create(pixels_new(PixelFormat::XRGB, 8, 8), 0, 0, -1);
    Foreground bench(server, {"bench", "--for", "60", "--size", "64x48"});
    uint32_t last = 0;
    int changes = 0;
    ASSERT_TRUE(wait_until([&] {
        const uint32_t now = server.panel().picture().at(10, 10);
        changes += now != last;
        last = now;
        return changes > 20; // it is past its preparations
    })) << bench.out();
    holder.lock(0, 0, 8, 8);
    EXPECT_EQ(bench.end(0), 1);
    EXPECT_EQ(bench.out(), "pfbctl bench: a frame has not reached the panel within 5 seconds\n");
    holder.send("unlock");
    holder.settle();
    EXPECT_EQ(server.stop(SIGTERM), 0);
}
