// SPDX-License-Identifier: MIT
// The command line and its summary.
#include <vector>

#include <gtest/gtest.h>

#include "../../src/backend/backend.h"
#include "../../src/fbserver/options.h"
#include "../support/stderr_capture.h"

namespace {

class CommandLine : public testing::Test {
protected:
    CommandLine() { forget(); }
    ~CommandLine() override { forget(); }

    static void forget()
    {
        console_device = fb_device = remote_addr = nullptr;
        use_input = send_event_remote = use_x = 0;
        output_scale = 1;
    }

    int parse(std::vector<const char *> words)
    {
        words.insert(words.begin(), "/some/where/fbserver");
        const int argc = static_cast<int>(words.size());
        words.push_back(nullptr);
        return options_parse(argc, const_cast<char **>(words.data()), &options);
    }

    std::string summary() const
    {
        return printed([this] { options_print(&options); });
    }

    Options options;
};

TEST_F(CommandLine, WithoutArgumentsEverythingHasItsDefault)
{
    EXPECT_EQ(parse({}), 0);
    EXPECT_EQ(options.w, -1);
    EXPECT_EQ(options.h, -1);
    EXPECT_EQ(options.benchmark, 0);
    EXPECT_EQ(console_device, nullptr);
    EXPECT_EQ(fb_device, nullptr);
    EXPECT_EQ(use_input, 0);
    EXPECT_EQ(send_event_remote, 0);
    EXPECT_EQ(remote_addr, nullptr);
    EXPECT_EQ(use_x, 0);
    EXPECT_EQ(output_scale, 1);
    EXPECT_EQ(summary(), "option is \n"
                         "\t w = -1 h = -1 use_input = 0\n"
                         "\t fb = (null)\n"
                         "\t console = (null)\n"
                         "\t scale = 1\n");
}

TEST_F(CommandLine, EachOptionSetsItsSetting)
{
    EXPECT_EQ(parse({"-console", "/dev/c", "-fb", "/dev/f", "-use-input", "-benchmark", "-send-event", "host", "-scale",
                     "3", "640", "480", "2"}),
              0);
    EXPECT_STREQ(console_device, "/dev/c");
    EXPECT_STREQ(fb_device, "/dev/f");
    EXPECT_EQ(use_input, 1);
    EXPECT_EQ(options.benchmark, 1);
    EXPECT_STREQ(remote_addr, "host");
    EXPECT_EQ(send_event_remote, 1);
    EXPECT_EQ(output_scale, 3);
    EXPECT_EQ(options.w, 640);
    EXPECT_EQ(options.h, 480);
    EXPECT_EQ(use_x, 2);
    EXPECT_EQ(summary(), "option is \n"
                         "\t w = 640 h = 480 use_input = 1\n"
                         "\t fb = /dev/f\n"
                         "\t console = /dev/c\n"
                         "\t scale = 3\n");
}

TEST_F(CommandLine, PositionalWordsMayStandBetweenOptions)
{
    EXPECT_EQ(parse({"640", "-use-input", "480", "-fb", "/dev/f", "7"}), 0);
    EXPECT_EQ(options.w, 640);
    EXPECT_EQ(options.h, 480);
    EXPECT_EQ(use_x, 7);
}

TEST_F(CommandLine, AWordThatOnlyBeginsLikeAnOptionIsPositional)
{
    EXPECT_EQ(parse({"-fbx", "-consol"}), 0);
    EXPECT_EQ(fb_device, nullptr);
    EXPECT_EQ(options.w, 0);
    EXPECT_EQ(options.h, 0);
}

TEST_F(CommandLine, PositionalWordsAreDecimalNumbers)
{
    EXPECT_EQ(parse({"-12", "0x10", "077"}), 0);
    EXPECT_EQ(options.w, -12);
    EXPECT_EQ(options.h, 0);
    EXPECT_EQ(use_x, 77);
}

TEST_F(CommandLine, AFourthPositionalWordPrintsTheUsage)
{
    const std::string message = complained([&] { EXPECT_EQ(parse({"1", "2", "3", "4"}), -1); });
    EXPECT_EQ(message, "USAGE:/some/where/fbserver [-console DEVICE] [-fb DEVICE] [W [H[USE_X(EMUL)]]]\n");
}

TEST_F(CommandLine, AnOptionAsTheLastWordHasNoValue)
{
    for (const char *word : {"-console", "-fb", "-send-event"})
        EXPECT_EQ(complained([&] { EXPECT_EQ(parse({word}), 0); }), "") << word;
    EXPECT_EQ(console_device, nullptr);
    EXPECT_EQ(fb_device, nullptr);
    EXPECT_EQ(remote_addr, nullptr);
    EXPECT_EQ(send_event_remote, 1);
}

TEST_F(CommandLine, ScaleAsTheLastWordIsZero)
{
    EXPECT_EQ(complained([&] { EXPECT_EQ(parse({"-scale"}), 0); }), "");
    EXPECT_EQ(output_scale, 0);
}

TEST_F(CommandLine, TheScaleIsNotJudgedHere)
{
    EXPECT_EQ(parse({"-scale", "-5"}), 0);
    EXPECT_EQ(output_scale, -5);
    EXPECT_EQ(parse({"-scale", "many"}), 0);
    EXPECT_EQ(output_scale, 0);
}

TEST_F(CommandLine, AnOptionTakesTheNextWordWhateverItIs)
{
    EXPECT_EQ(parse({"-fb", "-console", "-use-input"}), 0);
    EXPECT_STREQ(fb_device, "-console");
    EXPECT_EQ(console_device, nullptr);
    EXPECT_EQ(use_input, 1);
}

TEST_F(CommandLine, TheLastOneOfTheSameOptionCounts)
{
    EXPECT_EQ(parse({"-fb", "a", "-fb", "b"}), 0);
    EXPECT_STREQ(fb_device, "b");
}

} // namespace
