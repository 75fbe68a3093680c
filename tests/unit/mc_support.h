// SPDX-License-Identifier: MIT
// What the tests of the message channel share: a private runtime folder, a server that notes what happens to it, and
// clients that write bytes to a socket without the library.
#pragma once

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

#include "factory.h"
#include "wire.h"

// A descriptor that is closed with its scope.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    int release();
    void reset(int fd = -1);

private:
    int fd_;
};

// Everything that the servers of a test were told, in order: "connect NAME", "NAME: WORD SIGNATURE", "hup NAME".
extern std::vector<std::string> events;
extern std::vector<std::string> log_lines;
extern std::vector<mc_connection *> connections; // the living ones, in order of their greeting

// Opens a service whose connections note events and answer: "add" ("ii") with the sum, "echo" ("s") with the string.
mc_factory *open_noting(const char *service);
void note_connection(mc_factory *factory, mc_connection *connection, void *user_data);
mc_packet *note_request(mc_connection *connection, mc_packet *request);
int note_hangup(mc_connection *connection);

class McTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override; // fails on descriptors that were left open
    std::string path(const std::string &file) const { return folder + "/" + file; }
    std::string folder;

private:
    size_t open_at_start = 0;
};

// With the service "svc", which notes what happens to it.
class McServiceTest : public McTest {
protected:
    void SetUp() override;
    void TearDown() override;
};
extern mc_factory *factory; // the service; a test may close it and set it null

// Dispatches what is ready, once. Returns whether anything was.
bool turn();
// Turns until nothing is ready.
void settle();
// Turns until `done`, waiting in between. A generous limit makes a hanging test fail.
[[nodiscard]] bool turn_until(const std::function<bool()> &done);
// Where the default main context would wait now: its time-out in milliseconds (-1: for ever), and whether some
// descriptor is ready.
struct Wait {
    int timeout_ms;
    bool ready;
};
Wait next_wait();

// The format written out once more, independently of the library.
std::string u32(uint32_t value);
std::string padded_text(const std::string &text); // with its NUL, filled up to a multiple of 4
std::string header(uint32_t serial, const std::string &word, const std::string &signature);
std::string greeting(const std::string &name, uint32_t version = 1);

Fd raw_connect(const std::string &service);                         // nothing sent yet
Fd raw_client(const std::string &service, const std::string &name); // greeted
bool raw_send(const Fd &fd, const std::string &bytes);
std::string raw_receive(const Fd &fd); // what is there, without waiting; empty: nothing or the end
bool raw_at_end(const Fd &fd);         // the server has closed
Fd raw_listen(const std::string &socket_path);

size_t open_descriptors();

// As long as it lives this process has no free descriptor.
class NoDescriptors {
public:
    NoDescriptors();
    ~NoDescriptors();
    NoDescriptors(const NoDescriptors &) = delete;
    NoDescriptors &operator=(const NoDescriptors &) = delete;

private:
    rlimit before;
    std::vector<Fd> filler;
};

// Runs `body` in a forked process. It is killed when the test's process ends.
pid_t in_child(const std::function<int()> &body);
int wait_for(pid_t child); // exit status, or -1 for a signal
// Hands `fds` to a forked process the way the service manager does and runs `body` there; `pid` is the process that is
// said to be meant, 0: that one. Returns its exit status.
int run_activated(const std::vector<int> &fds, pid_t pid, const std::function<int()> &body);
// Starts a program; reap_in_loop turns the main loop until it has ended and returns its exit status.
pid_t start(const std::vector<std::string> &words);
int reap_in_loop(pid_t child);
