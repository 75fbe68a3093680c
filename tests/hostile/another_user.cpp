// SPDX-License-Identifier: MIT
#include "another_user.h"

#include <csignal>
#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

bool is_root()
{
    return geteuid() == 0;
}

void become_stranger(gid_t group)
{
    if (!is_root())
        return;
    if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(STRANGER) != 0)
        _exit(255);
    prctl(PR_SET_PDEATHSIG, SIGKILL); // a change of the user forgets it
}
