// SPDX-License-Identifier: MIT
// Clients of the server, in this process or in one of their own.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <sys/types.h>

#include "mc.h"
#include "pixels.h"

// A "create" request. The stride and the bytes of shared memory follow from the size where they are 0.
struct SurfaceRequest {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    int depth = 32;
    int alpha = 0;
    int level = 0;
    int stride = 0;
    int rotation = 0;
    size_t bytes = 0;
};

// More than the server handles of one connection in one turn of its main loop, several times over: a render that was
// due before has had its turn after so many questions and answers.
inline constexpr int QUESTIONS_TO_SETTLE = 80;

class TestClient {
public:
    // Connects under a name. Throws when that is not possible.
    explicit TestClient(const std::string &name);
    ~TestClient();
    TestClient(const TestClient &) = delete;
    TestClient &operator=(const TestClient &) = delete;

    void send(const char *word, std::initializer_list<int32_t> values = {});
    void send_text(const char *word, const std::string &text);
    // Makes shared memory of `request`'s size, zeroed, and sends "create". What an earlier one made must be in the
    // server's hands: its name goes.
    void create(const SurfaceRequest &request);
    // The same with the picture in it, as it is in `pixels`, at (x, y).
    void create(const Pixels &pixels, int x, int y, int level, int rotation = 0);
    // Writes the picture into the shared memory. Nothing is sent.
    void draw(const Pixels &pixels);
    void *memory() const { return memory_; }
    size_t memory_size() const { return size_; }
    // Gives the shared memory another size. What is missing must not be touched here.
    void cut_memory(size_t bytes);
    // True once the server has opened it.
    bool memory_is_taken() const;

    // Sends "lock_area" and waits for its answer.
    void lock(int x, int y, int width, int height);
    // Sends "get_native_color_depth" and waits for the answer: every earlier request of this client is handled then.
    int native_depth();
    // Waits until every earlier request is handled and every render that was due then has run.
    void settle();
    // Waits until any answer can be read.
    void wait_for_answer();
    // Shuts a direction of the connection: SHUT_RD or SHUT_WR. With either no more answers can be waited for.
    void shut(int direction);
    // True once the server has closed the connection. Does not wait, and takes what can be read.
    bool is_dropped();
    // False once the server has closed the connection. Waits for what is under way.
    bool is_connected();
    // Ends the connection; what it had in shared memory stays mapped here.
    void hang_up();

private:
    void send_packet(mc_packet *packet);
    mc_packet *call(mc_packet *packet);
    void drop_memory();

    mc_connection *connection_ = nullptr;
    std::string memory_name_;
    int memory_fd_ = -1;
    void *memory_ = nullptr;
    size_t size_ = 0;
};

// Shows the surfaces in one render: the first client holds the render lock meanwhile.
void show_together(std::initializer_list<TestClient *> clients);

// A client in a process of its own. The two sides take turns at named steps:
// the client says "I am that far" with reached(), the test waits for it and lets it go on.
class ClientSteps {
public:
    explicit ClientSteps(int fd) : fd_(fd) {}
    // In the client: reports, and waits until the test says go.
    void reached();

private:
    int fd_;
};

class ClientProcess {
public:
    // Runs `client` in a forked process, which ends with it: status 0, or 1 after a failed expectation in it.
    explicit ClientProcess(const std::function<void(ClientSteps &)> &client);
    ~ClientProcess(); // kills it when it still runs
    ClientProcess(const ClientProcess &) = delete;
    ClientProcess &operator=(const ClientProcess &) = delete;

    pid_t pid() const { return pid_; }
    // Waits for the client's next reached(). A test failure when it ends instead.
    void wait();
    void go();
    void kill(int signal_number);
    int join(); // what a shell would call its status

private:
    pid_t pid_ = -1;
    int fd_ = -1;
};

// A name that no other client of this test program has used.
std::string unused_shared_memory_name();
