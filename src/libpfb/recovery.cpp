// SPDX-License-Identifier: MIT
// Recovery from the end of the server: the connection is made again, and the surface with it. Nothing here waits but
// recovery_settle and recovery_wait; everything else is steps that pfb_dispatch and every request take.
#include "client.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/timerfd.h>
#include <unistd.h>

using namespace libpfb;

namespace {

// While no server listens: the next attempt comes after a quarter of the time that it has been away.
constexpr int64_t RETRY_LEAST_MS = 1, RETRY_MOST_MS = 1000;
// Servers that end soon after the surface was there again: each waits twice as long as the one before.
constexpr int64_t SOON_MS = 5000, BACK_OFF_MS = 100, BACK_OFF_MOST_MS = 10000;
constexpr int BACK_OFF_DOUBLINGS = 7;
// A server that has read all requests and is still there so much later did not end of them.
constexpr int64_t SURVIVED_MS = 1000;

bool watch(const pfb_client *client, int operation, int fd, uint32_t events)
{
    epoll_event event = {};
    event.events = events; // the end of a connection is reported in any case
    return epoll_ctl(client->epoll_fd, operation, fd, &event) == 0;
}

void set_timer(pfb_client *client, int64_t at_ms) // 0: off
{
    client->timer_ms = at_ms;
    itimerspec time = {};
    time.it_value.tv_sec = static_cast<time_t>(at_ms / 1000);
    time.it_value.tv_nsec = static_cast<long>(at_ms % 1000 * 1000000);
    timerfd_settime(client->timer_fd, TFD_TIMER_ABSTIME, &time, nullptr);
}

void attempt_at(pfb_client *client, int64_t at_ms)
{
    client->next_attempt_ms = at_ms;
    set_timer(client, at_ms);
}

void attempt_later(pfb_client *client)
{
    const int64_t now = now_ms();
    attempt_at(client, now + std::clamp((now - client->lost_ms) / 4, RETRY_LEAST_MS, RETRY_MOST_MS));
}

// Spread by up to a half: of many clients, those that did not end the server come through.
int64_t back_off_ms(int deaths)
{
    if (deaths <= 1)
        return 0;
    const int64_t ms = std::min(BACK_OFF_MS << std::min(deaths - 2, BACK_OFF_DOUBLINGS), BACK_OFF_MOST_MS);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return ms + (now.tv_nsec / 1000 + getpid()) % (ms / 2);
}

bool has_ended(const pfb_client *client)
{
    pollfd entry = {mc_fd(client->connection), 0, 0};
    return poll(&entry, 1, 0) > 0;
}

// Whether a process has ended, or is about to: its descriptors are closed one after the other, with others running in
// between.
bool is_ending(pid_t pid)
{
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    FILE *file = fopen(path, "re");
    if (file == nullptr) // it may also be hidden, or there is no /proc
        return kill(pid, 0) != 0 && errno == ESRCH;
    unsigned flags = 0;
    const int n = fscanf(file, "%*d (%*[^)]) %*c %*d %*d %*d %*d %*d %u", &flags);
    fclose(file);
    constexpr unsigned EXITING = 4;                        // the kernel's PF_EXITING
    return n == EOF || (n == 1 && (flags & EXITING) != 0); // it may end between the two
}

// Whether no further server has ended: the one that has just done so took this connection while its descriptors were
// being closed, or one that lives has hung up before it made the surface. A service manager, which holds the socket for
// servers, tells nothing by its life.
bool is_no_death(const pfb_client *client, bool memory_is_taken)
{
    const pid_t server = mc_connection_pid(client->connection);
    if (server <= MANAGER)
        return false;
    return is_ending(server) ? server == client->ended : !memory_is_taken;
}

void drop_connection(pfb_client *client)
{
    watch(client, EPOLL_CTL_DEL, mc_fd(client->connection), 0);
    mc_close(client->connection);
    client->connection = nullptr;
    client->phase = Phase::lost;
}

// The server has it, or will never ask for it again. False when it was still there.
bool drop_memory_name(pfb_client *client)
{
    const bool was_there = client->memory_name[0] != '\0' && shm_unlink(client->memory_name) == 0;
    client->memory_name[0] = '\0';
    return !was_there;
}

void note_event(pfb_client *client, pfb_event event)
{
    client->events |= 1u << event;
}

// What the server was never heard of after may be what it ends of.
void fall_back(pfb_client *client)
{
    Look &look = client->state;
    if (look == client->confirmed)
        return;
    look = client->confirmed;
    note_event(client, PFB_EVENT_REDUCED);
}

// What is changed all the time is tried by what it was when the trial began. A timer that is on already comes early,
// and is put off then: setting it is a system call.
void begin_trial(pfb_client *client)
{
    if (client->trial_ends_ms != 0 || !client->reconnect || client->phase != Phase::ready ||
        client->state == client->confirmed)
        return;
    client->on_trial = client->state;
    client->trial_ends_ms = now_ms() + SURVIVED_MS;
    if (client->timer_ms == 0)
        set_timer(client, client->trial_ends_ms);
}

void become_ready(pfb_client *client)
{
    client->phase = Phase::ready;
    client->restored_ms = now_ms();
    set_timer(client, 0);
    watch(client, EPOLL_CTL_MOD, mc_fd(client->connection), 0);
    recovery_confirm(client);
    note_event(client, PFB_EVENT_RESTORED);
}

// Part of it may be with a server that is alive, and would stop if it did not find the memory: the name stays for it.
void give_up_sending(pfb_client *client)
{
    client->memory_name[0] = '\0';
    drop_connection(client);
    attempt_later(client);
}

void restore(pfb_client *client)
{
    if (!memory_renew(client, client->memory_name)) {
        drop_connection(client);
        attempt_later(client);
    } else if (!restore_send(client)) {
        if (has_ended(client))
            recovery_lose(client);
        else
            give_up_sending(client);
    }
}

void attempt(pfb_client *client)
{
    client->connection = mc_connect_in_time(SERVICE, client->name, 0);
    if (client->connection == nullptr) {
        attempt_later(client);
        return;
    }
    client->phase = Phase::restoring;
    set_timer(client, 0);
    if (!watch(client, EPOLL_CTL_ADD, mc_fd(client->connection), EPOLLIN)) {
        drop_connection(client);
        attempt_later(client);
    } else if (client->pixels == nullptr) {
        become_ready(client);
    } else {
        restore(client);
    }
}

void look_at_connection(pfb_client *client)
{
    const bool survived = recovery_has_survived(client);
    if (has_ended(client)) {
        recovery_lose(client);
        return;
    }
    if (survived)
        recovery_confirm_trial(client);
    if (client->timer_ms != 0 && now_ms() >= client->timer_ms)
        set_timer(client, client->trial_ends_ms);
}

// Has the server answered the question at the end of the restoration?
void look_for_answer(pfb_client *client)
{
    if (mc_take_answer(client->connection, client->packet, 0) == 0) {
        depth_from(client, "pfb_dispatch", &client->depth);
        client->takes_names = drop_memory_name(client);
        become_ready(client);
    } else if (errno != ETIMEDOUT) {
        recovery_lose(client);
    }
}

void tell_events(pfb_client *client)
{
    for (const pfb_event event : {PFB_EVENT_LOST, PFB_EVENT_REDUCED, PFB_EVENT_RESTORED}) {
        const unsigned bit = 1u << event;
        if ((client->events & bit) == 0)
            continue;
        client->events &= ~bit;
        if (client->on_event != nullptr)
            client->on_event(client, event, client->event_data);
    }
}

// A restoration that has begun is brought to its end even when recovery has been switched off meanwhile.
bool recovers(const pfb_client *client)
{
    return client->reconnect || client->phase == Phase::restoring;
}

// Without recovery a client stays with the connection that it has.
int check_connection(const pfb_client *client, const char *function)
{
    if (client->connection != nullptr)
        return PFB_OK;
    errno = EPIPE;
    return fail_errno(function, "sending");
}

// Steps and waits until the phase is ready or, where that will do, lost.
int wait_for_phase(pfb_client *client, const char *function, Deadline &deadline, bool lost_will_do)
{
    for (;;) {
        recovery_step(client); // which may call the application: nothing is as it was
        const int usable = check_client(client, function);
        if (usable != PFB_OK)
            return usable;
        if (!recovers(client))
            return check_connection(client, function);
        if (client->phase == Phase::ready || (lost_will_do && client->phase == Phase::lost))
            return PFB_OK;
        pollfd entry = {client->epoll_fd, POLLIN, 0};
        const int n = poll(&entry, 1, deadline.left());
        if (n == 0)
            return fail(PFB_ERROR_TIMEOUT, function, "the server has ended, and none has taken its place in time");
        if (n < 0 && errno != EINTR)
            return fail_errno(function, "poll");
    }
}

} // namespace

