// SPDX-License-Identifier: MIT
#include "stage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "../support/composer.h"
#include "../support/descriptors.h"
#include "further_server.h"

namespace {

constexpr unsigned UPDATES_AT_FIRST = 2;
constexpr unsigned UPDATES_AFTERWARDS = 5;

// What the server's memory may have grown by: allocators keep some of what was freed, and code is paged in. Under the
// address sanitizer everything takes more, and freed memory is kept back.
constexpr long GROWTH_KIB = 1024;
constexpr long GROWTH_SANITIZED_KIB = 32 * 1024;

// Lines that any misbehaviour may cause: a render that was scheduled for something that is gone or out of sight.
const char *const USUAL_LINE = "dirty region is empty!!!!!!!!!!!!!!!!!!!!";

// Connections in the kernel's table, those that wait to be accepted included.
size_t connections_at(const std::string &socket_path)
{
    size_t n = 0;
    for (const std::string &line : lines_of(file_text("/proc/net/unix")))
        n += count_of(line, " " + socket_path) > 0 && count_of(line, " 0005 03 ") > 0 ? 1 : 0;
    return n;
}

bool is_sanitized(pid_t pid)
{
    return file_text("/proc/" + std::to_string(pid) + "/maps").find("asan") != std::string::npos;
}

// In place of the usual ones: little freed memory is kept back, and what cannot be had gives null, as it does without
// the sanitizer.
std::pair<std::string, std::string> sanitizer_options()
{
    return {"ASAN_OPTIONS", "detect_leaks=0:quarantine_size_mb=1:allocator_may_return_null=1"};
}

size_t lines_with(const std::string &log, const std::string &part)
{
    size_t n = 0;
    for (const std::string &line : lines_of(log))
        n += count_of(line, part) > 0 ? 1 : 0;
    return n;
}

// Enough of a log that may be long.
std::string end_of(const std::string &log)
{
    return log.substr(log.size() - std::min<size_t>(log.size(), 1000));
}

// 12 345
std::string in_groups(unsigned long number)
{
    std::string text = std::to_string(number);
    for (size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, " ");
    return text;
}

// For what is measured: looks often.
bool wait_finely(const std::function<bool()> &predicate)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(WAIT_SECONDS);
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        usleep(200);
    }
    return true;
}

int append_to(const std::string &path)
{
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
}

} // namespace

Stage::Stage(const StageOptions &options)
    : options_(options), memory_(options.room.empty() ? nullptr : std::make_unique<SmallMemory>(options.room)),
      panel_({.format = options.format, .panel = options.panel})
{
    for (const std::string &name : folder_entries(folder())) {
        if (name.rfind("pfbpanel-", 0) == 0)
            panel_folder_ = folder() + "/" + name;
    }
    if (options.reader == Reader::BLOCKED || options.reader == Reader::GONE)
        pipe_ = std::make_unique<Pipe>();
    if (options.reader == Reader::GONE)
        pipe_->close_read();
    start_server();
    if (options.bystander) {
        bystander_ = std::make_unique<Bystander>(panel());
        bystander_->expect_progress(UPDATES_AT_FIRST);
    }
    if (::testing::Test::HasFailure())
        throw std::runtime_error("the stage does not stand: " + err()); // ends the test
    before_ = usage();
}

Stage::~Stage()
{
    bystander_.reset();
    if (server_ > 0) {
        kill(server_, SIGKILL);
        program_wait(server_);
        ADD_FAILURE() << "the misbehaviour was not brought to its end; the log: " << end_of(err());
    }
    EXPECT_EQ(left_shared_memory(), "") << "shared memory is left behind";
    EXPECT_EQ(sanitizer_report(err()), "") << err();
}

ProgramStart Stage::beside(const std::vector<std::string> &words) const
{
    ProgramStart start;
    start.words = {from_build("PFB_TEST_PANEL"), "run", "--panel", panel_folder_, "--"};
    start.words.insert(start.words.end(), words.begin(), words.end());
    start.environment = server_environment(folder());
    start.environment.push_back(sanitizer_options());
    return start;
}

void Stage::ctl(std::vector<std::string> words) const
{
    words.insert(words.begin(), from_build("PFB_TEST_CTL"));
    ProgramStart start = beside(words);
    start.environment.emplace_back("LSAN_OPTIONS", from_build("PFB_TEST_LSAN"));
    const ProgramResult result = program_run(start);
    EXPECT_EQ(shell_status(result.status), 0) << "pfbctl " << words[1] << ": " << result.err;
}

void Stage::start_server()
{
    ProgramStart start = beside({server_program()});
    start.err_fd = append_to(folder() + "/server-err");
    start.out_fd = append_to(folder() + "/server-out");
    if (options_.reader == Reader::CLOSED)
        start.closed = {STDIN_FILENO, STDOUT_FILENO};
    const int file = start.out_fd;
    if (pipe_ != nullptr)
        start.out_fd = pipe_->write_end();
    if (options_.older_kernel)
        start.prepare = pretend_older_kernel;
    server_ = program_start(start);
    close(start.err_fd);
    close(file);
    EXPECT_TRUE(wait_until([&] { return is_listened_at(socket_path()) || has_ended(); }));
    EXPECT_FALSE(has_ended()) << err();
}

