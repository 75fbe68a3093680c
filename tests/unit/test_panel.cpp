// SPDX-License-Identifier: MIT
// Panels as a whole: how they come, are found, run programs, and go.
#include "panel_fixture.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST_F(PanelTest, the_exit_status_is_the_programs)
{
    EXPECT_EQ(run(panel({}, {"exit", "0"})).status, 0);
    EXPECT_EQ(run(panel({}, {"exit", "41"})).status, 41);
    EXPECT_EQ(run(panel({}, {"kill", std::to_string(SIGKILL)})).status, 128 + SIGKILL);
    EXPECT_EQ(run(panel({}, {"kill", std::to_string(SIGUSR1)})).status, 128 + SIGUSR1);
}

TEST_F(PanelTest, a_program_that_cannot_be_started_is_named)
{
    Result result = run(pfbpanel({"--", folder + "/none"}));
    EXPECT_EQ(result.status, 127);
    EXPECT_EQ(result.err, "pfbpanel: " + folder + "/none: No such file or directory\n");
    result = run(pfbpanel({"--", folder}));
    EXPECT_EQ(result.status, 126);
    EXPECT_EQ(result.err, "pfbpanel: " + folder + ": Permission denied\n");
}

TEST_F(PanelTest, signals_are_passed_on)
{
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2}) {
        const Started program = start_panel({}, {"signals"});
        EXPECT_EQ(end(program, number).status, number) << "the program saw another signal, or none";
    }
}

TEST_F(PanelTest, the_program_starts_with_the_callers_signal_mask)
{
    const Started program = start_panel({}, {"wait"});
    EXPECT_EQ(end(program, SIGTERM).status, 128 + SIGTERM) << "SIGTERM is blocked in the program";
}

TEST_F(PanelTest, the_folder_is_private_and_in_the_environment)
{
    const Started program = start_panel({}, {"wait"});
    const Words entries = folder_entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].rfind("pfbpanel-", 0), 0u) << entries[0];
    struct stat info;
    ASSERT_EQ(stat((panels + "/" + entries[0]).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700u);
    const std::string place = panels + "/" + entries[0];
    EXPECT_EQ(run(pfbpanel({"run", "--", probe, "env", "PFBPANEL_DIR", "MC_RUNTIME_DIR"})).out,
              place + "\n" + place + "\n");
    stop(program);
}

TEST_F(PanelTest, what_the_user_has_in_the_environment_stays)
{
    environment["MC_RUNTIME_DIR"] = "/somewhere";
    environment["ASAN_OPTIONS"] = "detect_leaks=0";
    EXPECT_EQ(run(panel({}, {"env", "MC_RUNTIME_DIR", "ASAN_OPTIONS"})).out,
              "/somewhere\ndetect_leaks=0:verify_asan_link_order=0\n");
}

TEST_F(PanelTest, a_panel_within_a_panel_is_its_own)
{
    Words words = panel({"--name", "outer"}, {});
    words.pop_back();
    const Words inner = panel({"--name", "inner", "--size", "7x5"}, {"env", "PFBPANEL_DIR", "MC_RUNTIME_DIR"});
    words.insert(words.end(), inner.begin(), inner.end());
    const std::string place = panels + "/pfbpanel-inner\n";
    EXPECT_EQ(run(words).out, place + place);
}

TEST_F(PanelTest, the_folder_stands_in_the_first_place_that_can_be_used)
{
    environment["XDG_RUNTIME_DIR"] = folder + "/none";
    environment["TMPDIR"] = panels;
    EXPECT_EQ(run(panel({"--name", "second"}, {"env", "PFBPANEL_DIR"})).out, panels + "/pfbpanel-second\n");
}

TEST_F(PanelTest, other_files_in_the_folder_go_with_it)
{
    const Started program = start_panel({"--name", "full"}, {"wait"});
    std::filesystem::create_directories(panels + "/pfbpanel-full/a/b");
    std::filesystem::create_symlink("/", panels + "/pfbpanel-full/a/link");
    stop(program);
}

TEST_F(PanelTest, a_killed_panel_takes_its_program_along_and_is_swept_up_later)
{
    const Started program = start_panel({"--name", "killed"}, {"signals"});
    EXPECT_EQ(end(program, SIGKILL).status, 1000 + SIGKILL);
    int status = 0;
    ASSERT_TRUE(wait_until([&] { return waitpid(-1, &status, WNOHANG) > 0; }))
        << "the program lives on"; // as our child
    EXPECT_EQ(WEXITSTATUS(status), SIGTERM);
    EXPECT_EQ(folder_entries(), Words{"pfbpanel-killed"});
    EXPECT_EQ(run(pfbpanel({"list"})).out, "");
    EXPECT_EQ(run(panel({"--name", "killed"}, {"exit", "5"})).status, 5) << "the name can be taken again";
}

