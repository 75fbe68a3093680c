// SPDX-License-Identifier: MIT
#include "watch.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <sys/epoll.h>
#include <unistd.h>

#include "factory.h"

namespace libmc {

namespace {

struct WatchSet {
    int epoll_fd; // -1: nothing is watched
    GSource *source;
    unsigned users;
    int wakeup_fd; // the main context's own, once it is in the set; -1
    Watch *timed;  // those that have a deadline
    // What the kernel has told, [at, n) still to have its turn. Null: the main context's own, or stopped since then.
    epoll_event ready[READY_MAX];
    int at;
    int n;
    bool due; // the loop is told that some of them are due: the kernel does not tell it again
};

WatchSet set = {-1, nullptr, 0, -1, nullptr, {}, 0, 0, false};

Watch *watch_of(const epoll_event &event)
{
    return static_cast<Watch *>(event.data.ptr);
}

bool set_control(int operation, int fd, Watch *watch)
{
    epoll_event event = {};
    event.events = watch && watch->drains ? EPOLLIN | EPOLLET : EPOLLIN;
    event.data.ptr = watch;
    return epoll_ctl(set.epoll_fd, operation, fd, &event) == 0;
}

bool set_add(int fd, Watch *watch)
{
    return set_control(EPOLL_CTL_ADD, fd, watch);
}

// ---- deadlines ----

// The loop is told when the next one is over, or that a turn is due.
void set_timer()
{
    gint64 next = set.due ? 0 : -1;
    for (const Watch *watch = set.timed; watch; watch = watch->next)
        if (next < 0 || watch->deadline < next)
            next = watch->deadline;
    if (g_source_get_ready_time(set.source) != next)
        g_source_set_ready_time(set.source, next);
}

void timed_remove(Watch *watch)
{
    Watch **link = &set.timed;
    while (*link && *link != watch)
        link = &(*link)->next;
    if (*link)
        *link = watch->next;
    watch->deadline = -1;
}

// One whose deadline is over, which it has no longer; null when there is none.
Watch *take_late(gint64 now)
{
    Watch *watch = set.timed;
    while (watch && watch->deadline > now)
        watch = watch->next;
    if (watch)
        watch_set_deadline(watch, -1);
    return watch;
}

// ---- turns ----

void set_due(bool due)
{
    if (set.due == due)
        return;
    set.due = due;
    set_timer();
}

void fetch_ready()
{
    set.at = 0;
    set.n = epoll_wait(set.epoll_fd, set.ready, READY_MAX, 0);
    if (set.n < 0)
        set.n = 0;
    set_due(set.n > 1);
}

// A turn may run the main loop, which then gives the others theirs, or close anything, the set included.
[[gnu::hot]] gboolean set_turn(GSource *, GSourceFunc, gpointer)
{
    if (set.at == set.n)
        fetch_ready();
    while (set.at < set.n)
        if (Watch *watch = watch_of(set.ready[set.at++]))
            watch->turn(watch->owner, false);
    set_due(false);
    if (!set.timed)
        return G_SOURCE_CONTINUE;
    const gint64 now = g_source_get_time(set.source); // of now: a turn may have made it anew
    while (Watch *watch = take_late(now))
        watch->turn(watch->owner, true);
    return G_SOURCE_CONTINUE;
}

// Without prepare and check GLib dispatches the source whenever its descriptor or its ready time asks for it.
GSourceFuncs functions = {nullptr, nullptr, set_turn, nullptr, nullptr, nullptr};

bool set_open()
{
    set.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (set.epoll_fd < 0)
        return false;
    set.source = g_source_new(&functions, sizeof(GSource));
    g_source_set_name(set.source, "mc");
    g_source_set_priority(set.source, TURN_PRIORITY);
    // GLib would take the descriptor out of its poll for each turn and put it back, and write to a descriptor of its
    // own to tell so: five system calls. What is handled while a turn runs the loop is for the turn to decide.
    g_source_set_can_recurse(set.source, TRUE);
    g_source_add_unix_fd(set.source, set.epoll_fd, G_IO_IN);
    g_source_attach(set.source, nullptr);
    return true;
}

void set_release()
{
    if (set.users > 0)
        return;
    g_source_destroy(set.source);
    g_source_unref(set.source);
    close(set.epoll_fd);
    set.epoll_fd = set.wakeup_fd = -1;
    set.at = set.n = 0;
    set.due = false;
}

// The main context's own descriptor, when it is all that is to be waited for beside the set; it is then in the set as
// well. Null otherwise.
pollfd *wakeup_of(pollfd *fds, nfds_t n)
{
    if (n != 2 || set.epoll_fd < 0 || (fds[0].fd != set.epoll_fd && fds[1].fd != set.epoll_fd))
        return nullptr;
    pollfd *wakeup = &fds[fds[0].fd == set.epoll_fd ? 1 : 0];
    if (wakeup->fd != set.wakeup_fd && (set_add(wakeup->fd, nullptr) || errno == EEXIST))
        set.wakeup_fd = wakeup->fd;
    return wakeup->fd == set.wakeup_fd ? wakeup : nullptr;
}

// True when some turn is due that other sources have kept back.
bool any_due()
{
    while (set.at < set.n && !watch_of(set.ready[set.at]))
        set.at++;
    return set.at < set.n;
}

// As ppoll for both descriptors.
int wait_at_set(pollfd *own, pollfd *wakeup, int timeout_ms, const sigset_t *mask)
{
    if (any_due()) {
        own->revents = POLLIN;
        return 1;
    }
    const int n = epoll_pwait(set.epoll_fd, set.ready, READY_MAX, timeout_ms, mask);
    set.at = 0;
    set.n = n > 0 ? n : 0;
    for (int i = 0; i < n; i++)
        (watch_of(set.ready[i]) ? own : wakeup)->revents = POLLIN;
    return n < 0 ? -1 : (own->revents != 0) + (wakeup->revents != 0);
}

pollfd *entry_of(pollfd *fds, nfds_t n, int fd)
{
    pollfd *entry = std::find_if(fds, fds + n, [fd](const pollfd &one) { return one.fd == fd; });
    return entry != fds + n ? entry : nullptr;
}

// As ppoll without waiting, where the set is ready whatever the kernel says: some turn is due.
int look_with_due(pollfd *own, pollfd *fds, nfds_t n, const sigset_t *mask)
{
    const timespec at_once{};
    const int ready = ppoll(fds, n, &at_once, mask);
    if (ready < 0 || own->revents != 0)
        return ready;
    own->revents = POLLIN;
    return ready + 1;
}

} // namespace

bool watch_start(Watch *watch, int fd)
{
    if (set.users == 0 && !set_open())
        return false;
    watch->fd = fd;
    watch->deadline = -1;
    watch->active = watch->polled = set_add(fd, watch);
    if (watch->active)
        set.users++;
    const int error = errno;
    set_release();
    errno = error;
    return watch->active;
}

// Taken out by name: where a process that was forked off still has the descriptor, closing it here would not do.
void watch_rest(Watch *watch)
{
    if (!watch->polled)
        return;
    watch->polled = false;
    epoll_ctl(set.epoll_fd, EPOLL_CTL_DEL, watch->fd, nullptr);
    for (int i = set.at; i < set.n; i++)
        if (watch_of(set.ready[i]) == watch)
            set.ready[i].data.ptr = nullptr;
}

[[gnu::hot]] bool watch_resume(Watch *watch)
{
    if (watch->active && !watch->polled)
        watch->polled = set_add(watch->fd, watch);
    return watch->polled;
}

[[gnu::hot]] bool watch_again(Watch *watch)
{
    return !watch->polled || set_control(EPOLL_CTL_MOD, watch->fd, watch);
}

void watch_stop(Watch *watch)
{
    if (!watch->active)
        return;
    watch_rest(watch);
    watch_set_deadline(watch, -1);
    watch->active = false;
    set.users--;
    set_release();
}

void watch_set_deadline(Watch *watch, int64_t deadline)
{
    if (watch->deadline < 0 && deadline < 0)
        return;
    timed_remove(watch);
    if (deadline >= 0) {
        watch->deadline = deadline;
        watch->next = set.timed;
        set.timed = watch;
    }
    set_timer();
}

int watch_descriptor()
{
    return set.epoll_fd;
}

[[gnu::hot]] int watch_poll(pollfd *fds, nfds_t n, int timeout_ms, const sigset_t *mask)
{
    if (pollfd *wakeup = wakeup_of(fds, n))
        return wait_at_set(&fds[wakeup == fds ? 1 : 0], wakeup, timeout_ms, mask);
    if (pollfd *own = any_due() ? entry_of(fds, n, set.epoll_fd) : nullptr)
        return look_with_due(own, fds, n, mask);
    const timespec timeout{timeout_ms / 1000, timeout_ms % 1000 * 1000000L};
    return ppoll(fds, n, timeout_ms < 0 ? nullptr : &timeout, mask);
}

} // namespace libmc
