// SPDX-License-Identifier: MIT
#include "test_client.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "process.h"

namespace {

constexpr int ANSWER_MS = WAIT_SECONDS * 1000;

int depth_of(const Pixels &pixels)
{
    return pixels.format == PixelFormat::RGB565 ? 16 : pixels.format == PixelFormat::RGB666 ? 18 : 32;
}

} // namespace

std::string unused_shared_memory_name()
{
    static int number;
    return shared_memory_prefix() + std::to_string(getpid()) + "-" + std::to_string(number++);
}

TestClient::TestClient(const std::string &name) : connection_(mc_connect("pfb", name.c_str()))
{
    if (connection_ == nullptr)
        throw std::runtime_error(name + " cannot connect: " + strerror(errno)); // ends the test
}

TestClient::~TestClient()
{
    hang_up();
    drop_memory();
}

void TestClient::hang_up()
{
    mc_close(connection_);
    connection_ = nullptr;
}

void TestClient::drop_memory()
{
    if (memory_ != nullptr)
        munmap(memory_, size_);
    if (!memory_name_.empty())
        shm_unlink(memory_name_.c_str()); // gone already when the server has taken it
    if (memory_fd_ >= 0)
        close(memory_fd_);
    memory_ = nullptr;
    memory_fd_ = -1;
}

void TestClient::send_packet(mc_packet *packet)
{
    if (connection_ != nullptr)
        mc_send(connection_, packet); // that the server is gone shows where an answer is waited for
    mc_packet_free(packet);
}

void TestClient::send(const char *word, std::initializer_list<int32_t> values)
{
    mc_packet *packet = mc_packet_new_command(word);
    for (int32_t value : values)
        mc_packet_build_args(packet, "i", value);
    send_packet(packet);
}

void TestClient::send_text(const char *word, const std::string &text)
{
    mc_packet *packet = mc_packet_new_command(word);
    EXPECT_EQ(mc_packet_build_args(packet, "s", text.c_str()), 1);
    send_packet(packet);
}

void TestClient::create(const SurfaceRequest &request)
{
    drop_memory();
    const int stride = request.stride != 0 ? request.stride : request.width * (request.depth == 16 ? 2 : 4);
    const int64_t needed = int64_t{stride} * request.height;
    size_ = request.bytes != 0 ? request.bytes : static_cast<size_t>(needed > 0 ? needed : 1);
    memory_name_ = unused_shared_memory_name();
    memory_fd_ = shm_open(memory_name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_GE(memory_fd_, 0) << strerror(errno);
    cut_memory(size_);
    memory_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, memory_fd_, 0);
    ASSERT_NE(memory_, MAP_FAILED) << strerror(errno);
    mc_packet *packet = mc_packet_new_command("create");
    EXPECT_EQ(mc_packet_build_args(packet, "iiiiiiiiis", request.alpha, request.depth, request.x, request.y,
                                   request.width, request.height, stride, request.level, request.rotation,
                                   memory_name_.c_str()),
              10);
    send_packet(packet);
}

void TestClient::create(const Pixels &pixels, int x, int y, int level, int rotation)
{
    SurfaceRequest request;
    request.x = x;
    request.y = y;
    request.width = pixels.width;
    request.height = pixels.height;
    request.depth = depth_of(pixels);
    request.alpha = pixels.format == PixelFormat::ARGB ? 1 : 0;
    request.level = level;
    request.rotation = rotation;
    request.stride = pixels.stride;
    create(request);
    draw(pixels);
}

void TestClient::draw(const Pixels &pixels)
{
    ASSERT_LE(pixels.bytes.size(), size_);
    memcpy(memory_, pixels.bytes.data(), pixels.bytes.size());
}

void TestClient::cut_memory(size_t bytes)
{
    EXPECT_EQ(ftruncate(memory_fd_, static_cast<off_t>(bytes)), 0) << strerror(errno);
}

bool TestClient::memory_is_taken() const
{
    return !file_exists("/dev/shm" + memory_name_);
}

