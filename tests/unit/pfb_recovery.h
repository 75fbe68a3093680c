// SPDX-License-Identifier: MIT
// A client of a service that ends and is there again.
#pragma once

#include "pfb.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "pfb_service.h"
#include "pfb_system.h"

using Strings = std::vector<std::string>;

inline const std::string DEPTH = "get_native_color_depth ";
inline constexpr int PATIENCE_MS = 30000;

inline size_t entries(const char *folder, const std::string &prefix = "")
{
    size_t n = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        n += entry.path().filename().string().starts_with(prefix) ? 1 : 0;
    return n;
}

inline std::string object_prefix()
{
    return "pfb." + std::to_string(getpid()) + ".";
}

inline size_t shared_objects()
{
    return entries("/dev/shm", object_prefix());
}

// A process that was killed may have left some, and its number may be this one's now.
inline bool remove_left_objects()
{
    for (const auto &entry : std::filesystem::directory_iterator("/dev/shm")) {
        if (entry.path().filename().string().starts_with(object_prefix()))
            std::filesystem::remove(entry.path());
    }
    return true;
}
inline const bool left_objects_are_gone = remove_left_objects();

// A socket in the service's place that nobody takes connections from, with no room for one more.
class FullSocket {
public:
    explicit FullSocket(const std::string &path) : path_(path)
    {
        address_.sun_family = AF_UNIX;
        strncpy(address_.sun_path, path.c_str(), sizeof address_.sun_path - 1);
        fds_.push_back(new_socket());
        EXPECT_EQ(bind(fds_[0], reinterpret_cast<sockaddr *>(&address_), sizeof address_), 0) << strerror(errno);
        EXPECT_EQ(listen(fds_[0], 0), 0);
        do
            fds_.push_back(new_socket());
        while (connect(fds_.back(), reinterpret_cast<sockaddr *>(&address_), sizeof address_) == 0);
        EXPECT_EQ(errno, EAGAIN) << strerror(errno);
    }
    ~FullSocket()
    {
        for (const int fd : fds_)
            ::close(fd);
        unlink(path_.c_str());
    }
    FullSocket(const FullSocket &) = delete;
    FullSocket &operator=(const FullSocket &) = delete;

private:
    static int new_socket() { return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

    std::string path_;
    sockaddr_un address_ = {};
    std::vector<int> fds_;
};

class PfbRecovery : public testing::Test {
protected:
    void SetUp() override
    {
        client = pfb_connect("fb.test");
        ASSERT_NE(client, nullptr) << pfb_error_text();
        pfb_set_timeout(client, PATIENCE_MS);
        pfb_set_event_func(
            client,
            [](pfb_client *, pfb_event event, void *self) {
                static_cast<PfbRecovery *>(self)->events.push_back(event);
            },
            this);
    }
    void TearDown() override
    {
        pfb_disconnect(client);
        EXPECT_EQ(shared_objects(), 0u);
        pfb_system = {};
    }

    void create(pfb_format format = PFB_FORMAT_XRGB32)
    {
        ASSERT_EQ(pfb_create(client, format, 10, 20, 100, 50, 3, 0), PFB_OK) << pfb_error_text();
        service.take(2);
    }
    // What an application's main loop does, until there is nothing to wait for. False after a generous while.
    bool dispatch_until(const std::function<bool()> &done)
    {
        pollfd entry = {pfb_poll_fd(client), POLLIN, 0};
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(PATIENCE_MS);
        while (!done()) {
            if (std::chrono::steady_clock::now() > end || poll(&entry, 1, PATIENCE_MS) <= 0)
                return false;
            wakeups++;
            EXPECT_EQ(turn(), PFB_OK);
        }
        return true;
    }
    bool come_back()
    {
        return dispatch_until([&] { return pfb_is_connected(client) == 1; });
    }
    bool lose()
    {
        return dispatch_until([&] { return pfb_is_connected(client) == 0 && !events.empty(); });
    }
    // The service ends and is there again, and ends over a request of the client's return.
    void die_on_return(const std::string &deadly)
    {
        service.close();
        service.die_of(deadly);
        service.open();
        Strings sent;
        EXPECT_TRUE(dispatch_until([&] {
            const Strings more = service.take(0);
            sent.insert(sent.end(), more.begin(), more.end());
            return !sent.empty() && sent.back().starts_with(deadly);
        }));
        EXPECT_TRUE(lose());
    }
    // The service ends and is there again; what the client makes there.
    Strings sent_after_the_end()
    {
        service.close();
        service.take(0);
        service.open();
        EXPECT_TRUE(come_back());
        return service.take(1);
    }

    PfbService service;
    pfb_client *client = nullptr;
    // What the application calls when there is something to do.
    std::function<int()> turn = [this] { return pfb_dispatch(client); };
    std::vector<pfb_event> events;
    int wakeups = 0;
};
