// SPDX-License-Identifier: MIT
#include "access.h"
#include "log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/un.h>
#include <unistd.h>

namespace libmc {

namespace {

constexpr mode_t FOLDER_MODE = 0755;
constexpr mode_t SOCKET_MODE = 0660; // owner and group may connect

// The text of a variable, or null when it is not set or empty.
const char *setting(const char *variable)
{
    const char *text = getenv(variable);
    return text && *text ? text : nullptr;
}

// Digits alone, up to `max`.
bool parse_number(const char *text, int base, unsigned long max, unsigned long *number)
{
    char *end;
    errno = 0;
    *number = strtoul(text, &end, base);
    return *text >= '0' && *text <= '9' && !*end && errno == 0 && *number <= max;
}

bool user_of(const char *text, uid_t *user)
{
    unsigned long number;
    if (parse_number(text, 10, NO_USER - 1, &number)) {
        *user = static_cast<uid_t>(number);
        return true;
    }
    const passwd *entry = getpwnam(text);
    if (entry)
        *user = entry->pw_uid;
    return entry;
}

bool group_of(const char *text, gid_t *group)
{
    unsigned long number;
    if (parse_number(text, 10, NO_GROUP - 1, &number)) {
        *group = static_cast<gid_t>(number);
        return true;
    }
    const struct group *entry = getgrnam(text);
    if (entry)
        *group = entry->gr_gid;
    return entry;
}

bool mode_of(const char *text, mode_t *mode)
{
    unsigned long number;
    if (!parse_number(text, 8, 0777, &number))
        return false;
    *mode = static_cast<mode_t>(number);
    return true;
}

template <typename Value>
bool read_setting(const char *variable, const char *what, bool (*parse)(const char *, Value *), Value *value)
{
    const char *text = setting(variable);
    if (!text || parse(text, value))
        return true;
    char escaped[256];
    log_line("%s is \"%s\": there is no such %s", variable, log_escape(text, escaped, sizeof escaped), what);
    return false;
}

// The group whose members may connect to a socket in this folder.
gid_t connecting_group(const struct stat &folder, const Access &access)
{
    if (!(access.mode & S_IWGRP))
        return NO_GROUP;
    if (access.group != NO_GROUP)
        return access.group;
    return folder.st_mode & S_ISGID ? folder.st_gid : getegid();
}

constexpr const char *OF_ANOTHER = "it belongs to another user";

bool is_trusted(uid_t owner, uid_t user)
{
    return owner == 0 || owner == user;
}

// Who owns the entry of that name: of a link, who may turn it anywhere. With a slash behind the name it would be
// followed.
bool owner_of(const char *path, uid_t *owner)
{
    size_t n = strlen(path);
    while (n > 1 && path[n - 1] == '/')
        n--;
    char name[sizeof(sockaddr_un::sun_path)];
    snprintf(name, sizeof name, "%.*s", static_cast<int>(n), path);
    struct stat entry;
    if (lstat(name, &entry) < 0)
        return false;
    *owner = entry.st_uid;
    return true;
}

const char *folder_complaint(const char *path, int fd, const Access &access)
{
    uid_t owner;
    struct stat folder;
    if (!owner_of(path, &owner) || fstat(fd, &folder) < 0)
        return strerror(errno);
    return is_trusted(owner, geteuid()) ? folder_fault(folder, geteuid(), connecting_group(folder, access))
                                        : OF_ANOTHER;
}

} // namespace

bool access_read(Access *access)
{
    *access = {NO_USER, NO_GROUP, SOCKET_MODE};
    return read_setting("MC_SOCKET_USER", "user", user_of, &access->user) &&
           read_setting("MC_SOCKET_GROUP", "group", group_of, &access->group) &&
           read_setting("MC_SOCKET_MODE", "mode", mode_of, &access->mode);
}

const char *folder_fault(const struct stat &folder, uid_t user, gid_t group)
{
    if (!is_trusted(folder.st_uid, user))
        return OF_ANOTHER;
    if (folder.st_mode & S_ISVTX)
        return nullptr;
    if (folder.st_mode & S_IWOTH)
        return "everybody may write there";
    if (folder.st_mode & S_IWGRP && folder.st_gid != group)
        return "a group that may not connect may write there";
    return nullptr;
}

int folder_open(const char *path, const Access &access)
{
    const int fd = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        log_line("cannot open %s: %s", path, strerror(errno));
        return -1;
    }
    const char *complaint = folder_complaint(path, fd, access);
    if (!complaint)
        return fd;
    log_line("%s is not used: %s", path, complaint);
    close(fd);
    return -1;
}

int folder_make(const char *folder)
{
    const ModeAtMost mode(FOLDER_MODE); // whatever the umask is
    return mkdir(folder, FOLDER_MODE) == 0 || errno == EEXIST ? 0 : -1;
}

} // namespace libmc