TEST_F(PanelTest, a_name_belongs_to_one_panel)
{
    const Started first = start_panel({"--name", "one"}, {"wait"});
    const Result second = run(panel({"--name", "one"}, {"exit", "0"}));
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "pfbpanel: the panel one is already running\n");
    EXPECT_EQ(folder_entries(), Words{"pfbpanel-one"});
    stop(first);
}

TEST_F(PanelTest, panels_side_by_side_do_not_meet)
{
    const Started first = start_panel({"--name", "a", "--size", "16x8"}, {"draw", "/dev/fb0", "1", "wait"});
    const Started second = start_panel({"--name", "b", "--size", "16x8"}, {"draw", "/dev/fb0", "2", "wait"});
    const std::string a = panels + "/pfbpanel-a/dev/fb0", b = panels + "/pfbpanel-b/dev/fb0";
    EXPECT_NE(read_file(a), read_file(b));
    run(pfbpanel({"run", "--name", "b", "--", probe, "draw", "/dev/fb0", "1"}));
    EXPECT_EQ(read_file(a), read_file(b)) << "the further program drew elsewhere";
    stop(first);
    EXPECT_EQ(folder_entries(), Words{"pfbpanel-b"});
    stop(second);
}

TEST_F(PanelTest, run_reaches_a_panel_by_name_by_folder_and_as_the_only_one)
{
    const Started first = start_panel({"--name", "a"}, {"wait"});
    const Words env = {"--", probe, "env", "PFBPANEL_DIR"};
    const auto run_with = [&](const Words &options) {
        Words words = {"run"};
        words.insert(words.end(), options.begin(), options.end());
        words.insert(words.end(), env.begin(), env.end());
        return run(pfbpanel(words));
    };
    const std::string a = panels + "/pfbpanel-a";
    EXPECT_EQ(run_with({}).out, a + "\n");
    const Started second = start_panel({}, {"wait"});
    EXPECT_EQ(run_with({"--name", "a"}).out, a + "\n");
    EXPECT_EQ(run_with({"--panel", a}).out, a + "\n");
    const Result unsure = run_with({});
    EXPECT_EQ(unsure.status, 1);
    EXPECT_EQ(lines(unsure.err).at(0), "pfbpanel: 2 panels are running: say which one with --name or --panel");
    const Result none = run_with({"--name", "c"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(lines(none.err).at(0), "pfbpanel: no panel c is running");
    EXPECT_EQ(run(pfbpanel({"run", "--name", "a", "--", probe, "exit", "9"})).status, 9);
    EXPECT_EQ(run(pfbpanel({"run", "--name", "a", "--", folder + "/none"})).status, 127);
    stop(first);
    stop(second);
}

TEST_F(PanelTest, list_shows_the_running_panels)
{
    EXPECT_EQ(run(pfbpanel({"list"})).out, "");
    const Started first = start_panel({"--name", "a", "--size", "320x240", "--format", "rgb666"}, {"wait"});
    const Started second = start_panel({"--layer2", "64x32:argb8888"}, {"wait"});
    Words listed = lines(run(pfbpanel({"list"})).out);
    std::sort(listed.begin(), listed.end());
    ASSERT_EQ(listed.size(), 2u);
    const Words unnamed = split(listed[0], ' '), named = split(listed[1], ' ');
    ASSERT_EQ(named.size(), 5u);
    EXPECT_EQ((Words{named[0], named[1], named[2], named[4]}),
              (Words{"a", "320x240", "rgb666", panels + "/pfbpanel-a"}));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + named[3] + "/exe"), probe);
    ASSERT_EQ(unnamed.size(), 5u);
    EXPECT_EQ((Words{unnamed[0], unnamed[1], unnamed[2]}), (Words{"-", "800x480", "rgb565+64x32:argb8888"}));
    stop(first);
    stop(second);
}