mc_packet *TestClient::call(mc_packet *packet)
{
    mc_packet *answer = connection_ != nullptr ? mc_call(connection_, packet, ANSWER_MS) : nullptr;
    mc_packet_free(packet);
    return answer;
}

void TestClient::lock(int x, int y, int width, int height)
{
    mc_packet *packet = mc_packet_new_command("lock_area");
    mc_packet_build_args(packet, "iiii", x, y, width, height);
    mc_packet *answer = call(packet);
    ASSERT_NE(answer, nullptr) << "no answer to lock_area: " << strerror(errno);
    EXPECT_STREQ(mc_packet_command(answer), "");
    EXPECT_STREQ(mc_packet_signature(answer), "");
    mc_packet_free(answer);
}

int TestClient::native_depth()
{
    mc_packet *answer = call(mc_packet_new_command("get_native_color_depth"));
    if (answer == nullptr) {
        ADD_FAILURE() << "no answer to get_native_color_depth: " << strerror(errno);
        return -1;
    }
    int32_t depth = -1;
    EXPECT_EQ(mc_packet_parse_args(answer, "i", &depth), 1);
    EXPECT_STREQ(mc_packet_signature(answer), "i");
    mc_packet_free(answer);
    return depth;
}

void TestClient::settle()
{
    for (int i = 0; i < QUESTIONS_TO_SETTLE && !::testing::Test::HasFatalFailure(); i++) {
        if (native_depth() < 0)
            return;
    }
}

void TestClient::wait_for_answer()
{
    pollfd entry{mc_fd(connection_), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, ANSWER_MS), 1) << "no answer";
}

void TestClient::shut(int direction)
{
    EXPECT_EQ(shutdown(mc_fd(connection_), direction), 0) << strerror(errno);
}

bool TestClient::is_dropped()
{
    char bytes[64];
    const ssize_t n = recv(mc_fd(connection_), bytes, sizeof bytes, MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno == ECONNRESET);
}

// Everything that was sent is in the server's hands when this question is answered, or the connection is found closed.
bool TestClient::is_connected()
{
    mc_packet *answer = call(mc_packet_new_command("get_native_color_depth"));
    const bool connected = answer != nullptr;
    if (!connected) {
        EXPECT_EQ(errno, EPIPE) << strerror(errno);
    }
    mc_packet_free(answer);
    return connected;
}

void show_together(std::initializer_list<TestClient *> clients)
{
    TestClient *first = *clients.begin();
    first->lock(0, 0, 0, 0);
    for (TestClient *client : clients) {
        client->send("show");
        client->native_depth();
    }
    first->send("unlock");
    first->settle();
}

void ClientSteps::reached()
{
    char byte = '.';
    if (write(fd_, &byte, 1) != 1 || read(fd_, &byte, 1) != 1)
        _exit(1); // the test is over
}

ClientProcess::ClientProcess(const std::function<void(ClientSteps &)> &client)
{
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0) << strerror(errno);
    const pid_t test = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != test)
            _exit(1);
        close(ends[0]);
        ClientSteps steps(ends[1]);
        try {
            client(steps);
        } catch (const std::exception &error) {
            ADD_FAILURE() << error.what();
        }
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    EXPECT_GT(pid_, 0) << strerror(errno);
    close(ends[1]);
    fd_ = ends[0];
}

ClientProcess::~ClientProcess()
{
    if (pid_ > 0) {
        kill(SIGKILL);
        join();
    }
    close(fd_);
}

void ClientProcess::wait()
{
    pollfd entry{fd_, POLLIN, 0};
    ASSERT_EQ(poll(&entry, 1, ANSWER_MS), 1) << "the client does not get that far";
    char byte;
    ASSERT_EQ(read(fd_, &byte, 1), 1) << "the client has ended";
}

void ClientProcess::go()
{
    const char byte = '.';
    EXPECT_EQ(::send(fd_, &byte, 1, MSG_NOSIGNAL), 1) << "the client has ended";
}

void ClientProcess::kill(int signal_number)
{
    ::kill(pid_, signal_number);
}

int ClientProcess::join()
{
    const int status = program_wait(pid_);
    pid_ = -1;
    return shell_status(status);
}
