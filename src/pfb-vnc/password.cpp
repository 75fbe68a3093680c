// SPDX-License-Identifier: MIT
#include "password.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../panelimage/message.h"

namespace {

constexpr size_t LENGTH_MAX = 8;

bool is_private(int fd)
{
    struct stat info;
    return fstat(fd, &info) == 0 && (info.st_uid == geteuid() || info.st_uid == 0) && (info.st_mode & 077) == 0;
}

std::string first_line(int fd)
{
    char text[256];
    const ssize_t n = read(fd, text, sizeof text);
    const std::string line(text, n > 0 ? static_cast<size_t>(n) : 0);
    return line.substr(0, line.find('\n'));
}

} // namespace

bool password_read(const char *file, std::string *password)
{
    const int fd = open(file, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        complain_errno(file);
        return false;
    }
    const bool good = is_private(fd);
    if (good)
        *password = first_line(fd);
    else
        complain("%s: other users may read it; chmod 600 it", file);
    close(fd);
    if (!good)
        return false;
    if (!password->empty() && password->size() <= LENGTH_MAX)
        return true;
    complain("%s: its first line has to be a password of 1 to %zu bytes", file, LENGTH_MAX);
    return false;
}
