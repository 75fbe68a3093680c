// SPDX-License-Identifier: MIT
// A service in the place of the server, in a thread of its own: it notes what it is sent and answers as it is told.
#pragma once

#include <atomic>
#include <condition_variable>
#include <glib.h>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "mc.h"

class PfbService {
public:
    PfbService();
    ~PfbService(); // a test failure when something is left in its folder
    PfbService(const PfbService &) = delete;
    PfbService &operator=(const PfbService &) = delete;

    // Waits until `n` requests have come in since the last call, and returns them: "WORD SIGNATURE ARGUMENT...", the
    // name of shared memory as NAME. Fewer after a generous while.
    std::vector<std::string> take(size_t n);
    // Waits until a client's hang-up has been handled (a request that comes later does not come from it).
    void wait_for_hangup();

    void answer(bool answers) { answers_ = answers; }
    // Between these it handles nothing.
    void stall() { stall_.lock(); }
    void go_on() { stall_.unlock(); }
    // Drops its clients and stops listening.
    void close();
    // Listens again, with another socket; of what it noted nothing is lost.
    void open();
    // At the next request that begins with this text it closes, and handles nothing more.
    void die_of(const std::string &request);

    // Hangs up on clients as soon as they have greeted, as a server that has no room for more; counted.
    void turn_away(bool turns_away) { turns_away_ = turns_away; }
    int turned_away() const { return turned_away_; }

    // Does as a server of another user does, who cannot remove the name of a client's memory.
    void leave_names() { leaves_names_ = true; }

    std::string socket_path() const { return folder_ + "/pfb.mc"; }
    // What the last "create" came with: the client's name, its memory's name, state and first four bytes.
    std::string client_name, memory_name;
    struct stat memory = {};
    uint32_t first_word = 0;

private:
    static void on_connection(mc_factory *factory, mc_connection *connection, void *user_data);
    static mc_packet *on_request(mc_connection *connection, mc_packet *request);
    static int on_hangup(mc_connection *connection);
    void run();
    bool is_dead();
    void note(mc_connection *connection, const mc_packet *request, const std::string &text);
    void open_memory(const char *name);

    std::string folder_;
    std::atomic<bool> answers_ = true;
    std::atomic<bool> leaves_names_ = false;
    std::atomic<bool> turns_away_ = false;
    std::atomic<int> turned_away_ = 0;
    std::mutex stall_;
    std::mutex mutex_; // of what follows
    std::condition_variable changed_;
    std::vector<std::string> requests_;
    bool listening_ = false;
    bool dead_ = false;
    std::string deadly_;
    int hangups_ = 0;
    GMainLoop *loop_;
    std::thread thread_;
};
