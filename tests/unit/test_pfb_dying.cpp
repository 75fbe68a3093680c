// SPDX-License-Identifier: MIT
// A server on its way out: its clients' connections are closed already, and its socket takes new ones for a moment
// more.
#include "pfb_recovery.h"

#include <csignal>
#include <cstring>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

int listen_at(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    return bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && listen(fd, 8) == 0 ? fd : -1;
}

// A question is answered with the number 18.
void answer(int fd, const char *packet)
{
    if (strcmp(packet + 4, "get_native_color_depth") != 0) // behind the serial number
        return;
    char reply[12] = "\0\0\0\0\0i\0\0\x12\0\0";
    memcpy(reply, packet, 4);
    send(fd, reply, sizeof reply, MSG_NOSIGNAL);
}

// Answers each question of one client.
void serve_one(int listener)
{
    const int fd = accept(listener, nullptr, nullptr);
    char packet[4096] = {};
    while (recv(fd, packet, sizeof packet, 0) > 0)
        answer(fd, packet);
}

// A server that listens at two places, and a process that still has its sockets when it has ended: what the kernel
// closes of a process in an instant stays open here until close_socket.
class DyingServer {
public:
    explicit DyingServer(const std::string &path) : path_(path)
    {
        EXPECT_EQ(pipe(orders_), 0);
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        server_ = fork();
        if (server_ == 0)
            run(ready[1]);
        close(ready[1]);
        close(orders_[0]);
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
    }
    ~DyingServer()
    {
        if (server_ > 0)
            end();
        close(orders_[1]);
    }
    DyingServer(const DyingServer &) = delete;
    DyingServer &operator=(const DyingServer &) = delete;

    void end()
    {
        kill(server_, SIGKILL);
        waitpid(server_, nullptr, 0);
        server_ = -1;
    }
    // The first time the second socket takes the place of the first.
    void close_socket()
    {
        const char byte = '.';
        EXPECT_EQ(write(orders_[1], &byte, 1), 1);
    }

private:
    [[noreturn]] void run(int ready)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const std::string second = path_ + ".second";
        const int sockets[] = {listen_at(path_), listen_at(second)};
        if (fork() == 0)
            keep(sockets, second);
        if (write(ready, ".", 1) == 1)
            serve_one(sockets[0]);
        _exit(1);
    }
    [[noreturn]] void keep(const int *sockets, const std::string &second)
    {
        close(orders_[1]);
        char byte;
        if (read(orders_[0], &byte, 1) == 1 && rename(second.c_str(), path_.c_str()) == 0)
            close(sockets[0]);
        if (read(orders_[0], &byte, 1) == 1)
            close(sockets[1]);
        _exit(0);
    }

    std::string path_;
    pid_t server_ = -1;
    int orders_[2] = {};
};

std::string shared_object()
{
    for (const auto &entry : std::filesystem::directory_iterator("/dev/shm")) {
        if (entry.path().filename().string().starts_with("pfb." + std::to_string(getpid()) + "."))
            return entry.path().filename();
    }
    return "";
}

// Takes one client, answers its questions, and does not read beyond "lock_area", which it does not answer either.
class DeafServer {
public:
    explicit DeafServer(const std::string &path) : listener_(listen_at(path)), thread_([this] { run(); }) {}
    ~DeafServer()
    {
        thread_.join();
        close(connection_);
        close(listener_);
    }
    DeafServer(const DeafServer &) = delete;
    DeafServer &operator=(const DeafServer &) = delete;

private:
    void run()
    {
        connection_ = accept(listener_, nullptr, nullptr);
        char packet[4096] = {};
        while (strcmp(packet + 4, "lock_area") != 0 && recv(connection_, packet, sizeof packet, 0) > 0)
            answer(connection_, packet);
        EXPECT_EQ(shutdown(connection_, SHUT_RD), 0);
    }

    int listener_, connection_ = -1;
    std::thread thread_;
};

// The lock that is taken back would have ended the block as well: the next server has neither.
TEST_F(PfbRecovery, ABlockThatALockTookWithItDoesNotComeBack)
{
    pfb_disconnect(client);
    service.close();
    service.take(0);
    const DeafServer server(service.socket_path());
    SetUp();
    ASSERT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 10, 20, 100, 50, 3, 0), PFB_OK) << pfb_error_text();
    unlink(service.socket_path().c_str());
    service.open();
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    pfb_set_timeout(client, 2000); // long enough for the server to have read it
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_ERROR_TIMEOUT);
    pfb_set_timeout(client, PATIENCE_MS);
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre(HasSubstr("create "), DEPTH));
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
}

// What it takes on its way out is neither one more death to be careful of nor a reason to leave changes out.
TEST_F(PfbRecovery, AServerOnItsWayOutEndsOnce)
{
    pfb_disconnect(client);
    service.close();
    DyingServer server(std::string(getenv("MC_RUNTIME_DIR")) + "/pfb.mc");
    SetUp();
    ASSERT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 10, 20, 100, 50, 3, 0), PFB_OK) << pfb_error_text();
    EXPECT_EQ(pfb_move(client, 30, 40), PFB_OK);
    server.end();
    for (int i = 0; i < 2; i++) {
        const std::string before = shared_object();
        EXPECT_TRUE(dispatch_until([&] { return !shared_object().empty() && shared_object() != before; })) << i;
        EXPECT_EQ(pfb_is_connected(client), 0);
        server.close_socket();
    }
    EXPECT_TRUE(dispatch_until([&] { return pfb_fd(client) < 0; }));
    service.take(0);
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_RESTORED));
    EXPECT_THAT(service.take(2), ElementsAre(HasSubstr(" 30 40 100 50 "), DEPTH));
}

} // namespace
