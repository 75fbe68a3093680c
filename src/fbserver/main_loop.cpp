// SPDX-License-Identifier: MIT
#include "main_loop.h"

#include <csignal>
#include <poll.h>

#include "output_watch.h"

GMainLoop *loop;

namespace {

sigset_t mask_while_waiting;

int poll_with_signals(GPollFD *fds, guint n, gint timeout_ms)
{
    static_assert(sizeof(GPollFD) == sizeof(pollfd));
    timespec timeout{timeout_ms / 1000, timeout_ms % 1000 * 1000000L};
    return ppoll(reinterpret_cast<pollfd *>(fds), n, timeout_ms < 0 ? nullptr : &timeout, &mask_while_waiting);
}

void let_signals_in_while_waiting()
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, &mask_while_waiting);
    g_main_context_set_poll_func(nullptr, poll_with_signals);
}

} // namespace

void handle_signal(int signo)
{
    if (signo == SIGINT || signo == SIGTERM)
        g_main_loop_quit(loop);
}

void signals_install()
{
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);

    struct sigaction ending {};
    sigemptyset(&ending.sa_mask);
    ending.sa_handler = handle_signal;
    sigaction(SIGINT, &ending, nullptr);
    sigaction(SIGTERM, &ending, nullptr);
}

void main_loop_run()
{
    let_signals_in_while_waiting();
    loop = g_main_loop_new(nullptr, FALSE);
    loop = g_main_loop_ref(loop); // never freed: a late signal still finds it
    output_watch_start();
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
}
