// SPDX-License-Identifier: MIT
#include "hold.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <ctime>
#include <initializer_list>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "../panelimage/message.h"
#include "connect.h"

namespace {

sigset_t our_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, number);
    return set;
}

double now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void on_event(pfb_client *, pfb_event event, void *)
{
    if (event == PFB_EVENT_LOST)
        complain("the server has ended: waiting for the next one");
}

// Until `end`, or without end where that is infinite; what ppoll returns.
int wait_for_either(pollfd (&entries)[2], double end)
{
    const double seconds = std::isinf(end) ? 0 : std::fmax(end - now(), 0);
    const timespec time = {static_cast<time_t>(seconds), static_cast<long>((seconds - std::floor(seconds)) * 1e9)};
    return ppoll(entries, 2, std::isinf(end) ? nullptr : &time, nullptr);
}

// Until a signal comes or the time is over.
int wait_and_dispatch(pfb_client *client, int signals, double end)
{
    pollfd entries[2] = {{signals, POLLIN, 0}, {pfb_poll_fd(client), POLLIN, 0}};
    for (;;) {
        const int n = wait_for_either(entries, end);
        if (n == 0 || (n > 0 && entries[0].revents != 0))
            return STATUS_DONE;
        if (n < 0 && errno != EINTR) {
            complain_errno("ppoll");
            return STATUS_FAILED;
        }
        if (n > 0 && pfb_dispatch(client) != PFB_OK)
            return connect_complain();
    }
}

} // namespace

void hold_signals()
{
    const sigset_t set = our_signals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

bool hold_is_told_to_end()
{
    const sigset_t ours = our_signals();
    const timespec at_once = {0, 0};
    return sigtimedwait(&ours, nullptr, &at_once) > 0;
}

int hold_wait(pfb_client *client, double seconds)
{
    const sigset_t set = our_signals();
    const int signals = signalfd(-1, &set, SFD_CLOEXEC);
    if (signals < 0) {
        complain_errno("signalfd");
        return STATUS_FAILED;
    }
    pfb_set_event_func(client, on_event, nullptr);
    const int status = wait_and_dispatch(client, signals, seconds > 0 ? now() + seconds : INFINITY);
    close(signals);
    return status;
}
