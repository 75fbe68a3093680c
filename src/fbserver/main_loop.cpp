// SPDX-License-Identifier: MIT
#include "main_loop.h"

#include <csignal>
#include <initializer_list>
#include <poll.h>

#include "../libmc/watch.h"
#include "output_watch.h"

GMainLoop *loop;

namespace {

constexpr unsigned TURNS_WITHOUT_SIGNALS = 32;

sigset_t mask_while_waiting;

sigset_t ending_signals()
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    return ending;
}

// Here, where nothing is held that quitting a loop, or GLib's report that there is none, might need.
void let_signals_in()
{
    const sigset_t ending = ending_signals();
    sigprocmask(SIG_SETMASK, &mask_while_waiting, nullptr);
    sigprocmask(SIG_BLOCK, &ending, nullptr);
}

[[gnu::hot]] int poll_with_signals(GPollFD *fds, guint n, gint timeout_ms)
{
    static_assert(sizeof(GPollFD) == sizeof(pollfd));
    // Requests have been handled and left a render behind: what arrived meanwhile can wait for that.
    static bool was_busy;
    if (timeout_ms == 0 && was_busy) {
        was_busy = false;
        return 0;
    }
    if (output_watch_begin())
        return 0; // the loop looks at its sources again
    const int ready = libmc::watch_poll(reinterpret_cast<pollfd *>(fds), n, timeout_ms, &mask_while_waiting);
    was_busy = ready > 0;
    // A poll that need not wait lets no signal in: clients that flood would keep them out for ever. Now and then is
    // enough, and saves two system calls a turn.
    static unsigned turns_since;
    if (ready < 0 || (ready == 0 && timeout_ms != 0)) {
        turns_since = 0;
    } else if (++turns_since >= TURNS_WITHOUT_SIGNALS) {
        turns_since = 0;
        let_signals_in();
    }
    return ready;
}

} // namespace

void handle_signal(int signo)
{
    if (signo == SIGINT || signo == SIGTERM)
        g_main_loop_quit(loop);
}

void signals_install()
{
    for (int signo : {SIGPIPE, SIGXFSZ}) {
        struct sigaction action;
        sigaction(signo, nullptr, &action);
        action.sa_handler = SIG_IGN;
        sigaction(signo, &action, nullptr);
    }

    const sigset_t both = ending_signals();
    sigprocmask(SIG_BLOCK, &both, &mask_while_waiting);
    struct sigaction ending {};
    ending.sa_mask = both; // GLib aborts when one interrupts its report of the other
    ending.sa_handler = handle_signal;
    sigaction(SIGINT, &ending, nullptr);
    sigaction(SIGTERM, &ending, nullptr);
}

void main_loop_run()
{
    let_signals_in(); // those of the start find no loop to quit
    g_main_context_set_poll_func(nullptr, poll_with_signals);
    loop = g_main_loop_new(nullptr, FALSE);
    loop = g_main_loop_ref(loop); // never freed: a late signal still finds it
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
}