namespace libpfb {

void recovery_lose(pfb_client *client)
{
    const int64_t now = now_ms();
    const bool memory_is_taken = drop_memory_name(client);
    const bool counts = client->phase == Phase::ready || !is_no_death(client, memory_is_taken);
    if (client->phase == Phase::ready) {
        note_event(client, PFB_EVENT_LOST);
        client->lost_ms = now;
        client->ended = mc_connection_pid(client->connection);
        client->trial_ends_ms = 0;
    } else if (counts && (memory_is_taken || !client->takes_names)) {
        fall_back(client);
    }
    const bool soon = client->phase != Phase::ready || now - client->restored_ms < SOON_MS;
    if (counts)
        client->deaths = soon ? client->deaths + 1 : 1;
    drop_connection(client);
    if (counts)
        attempt_at(client, now + back_off_ms(client->deaths));
    else
        attempt_later(client);
}

void recovery_confirm(pfb_client *client)
{
    client->confirmed = client->state;
    client->trial_ends_ms = 0;
}

void recovery_change(pfb_client *client, const SurfaceState &state)
{
    client->state = state;
    begin_trial(client);
}

bool recovery_is_quiet(const pfb_client *client)
{
    return client->phase == Phase::ready && client->events == 0;
}

// A client that asks nothing: that the server goes on is an answer too. The clock is read only while something is on
// trial.
bool recovery_has_survived(pfb_client *client)
{
    const int64_t now = client->trial_ends_ms != 0 ? now_ms() : 0;
    if (now == 0 || now < client->trial_ends_ms)
        return false;
    int unread = 0; // bytes
    if (ioctl(mc_fd(client->connection), SIOCOUTQ, &unread) == 0 && unread == 0)
        return true;
    client->trial_ends_ms = now + SURVIVED_MS; // it is busy
    return false;
}

void recovery_confirm_trial(pfb_client *client)
{
    client->confirmed = client->on_trial;
    client->trial_ends_ms = 0;
    begin_trial(client); // of what has been changed meanwhile
}

void recovery_step(pfb_client *client)
{
    if (!recovers(client) || client->unusable || client->recovering)
        return;
    const LastError error = error_save();
    client->recovering = true;
    if (client->phase == Phase::ready)
        look_at_connection(client);
    if (client->phase == Phase::lost && now_ms() >= client->next_attempt_ms)
        attempt(client);
    if (client->phase == Phase::restoring)
        look_for_answer(client);
    client->recovering = false;
    error_restore(error);
    tell_events(client);
}

int recovery_settle(pfb_client *client, const char *function, Deadline &deadline)
{
    return wait_for_phase(client, function, deadline, true);
}

int recovery_wait(pfb_client *client, const char *function, Deadline &deadline)
{
    return wait_for_phase(client, function, deadline, false);
}

int recovery_start(pfb_client *client)
{
    client->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    client->timer_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (client->epoll_fd < 0 || client->timer_fd < 0)
        return fail_errno("pfb_connect", "connecting");
    if (!watch(client, EPOLL_CTL_ADD, client->timer_fd, EPOLLIN) ||
        !watch(client, EPOLL_CTL_ADD, mc_fd(client->connection), 0))
        return fail_errno("pfb_connect", "connecting");
    client->restored_ms = now_ms();
    return PFB_OK;
}

void recovery_end(pfb_client *client)
{
    for (const int fd : {client->epoll_fd, client->timer_fd}) {
        if (fd >= 0)
            close(fd);
    }
}

} // namespace libpfb