TEST_F(PanelTest, wrong_options_are_refused_before_anything_is_made)
{
    const Words wrong[] = {
        {"--size", "800"},
        {"--size", "0x480"},
        {"--size", "800x480x2"},
        {"--size", "-8x48"},
        {"--size", "40000x2"},
        {"--size", "4294967297x1"},
        {"--format", "rgb777"},
        {"--stride", "1599"},
        {"--stride", "-1"},
        {"--stride", "99999999999"},
        {"--virtual-height", "479"},
        {"--memory", "-1"},
        {"--memory", "1073741825"},
        {"--memory", "4294967297"},
        {"--size", "32767x32767", "--format", "xrgb8888"},
        {"--layer2", "800x480"},
        {"--layer2", "800x480:rgb777"},
        {"--layer2", "800x480:rgb565:1"},
        {"--layer2", "800x480:rgb565:x"},
        {"--name", "a/b"},
        {"--name", ""},
        {"--name", "a.b"},
        {"--fault", "fb0-fix,fb1-fix"},
        {"--unknown"},
    };
    for (const Words &options : wrong) {
        const Result result = run(panel(options, {"exit", "0"}));
        EXPECT_EQ(result.status, 2) << testing::PrintToString(options);
        EXPECT_EQ(lines(result.err).size(), 1u) << result.err;
        EXPECT_EQ(result.err.rfind("pfbpanel: ", 0), 0u) << result.err;
    }
    for (const Words &words : {Words{},
                               {"run"},
                               {"shot"},
                               {"shot", "a", "b"},
                               {"watch", "a"},
                               {"list", "a"},
                               {"watch", "--seconds", "0"},
                               {"watch", "--rate", "0"},
                               {"shot", "--fb", "a", "--name", "b", "c"},
                               {"shot", "--fb", "a", "--layer2", "c"},
                               {"shot", "--both", "--layer2", "c"},
                               {"shot", "--both", "--raw", "c"},
                               {"shot", "--both", "--fb", "a", "c"}})
        EXPECT_EQ(run(pfbpanel(words)).status, 2) << testing::PrintToString(words);
}

TEST_F(PanelTest, help_names_every_command_format_and_fault)
{
    const Result help = run(pfbpanel({"--help"}));
    EXPECT_EQ(help.status, 0);
    for (const char *word : {"shot", "watch", "run", "list", "rgb565", "bgr565", "rgb666", "rgb888", "xrgb8888",
                             "argb8888", "xbgr8888", "c8", "fb0-fix", "fb2-zero-width", "tty0-none", "--layer2"})
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    for (const char *command : {"shot", "watch", "run", "list"})
        EXPECT_EQ(run(pfbpanel({command, "--help"})).status, 0) << command;
    EXPECT_EQ(run(pfbpanel({"--version"})).out.rfind("pfbpanel ", 0), 0u);
}

TEST_F(PanelTest, a_program_may_be_called_as_a_command_is)
{
    std::filesystem::create_symlink(probe, folder + "/list");
    environment["PATH"] = folder;
    EXPECT_EQ(run(pfbpanel({"--", "list", "exit", "6"})).status, 6);
}

// What the library stands in for, and nothing else, is visible to the program that it is loaded into.
TEST_F(PanelTest, the_preload_library_shows_no_other_symbols)
{
    const std::string library = from_environment("PFB_TEST_PRELOAD"), nm = from_environment("PFB_TEST_NM");
    Words names;
    for (const std::string &line : lines(run({nm, "-D", "--defined-only", "--format=just-symbols", library}).out))
        names.push_back(line);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Words{"__open64_2", "__open_2",  "__openat64_2", "__openat_2", "access",  "creat",
                            "creat64",    "eaccess",   "euidaccess",   "faccessat",  "fopen",   "fopen64",
                            "freopen",    "freopen64", "fstat",        "fstat64",    "fstatat", "fstatat64",
                            "ioctl",      "lstat",     "lstat64",      "mmap",       "mmap64",  "open",
                            "open64",     "openat",    "openat64",     "stat",       "stat64",  "statx"}));
    const std::string undefined = run({nm, "-D", "--undefined-only", library}).out;
    for (const std::string &line : lines(undefined))
        EXPECT_TRUE(line.find("@GLIBC_") != std::string::npos || line.find(" w ") != std::string::npos) << line;
}

// Else the fortified probe would prove nothing.
TEST_F(PanelTest, the_fortified_probe_is_fortified)
{
    const std::string nm = from_environment("PFB_TEST_NM");
    const std::string fortified = run({nm, "-D", from_environment("PFB_TEST_PROBE_FORTIFIED")}).out;
    const std::string plain = run({nm, "-D", probe}).out;
    EXPECT_NE(fortified.find("__printf_chk"), std::string::npos);
    EXPECT_EQ(plain.find("__printf_chk"), std::string::npos);
}

} // namespace
