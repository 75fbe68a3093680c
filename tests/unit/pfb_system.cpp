// SPDX-License-Identifier: MIT
#include "pfb_system.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

PfbSystem pfb_system;

namespace {

// Of this process's shared objects, named or not, as far as they are mapped.
off_t mapped_bytes()
{
    std::ifstream maps("/proc/self/maps");
    off_t bytes = 0;
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/dev/shm/pfb." + std::to_string(getpid()) + ".") == std::string::npos)
            continue;
        size_t middle;
        const auto begin = std::stoull(line, &middle, 16);
        bytes += static_cast<off_t>(std::stoull(line.substr(middle + 1), nullptr, 16) - begin);
    }
    return bytes;
}

} // namespace

extern "C" {

int getsockopt(int fd, int level, int option, void *value, socklen_t *size) noexcept
{
    if (level == SOL_SOCKET && option == SO_PEERCRED && pfb_system.peer) {
        *size = std::min(*size, static_cast<socklen_t>(sizeof(ucred)));
        memcpy(value, &*pfb_system.peer, *size);
        return 0;
    }
    static const auto next = reinterpret_cast<decltype(&getsockopt)>(dlsym(RTLD_NEXT, "getsockopt"));
    return next(fd, level, option, value, size);
}

int fchown(int fd, uid_t owner, gid_t group) noexcept
{
    if (!pfb_system.gives_groups) {
        errno = EPERM;
        return -1;
    }
    static const auto next = reinterpret_cast<decltype(&fchown)>(dlsym(RTLD_NEXT, "fchown"));
    return next(fd, owner, group);
}

FILE *fopen(const char *path, const char *mode)
{
    if (pfb_system.hides_processes && strncmp(path, "/proc/", 6) == 0 && isdigit(path[6])) {
        errno = ENOENT;
        return nullptr;
    }
    static const auto next = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
    return next(path, mode);
}

int posix_fallocate(int fd, off_t offset, off_t length)
{
    if (pfb_system.room >= 0 && mapped_bytes() + offset + length > pfb_system.room)
        return ENOSPC;
    // Many a kernel gives back what it has got then. A caller that only tries again is not kept for ever.
    if (pfb_system.unbroken >= 0 && length > pfb_system.unbroken)
        return pfb_system.signals++ < 1000 ? EINTR : EIO;
    return fallocate(fd, 0, offset, length) == 0 ? 0 : errno;
}
}