bool Stage::has_ended() const
{
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(server_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

void Stage::in_process(const std::function<void()> &client)
{
    ClientProcess process([&](ClientSteps &) { client(); });
    EXPECT_EQ(process.join(), 0);
}

void Stage::until_updates(unsigned updates, const std::function<void(std::atomic<unsigned long> &)> &client)
{
    ClientProcess process([&](ClientSteps &) { client(*done_); });
    EXPECT_TRUE(wait_until([&] { return *done_ > 0; })) << "it does not begin";
    bystander_->expect_progress(updates);
    EXPECT_TRUE(process_exists(process.pid())) << "it has ended by itself";
    process.kill(SIGKILL);
    process.join();
}

void Stage::expect_connections_of_clients(size_t n) const
{
    EXPECT_TRUE(wait_until([&] { return connections_at(socket_path()) == before_.connections + n; }));
}

void Stage::expect_lists(size_t lines) const
{
    constexpr size_t FIRST_LINES = 9; // the options and the screen
    constexpr size_t HEAD = 2, SURFACE = 5, SURFACES = 3;
    constexpr size_t LIST = HEAD + SURFACES * SURFACE;
    ASSERT_GE(lines, FIRST_LINES);
    EXPECT_EQ((lines - FIRST_LINES) % LIST, 0u) << "lines of lists that are not whole";
    const size_t lists = (lines - FIRST_LINES) / LIST;
    EXPECT_GE(lists, *done_);
    EXPECT_LE(lists, *done_ + 1);
}

void Stage::expect_end(int status)
{
    EXPECT_TRUE(wait_finely([&] { return has_ended(); })) << "the server goes on";
    const auto end = std::chrono::steady_clock::now();
    EXPECT_EQ(shell_status(program_wait(server_)), status) << end_of(err());
    ends_++;
    if (panel().memory() != nullptr)
        panel_.erase();
    const unsigned before = bystander_ != nullptr ? bystander_->updates() : 0;
    start_server();
    if (bystander_ == nullptr)
        return;
    EXPECT_TRUE(wait_finely([&] { return bystander_->updates() > before; })) << "the bystander does not come back";
    const auto took = std::chrono::steady_clock::now() - end;
    standstill_ms_ = std::max(standstill_ms_, std::chrono::ceil<std::chrono::milliseconds>(took).count());
    EXPECT_TRUE(wait_until([&] { return bystander_->returns() == ends_; })) << "not all of it has come back";
}

void Stage::stop_server()
{
    EXPECT_EQ(end_server(server_), 0) << end_of(err());
    server_ = -1;
    if (panel().memory() != nullptr) {
        EXPECT_TRUE(panel().is_black());
    }
}

Stage::Usage Stage::usage() const
{
    const std::string mappings = file_text("/proc/" + std::to_string(server_) + "/maps");
    return {process_descriptors(server_), connections_at(socket_path()), count_of(mappings, " /dev/shm/"),
            process_resident_kb(server_)};
}

bool Stage::uses_no_more() const
{
    const Usage now = usage();
    return now.descriptors == before_.descriptors + options_.kept && now.connections == before_.connections &&
           now.surfaces == before_.surfaces + options_.orphans;
}

void Stage::expect_usage_is_back()
{
    EXPECT_TRUE(wait_until([&] { return uses_no_more(); }));
    after_ = usage();
    EXPECT_EQ(after_.descriptors, before_.descriptors + options_.kept);
    EXPECT_EQ(after_.connections, before_.connections);
    EXPECT_EQ(after_.surfaces, before_.surfaces + options_.orphans) << "client memory that is mapped";
    EXPECT_LE(after_.resident_kb, before_.resident_kb + (is_sanitized(server_) ? GROWTH_SANITIZED_KIB : GROWTH_KIB));
}

void Stage::expect_log() const
{
    for (const LogLine &line : lines_) {
        EXPECT_TRUE(wait_until([&] { return lines_with(err(), line.part) >= line.least; }))
            << lines_with(err(), line.part) << " times in the log, instead of " << line.least << ": " << line.part
            << "\n"
            << end_of(err());
        EXPECT_LE(lines_with(err(), line.part), line.most) << line.part << "\n" << end_of(err());
    }
    for (const std::string &line : lines_of(err())) {
        const bool is_known = count_of(line, USUAL_LINE) > 0 ||
                              std::any_of(lines_.begin(), lines_.end(),
                                          [&](const LogLine &known) { return count_of(line, known.part) > 0; });
        ASSERT_TRUE(is_known) << "an unexpected line in the log: " << line;
    }
}

void Stage::expect_outcome(const std::vector<LogLine> &lines)
{
    lines_.insert(lines_.end(), lines.begin(), lines.end());
    ASSERT_FALSE(has_ended()) << "the server has ended: " << end_of(err());
    bystander_->expect_progress(UPDATES_AFTERWARDS);
    expect_usage_is_back();
    expect_log();
    bystander_->rest();
    EXPECT_EQ(panel_shows(panel(), bystander_->picture()), "");
    if (panel().depth() == 32) {
        EXPECT_EQ(bystander_->foreign_words(), 0u);
    }
    bystander_->expect_whole_returns(ends_);
    stop_server();
}

std::string Stage::figures(const std::string &unit) const
{
    std::string text = in_groups(*done_) + " " + (*done_ == 1 ? unit.substr(0, unit.size() - 1) : unit) + "; ";
    if (bystander_ == nullptr)
        return text + "no bystander";
    if (ends_ > 0) // its memory is another process's
        return text + "back after " + std::to_string(standstill_ms_) + " ms";
    text += "updates within " + std::to_string(bystander_->worst_ms()) + " ms";
    const long growth = after_.resident_kb - before_.resident_kb;
    return text + "; " + (growth > 0 ? "+" : "") + std::to_string(growth) + " KiB";
}