int pfb_dispatch(pfb_client *client)
{
    const int usable = check_client(client, __func__);
    if (usable != PFB_OK)
        return usable;
    if (recovers(client)) {
        recovery_step(client);
        return PFB_OK;
    }
    const int connected = check_connection(client, __func__);
    if (connected == PFB_OK && has_ended(client)) {
        errno = EPIPE;
        return fail_errno(__func__, "looking");
    }
    return connected;
}

int pfb_is_connected(const pfb_client *client)
{
    return client != nullptr && !client->unusable && client->phase == Phase::ready && !has_ended(client) ? 1 : 0;
}

int pfb_set_reconnect(pfb_client *client, int on)
{
    if (client == nullptr)
        return fail(PFB_ERROR_ARGUMENT, __func__, "the client is NULL");
    client->reconnect = on != 0;
    if (client->phase == Phase::ready) {
        client->trial_ends_ms = 0;
        set_timer(client, 0); // without recovery nobody looks any more
        begin_trial(client);
    }
    return PFB_OK;
}

int pfb_set_event_func(pfb_client *client, pfb_event_func function, void *user_data)
{
    if (client == nullptr)
        return fail(PFB_ERROR_ARGUMENT, __func__, "the client is NULL");
    client->on_event = function;
    client->event_data = user_data;
    return PFB_OK;
}
