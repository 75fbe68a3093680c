// SPDX-License-Identifier: MIT
#include "child.h"

#include <cerrno>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "environment.h"
#include "../panelimage/message.h"

namespace {

constexpr int PASSED_ON[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

[[noreturn]] void become_program(char **argv, const PanelFolder &folder, const sigset_t &signals, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) // it is gone already
        _exit(STATUS_FAILED);
    folder.state->program = getpid();
    if (!environment_enter(folder.path))
        _exit(STATUS_FAILED);
    sigprocmask(SIG_SETMASK, &signals, nullptr);
    execvp(argv[0], argv);
    const int status = errno == ENOENT ? STATUS_NOT_FOUND : STATUS_NOT_EXECUTABLE;
    complain_errno(argv[0]);
    _exit(status);
}

// A signal from the terminal went to the whole foreground group, the program included.
bool has_reached_program(const siginfo_t &info)
{
    return info.si_code == SI_KERNEL;
}

} // namespace

void child_hold_signals(sigset_t *before)
{
    signal(SIGCHLD, SIG_DFL); // if ignored, there would be no status to wait for
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGCHLD);
    for (int number : PASSED_ON)
        sigaddset(&held, number);
    sigprocmask(SIG_BLOCK, &held, before);
}

pid_t child_start(char **argv, const PanelFolder &folder, const sigset_t &signals)
{
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0)
        complain_errno("fork");
    if (pid == 0)
        become_program(argv, folder, signals, parent);
    return pid;
}

int child_wait(pid_t pid)
{
    sigset_t held;
    sigprocmask(SIG_BLOCK, nullptr, &held);
    for (;;) {
        int status;
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        siginfo_t info;
        const int number = sigwaitinfo(&held, &info);
        if (number > 0 && number != SIGCHLD && !has_reached_program(info))
            kill(pid, number);
    }
}
