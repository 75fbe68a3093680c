// SPDX-License-Identifier: MIT
#include "namespace.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

bool enter(const std::string &room)
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/dev/shm", "tmpfs", 0, ("size=" + room + ",mode=1777").c_str()) == 0;
}

} // namespace

SmallMemory::SmallMemory(const std::string &room)
    : before_(open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC)), entered_(enter(room))
{
}

SmallMemory::~SmallMemory()
{
    if (before_ < 0)
        return;
    // Going back resets the working folder; tests rely on none.
    if (entered_) {
        EXPECT_EQ(setns(before_, CLONE_NEWNS), 0) << strerror(errno);
    }
    close(before_);
}
