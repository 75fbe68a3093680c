// SPDX-License-Identifier: MIT
#include "hold.h"

#include <cerrno>
#include <cmath>
#include <csignal>
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

// False when the time is over.
bool wait_for_either(pollfd (&entries)[2], double seconds)
{
    const timespec time = {static_cast<time_t>(seconds), static_cast<long>((seconds - std::floor(seconds)) * 1e9)};
    return ppoll(entries, 2, seconds > 0 ? &time : nullptr, nullptr) != 0;
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
    pollfd entries[2] = {{signals, POLLIN, 0}, {pfb_fd(client), 0, 0}};
    const bool something = wait_for_either(entries, seconds);
    close(signals);
    if (!something || entries[0].revents != 0)
        return STATUS_DONE;
    complain("the server has ended");
    return STATUS_NO_SERVER;
}
