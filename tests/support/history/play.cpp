// SPDX-License-Identifier: MIT
// A history is played in a child process, and the parent judges how the child ended: where the server must abort the
// child is gone.
#include "play.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../emulator.h"

std::string file_from(int fd, off_t &at)
{
    std::string text;
    char piece[4096];
    for (ssize_t n; (n = pread(fd, piece, sizeof piece, at)) > 0; at += n)
        text.append(piece, static_cast<size_t>(n));
    return text;
}

std::string object_name(pid_t family, int object)
{
    return "/pfb-history-" + std::to_string(family) + "-" + std::to_string(object);
}

bool text_matches(const std::string &expected, const std::string &actual)
{
    size_t at = 0;
    for (char c : expected) {
        if (c != model::ANY_ADDRESS) {
            if (at >= actual.size() || actual[at++] != c)
                return false;
            continue;
        }
        if (actual.compare(at, 2, "0x") != 0)
            return false;
        for (at += 2; at < actual.size() && isxdigit(static_cast<unsigned char>(actual[at]));)
            at++;
    }
    return at == actual.size();
}

std::vector<std::string> sorted_notices(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end; at < text.size(); at = end + 1) {
        end = std::min(text.find('\n', at), text.size() - 1);
        lines.push_back(text.substr(at, end + 1 - at));
    }
    for (size_t i = 0; i < lines.size(); i++) {
        for (size_t j = i; j > 0 && lines[j].rfind("shared memory", 0) == 0 &&
                           lines[j - 1].rfind("shared memory", 0) == 0 && lines[j] < lines[j - 1];
             j--)
            std::swap(lines[j], lines[j - 1]);
    }
    return lines;
}

std::string different(const char *what, const std::string &expected, const std::string &actual)
{
    return std::string(what) + "\nexpected:\n" + expected + "\nfound:\n" + actual + "\n";
}

namespace {

int temporary_file()
{
    int fd = memfd_create("history", 0);
    if (fd < 0) {
        perror("memfd_create");
        abort();
    }
    return fd;
}

std::string next_line(std::string &text)
{
    size_t end = text.find('\n');
    std::string line = text.substr(0, end);
    text.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

std::string judge_abort(const Channel &channel, std::string report, int status)
{
    std::string function = next_line(report), expression = next_line(report);
    off_t out_at = std::stol(next_line(report)), err_at = std::stol(next_line(report));
    size_t out_size = std::stoul(next_line(report));
    std::string out = file_from(channel.out, out_at), err = without_emulators_line(file_from(channel.err, err_at));
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGABRT)
        return "the server should have aborted in " + function + " on " + expression + "\n" + err;
    size_t last = err.rfind('\n', err.size() - 2);
    last = last == std::string::npos ? 0 : last + 1;
    std::string last_words = err.substr(last), before = err.substr(0, last);
    std::string wrong;
    if (last_words.find(": " + function + ": Assertion `" + expression + "' failed.\n") == std::string::npos)
        wrong += different("last words", function + ": Assertion `" + expression + "' failed.", last_words);
    if (!text_matches(report.substr(0, out_size), out))
        wrong += different("standard output before the abort", report.substr(0, out_size), out);
    if (!text_matches(report.substr(out_size), before))
        wrong += different("standard error before the abort", report.substr(out_size), before);
    return wrong;
}

std::string judge(const Channel &channel, int status)
{
    off_t start = 0, err_start = 0;
    std::string report = file_from(channel.report, start);
    if (report.rfind("ABORT\n", 0) == 0)
        return judge_abort(channel, report.substr(6), status);
    if (!report.empty())
        return report;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return {};
    std::string err = file_from(channel.err, err_start);
    return "the server ended (wait status " + std::to_string(status) + ")\n" +
           (err.size() > 6000 ? err.substr(err.size() - 6000) : err);
}

} // namespace

std::string history_play(const Config &config, const History &history)
{
    Channel channel = {temporary_file(), temporary_file(), temporary_file()};
    pid_t child = fork();
    if (child == 0)
        history_play_child(channel, config, history);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return "no child process";
    std::string wrong = judge(channel, status);
    for (const Action &a : history) {
        if (a.makes)
            shm_unlink(object_name(getpid(), a.object).c_str());
    }
    close(channel.out);
    close(channel.err);
    close(channel.report);
    return wrong;
}

History history_shrink(const Config &config, History history)
{
    for (size_t piece = history.size() / 2; piece >= 1; piece /= 2) {
        for (size_t at = 0; at + piece <= history.size();) {
            History shorter = history;
            shorter.erase(shorter.begin() + static_cast<ptrdiff_t>(at),
                          shorter.begin() + static_cast<ptrdiff_t>(at + piece));
            if (history_play(config, shorter).empty())
                at += piece;
            else
                history = shorter;
        }
        if (piece == 1)
            break;
    }
    return history;
}
