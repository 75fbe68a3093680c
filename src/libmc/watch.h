// SPDX-License-Identifier: MIT
// The descriptors that the default main context looks after: they are in one epoll set, and the set is in one source of
// the loop. So a turn costs what is ready, and not what is connected.
//
// Those that are ready have their turns one after the other, READY_MAX at most before other sources have theirs; who
// had a turn stands behind all others then.
#pragma once

#include <csignal>
#include <cstdint>
#include <poll.h>

namespace libmc {

inline constexpr int READY_MAX = 64;

// One descriptor, a part of what it belongs to. `turn`, `owner` and `drains` are set once; the rest is zero before
// watch_start.
struct Watch {
    void (*turn)(void *owner, bool late); // something has arrived, or (late) the deadline is over, or both
    void *owner;
    bool drains; // a turn takes all that has arrived, or calls watch_again: the kernel need not look again each time
    int fd;
    bool active;      // between watch_start and watch_stop
    bool polled;      // in the set
    int64_t deadline; // monotonic, microseconds; -1: none
    Watch *next;      // of those that have a deadline
};

// Takes turns from now on. False with errno set when the descriptor cannot be waited for.
bool watch_start(Watch *watch, int fd);
// Ends that, before the descriptor is closed: it has no turn any more, not even one that was due. Does nothing for a
// watch that is not active.
void watch_stop(Watch *watch);
// Leaves the descriptor alone until watch_resume; the deadline holds. Resuming returns false with errno set when the
// descriptor cannot be waited for any more.
void watch_rest(Watch *watch);
bool watch_resume(Watch *watch);
// For one that drains: another turn when the descriptor is still ready. False as above.
bool watch_again(Watch *watch);
// Over once it has led to a turn.
void watch_set_deadline(Watch *watch, int64_t deadline);
// The epoll set; -1 while nothing is watched.
int watch_descriptor();

// ppoll for the poll function of the default main context. Where nothing else is waited for, it waits at the epoll set
// itself: that saves a system call for each time that something arrives.
int watch_poll(pollfd *fds, nfds_t n, int timeout_ms, const sigset_t *mask);

} // namespace libmc
