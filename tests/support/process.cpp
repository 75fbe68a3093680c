// SPDX-License-Identifier: MIT
#include "process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

const pid_t test_program = getpid(); // also in the processes that it forks

void redirect(int fd, int stream)
{
    const int source = fd >= 0 ? fd : open("/dev/null", O_RDWR);
    if (dup2(source, stream) < 0)
        _exit(126);
}

// Descriptors of the test program (its own pipes, above all) would keep a reader from ever seeing the end.
void close_others()
{
    for (int fd = 3; fd < 1024; fd++)
        close(fd);
}

[[noreturn]] void become(const ProgramStart &start, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent)
        _exit(126);
    redirect(start.in_fd, STDIN_FILENO);
    redirect(start.out_fd, STDOUT_FILENO);
    redirect(start.err_fd, STDERR_FILENO);
    for (int stream : start.closed)
        close(stream);
    close_others();
    for (const auto &[name, value] : start.environment)
        setenv(name.c_str(), value.c_str(), 1);
    std::vector<char *> words;
    for (const std::string &word : start.words)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    if (start.prepare != nullptr)
        start.prepare();
    execv(words[0], words.data());
    _exit(127);
}

std::string proc_path(pid_t pid, const char *name)
{
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// The number behind "LABEL:" in /proc/PID/status.
long status_number(pid_t pid, const std::string &label)
{
    for (const std::string &line : lines_of(file_text(proc_path(pid, "status")))) {
        if (line.rfind(label + ":", 0) == 0)
            return strtol(line.c_str() + label.size() + 1, nullptr, 10);
    }
    return 0;
}

char process_state(pid_t pid)
{
    const std::string text = file_text(proc_path(pid, "stat"));
    const size_t end_of_name = text.rfind(')');
    return end_of_name != std::string::npos && end_of_name + 2 < text.size() ? text[end_of_name + 2] : '-';
}

} // namespace

bool wait_until(const std::function<bool()> &predicate)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(WAIT_SECONDS);
    auto pause = std::chrono::microseconds(100);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(10000));
    }
    return true;
}

std::string from_build(const char *name)
{
    const char *value = getenv(name);
    EXPECT_NE(value, nullptr) << name << " is not set: run this program through the build's tests";
    return value != nullptr ? value : "";
}

std::string shared_memory_prefix()
{
    return "/pfbtest-" + std::to_string(test_program) + "-";
}

pid_t program_start(const ProgramStart &start)
{
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0)
        become(start, parent);
    EXPECT_GT(pid, 0) << strerror(errno);
    return pid;
}

int program_wait(pid_t pid)
{
    int status = 0;
    pid_t ended = 0;
    const bool in_time = wait_until([&] {
        ended = waitpid(pid, &status, WNOHANG);
        return ended != 0;
    });
    if (!in_time) {
        ADD_FAILURE() << "process " << pid << " does not end";
        kill(pid, SIGKILL);
        ended = waitpid(pid, &status, 0);
    }
    EXPECT_EQ(ended, pid);
    return status;
}

ProgramResult program_run(ProgramStart start)
{
    const TemporaryFolder folder;
    const std::string out_path = folder.path() + "/out";
    const std::string err_path = folder.path() + "/err";
    start.out_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    start.err_fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int status = program_wait(program_start(start));
    close(start.out_fd);
    close(start.err_fd);
    return ProgramResult{status, file_text(out_path), file_text(err_path)};
}

int shell_status(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string link_target(const std::string &path)
{
    std::error_code error;
    return std::filesystem::read_symlink(path, error).string();
}

std::string file_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool file_exists(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

size_t count_of(const std::string &text, const std::string &part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        n++;
    return n;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> folder_entries(const std::string &path)
{
    std::vector<std::string> names;
    DIR *folder = opendir(path.c_str());
    if (folder == nullptr)
        return names;
    while (const dirent *entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    closedir(folder);
    return names;
}

TemporaryFolder::TemporaryFolder()
{
    const char *base = getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/pfbtest-XXXXXX";
    EXPECT_NE(mkdtemp(path_.data()), nullptr) << path_ << ": " << strerror(errno);
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    EXPECT_FALSE(file_exists(path_)) << path_ << " is left behind: " << error.message();
}

Pipe::Pipe()
{
    EXPECT_EQ(pipe2(fds_, O_CLOEXEC), 0) << strerror(errno);
    fcntl(fds_[0], F_SETFL, O_NONBLOCK);
}

Pipe::~Pipe()
{
    close_read();
    close_write();
}

void Pipe::close_read()
{
    if (fds_[0] >= 0)
        close(fds_[0]);
    fds_[0] = -1;
}

void Pipe::close_write()
{
    if (fds_[1] >= 0)
        close(fds_[1]);
    fds_[1] = -1;
}

const std::string &Pipe::text()
{
    char bytes[65536];
    ssize_t n;
    while ((n = read(fds_[0], bytes, sizeof bytes)) > 0)
        text_.append(bytes, static_cast<size_t>(n));
    if (n == 0)
        at_end_ = true;
    text_ = without_emulators_line(text_);
    return text_;
}

long process_switches(pid_t pid)
{
    return status_number(pid, "voluntary_ctxt_switches") + status_number(pid, "nonvoluntary_ctxt_switches");
}

size_t process_descriptors(pid_t pid)
{
    return folder_entries(proc_path(pid, "fd")).size();
}

size_t process_mappings(pid_t pid)
{
    return lines_of(file_text(proc_path(pid, "maps"))).size();
}

long process_resident_kb(pid_t pid)
{
    return status_number(pid, "VmRSS");
}

bool process_sleeps(pid_t pid)
{
    return process_state(pid) == 'S';
}

bool process_exists(pid_t pid)
{
    const char state = process_state(pid);
    return state != '-' && state != 'Z' && state != 'X';
}
