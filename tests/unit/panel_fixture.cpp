// SPDX-License-Identifier: MIT
#include "panel_fixture.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr auto PATIENCE = std::chrono::seconds(60);

void redirect(const std::string &file, int to)
{
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, to);
    close(fd);
}

[[noreturn]] void become(const Words &words)
{
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(125);
}

Words own_children()
{
    return split(read_file("/proc/thread-self/children"), ' ');
}

} // namespace

bool wait_until(const std::function<bool()> &holds)
{
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        usleep(2000);
    }
    return true;
}

std::string from_environment(const char *variable)
{
    const char *value = getenv(variable);
    EXPECT_NE(value, nullptr) << variable << " names a program of the build: run this by meson test";
    return value != nullptr ? value : "";
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

Words split(const std::string &text, char separator)
{
    std::istringstream stream(text);
    Words words;
    std::string word;
    while (std::getline(stream, word, separator))
        words.push_back(word);
    return words;
}

Words lines(const std::string &text)
{
    return split(text, '\n');
}

void PanelTest::SetUp()
{
    prctl(PR_SET_CHILD_SUBREAPER, 1); // a program whose pfbpanel was killed becomes ours
    folder = testing::TempDir() + "/pfb-test-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    panels = folder + "/panels";
    std::filesystem::create_directory(panels);
    probe = from_environment("PFB_TEST_PROBE_PLAIN");
    environment = {{"XDG_RUNTIME_DIR", panels}};
    for (const char *variable : {"PFBPANEL_DIR", "MC_RUNTIME_DIR", "LD_PRELOAD", "TMPDIR"})
        unsetenv(variable);
}

void PanelTest::TearDown()
{
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a program is left behind";
    // Orphans included: they are this process's children.
    for (Words pids = own_children(); !pids.empty(); pids = own_children()) {
        kill(std::stoi(pids[0]), SIGKILL);
        waitpid(std::stoi(pids[0]), nullptr, 0);
    }
    EXPECT_EQ(folder_entries(), Words{}) << "a panel is left behind";
    std::filesystem::remove_all(folder);
}

Started PanelTest::start(const Words &words)
{
    const std::string name = folder + "/" + std::to_string(started++);
    Started program = {0, name + ".out", name + ".err"};
    program.pid = fork();
    if (program.pid == 0) {
        redirect(program.out_file, STDOUT_FILENO);
        redirect(program.err_file, STDERR_FILENO);
        for (const auto &[variable, value] : environment)
            setenv(variable.c_str(), value.c_str(), 1);
        become(words);
    }
    return program;
}

void PanelTest::wait_for(const Started &program, const std::string &text)
{
    const auto is_there = [&] { return read_file(program.out_file).find(text) != std::string::npos; };
    const auto has_ended = [&] {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(program.pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
               info.si_pid != 0;
    };
    wait_until([&] { return is_there() || has_ended(); });
    ASSERT_TRUE(is_there()) << "no \"" << text << "\": " << read_file(program.err_file);
}

Result PanelTest::finish(const Started &program)
{
    int status = 0;
    Result result = {-1, "", ""};
    if (wait_until([&] { return waitpid(program.pid, &status, WNOHANG) != 0; })) {
        result.status = WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
    } else {
        ADD_FAILURE() << "it does not end";
        kill(program.pid, SIGKILL);
        waitpid(program.pid, nullptr, 0);
    }
    result.out = read_file(program.out_file);
    result.err = read_file(program.err_file);
    return result;
}

Words PanelTest::panel(const Words &options, const Words &probe_arguments) const
{
    Words words = {from_environment("PFB_TEST_PANEL")};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--", probe});
    words.insert(words.end(), probe_arguments.begin(), probe_arguments.end());
    return words;
}

Words PanelTest::pfbpanel(const Words &words) const
{
    Words all = {from_environment("PFB_TEST_PANEL")};
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

Started PanelTest::start_panel(const Words &options, const Words &probe_arguments)
{
    const Started program = start(panel(options, probe_arguments));
    wait_for(program, "ready");
    return program;
}

Result PanelTest::end(const Started &program, int signal_number)
{
    kill(program.pid, signal_number);
    return finish(program);
}

void PanelTest::stop(const Started &program)
{
    EXPECT_EQ(end(program, SIGTERM).status, 128 + SIGTERM);
}

Words PanelTest::folder_entries() const
{
    Words names;
    for (const auto &entry : std::filesystem::directory_iterator(panels))
        names.push_back(entry.path().filename());
    return names;
}
