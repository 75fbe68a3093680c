// SPDX-License-Identifier: MIT
// Servers that end over others' requests, or turn clients away: whoever did nothing wrong loses nothing by it.
#include "pfb_recovery.h"

#include <chrono>
#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>

#include "pfb_system.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr int LONGER_THAN_A_TRIAL_MS = 1200; // of what has been changed, by the library

// A server in a process of its own that ends as soon as a client has greeted.
class BriefServer {
public:
    explicit BriefServer(const std::string &path)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0)
            run(path, ready[1]);
        close(ready[1]);
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
    }
    ~BriefServer() { EXPECT_TRUE(has_ended()); }
    BriefServer(const BriefServer &) = delete;
    BriefServer &operator=(const BriefServer &) = delete;

    bool has_ended()
    {
        if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_)
            pid_ = -1;
        return pid_ < 0;
    }

private:
    [[noreturn]] static void run(const std::string &path, int ready)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        unlink(path.c_str());
        char packet[4096];
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && listen(fd, 8) == 0 &&
            write(ready, ".", 1) == 1)
            _exit(recv(accept(fd, nullptr, nullptr), packet, sizeof packet, 0) > 0 ? 0 : 1);
        _exit(1);
    }

    pid_t pid_ = -1;
};

pid_t ended_process()
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    return pid;
}

// Two servers in a row end while they make the surface again, and the third one has it.
class Others : public PfbRecovery {
protected:
    Strings sent_after_two_deaths()
    {
        for (int i = 0; i < 2; i++)
            die_on_return(DEPTH);
        service.close();
        service.take(0);
        service.open();
        EXPECT_TRUE(come_back());
        return service.take(2);
    }
};

// It waits in its main loop, and is never answered.
TEST_F(Others, AClientThatSaysNothingMoreStaysShown)
{
    create();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    service.take(1);
    EXPECT_TRUE(dispatch_until([&] { return wakeups > 0; })) << "nobody looks whether the server goes on";
    pollfd entry = {pfb_poll_fd(client), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, LONGER_THAN_A_TRIAL_MS), 0) << "nothing has changed since";
    EXPECT_THAT(sent_after_two_deaths(), Contains("show "));
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_RESTORED));
}

// An answer settles what was still to be seen: it wakes once more, for nothing, and that is all.
TEST_F(Others, AClientThatIsAnsweredIsLeftAlone)
{
    create();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    int depth;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    pollfd entry = {pfb_poll_fd(client), POLLIN, 0};
    poll(&entry, 1, LONGER_THAN_A_TRIAL_MS);
    EXPECT_EQ(pfb_dispatch(client), PFB_OK);
    EXPECT_EQ(poll(&entry, 1, LONGER_THAN_A_TRIAL_MS), 0);
}

// Its state is never old: what it once was has been lived with all the same.
TEST_F(Others, AClientThatNeverRestsStaysShown)
{
    create();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    for (int x = 0; std::chrono::steady_clock::now() < end; x++) {
        EXPECT_EQ(pfb_move(client, x, 0), PFB_OK);
        std::this_thread::sleep_for(std::chrono::milliseconds(33));
    }
    EXPECT_THAT(sent_after_two_deaths(), Contains("show "));
}

// What nobody would look at wakes nobody.
TEST_F(Others, WithoutRecoveryThereIsNothingToLookFor)
{
    create();
    pollfd entry = {pfb_poll_fd(client), POLLIN, 0};
    EXPECT_EQ(pfb_show(client), PFB_OK);
    EXPECT_EQ(pfb_set_reconnect(client, 0), PFB_OK);
    EXPECT_EQ(poll(&entry, 1, LONGER_THAN_A_TRIAL_MS), 0);
    EXPECT_EQ(pfb_move(client, 1, 2), PFB_OK);
    EXPECT_EQ(poll(&entry, 1, LONGER_THAN_A_TRIAL_MS), 0);
    EXPECT_EQ(pfb_set_reconnect(client, 1), PFB_OK);
    EXPECT_TRUE(dispatch_until([&] { return wakeups > 0; })) << "what was changed meanwhile is not looked at";
}

// A server that never came to open the memory has ended over something else.
TEST_F(Others, WhatNoServerHasSeenIsNotLeftOut)
{
    create();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    service.close();
    for (int i = 0; i < 3; i++) {
        BriefServer server(service.socket_path());
        EXPECT_TRUE(dispatch_until([&] { return server.has_ended(); }));
        EXPECT_TRUE(dispatch_until([&] { return pfb_fd(client) < 0; }));
        EXPECT_EQ(shared_objects(), 0u);
    }
    service.take(0);
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(3), ElementsAre(HasSubstr("create "), "show ", DEPTH));
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_RESTORED));
}

// Where the server cannot take names away, a name that is there tells nothing.
TEST_F(Others, ADeadlyChangeIsLeftOutWhereNamesStay)
{
    pfb_disconnect(client);
    pfb_system.peer = ucred{ended_process(), geteuid(), getegid()};
    service.leave_names();
    SetUp();
    create();
    const std::string deadly = "resize ii 66 6";
    service.die_of(deadly);
    EXPECT_EQ(pfb_resize(client, 66, 6), PFB_OK);
    service.take(1);
    pfb_system.peer->pid = ended_process();
    die_on_return(deadly);
    service.close();
    service.open();
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre("create iiiiiiiiis 0 32 10 20 100 50 448 3 0 NAME", DEPTH));
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_REDUCED, PFB_EVENT_RESTORED));
}

// A server that lives and has no room is asked as often as one that is away, and has nothing to do with what was
// changed. Servers that had ended would get so long in between that this would take a minute.
class TurnedAway : public Others {
protected:
    void expect_no_death();
};

void TurnedAway::expect_no_death()
{
    create();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    service.close();
    service.take(0);
    service.turn_away(true);
    service.open();
    EXPECT_TRUE(dispatch_until([&] { return service.turned_away() >= 12; })) << service.turned_away();
    service.turn_away(false);
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(3), ElementsAre(HasSubstr("create "), "show ", DEPTH));
    EXPECT_THAT(events, ElementsAre(PFB_EVENT_LOST, PFB_EVENT_RESTORED));
}

TEST_F(TurnedAway, IsNotTheServersEnd)
{
    expect_no_death();
}

// /proc is mounted with hidepid: that a server's entry cannot be seen says nothing.
TEST_F(TurnedAway, ByAServerThatCannotBeSeenIsNotItsEndEither)
{
    const pid_t server = fork();
    if (server == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pause();
    }
    pfb_disconnect(client);
    pfb_system.peer = ucred{ended_process(), geteuid(), getegid()};
    SetUp();
    pfb_system.peer->pid = server;
    pfb_system.hides_processes = true;
    expect_no_death();
    kill(server, SIGKILL);
    EXPECT_EQ(waitpid(server, nullptr, 0), server);
}

// A service manager lives on when the servers behind its socket end, each over this client's memory perhaps: they get
// longer and longer times in between.
TEST_F(Others, BehindAServiceManagersSocketItIs)
{
    pfb_disconnect(client);
    pfb_system.peer = ucred{1, 0, 0};
    SetUp();
    create();
    service.close();
    service.take(0);
    service.turn_away(true);
    service.open();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(dispatch_until([&] { return service.turned_away() >= 4; }));
    // A slow machine makes it longer, none makes it shorter: 100, 200 and 400 ms lie between the four.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(700));
    service.turn_away(false);
    EXPECT_TRUE(come_back());
}

} // namespace
