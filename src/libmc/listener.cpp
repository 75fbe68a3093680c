// SPDX-License-Identifier: MIT
#include "listener.h"
#include "descriptors.h"
#include "log.h"
#include "names.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace libmc {

namespace {

constexpr mode_t FOLDER_MODE = 0755;
constexpr mode_t LOCK_MODE = 0600;
constexpr mode_t SOCKET_MODE = 0660; // owner and group may connect

struct LockPath {
    char text[sizeof(sockaddr_un::sun_path) + sizeof ".lock"];
};

LockPath lock_path(const sockaddr_un &address)
{
    LockPath path;
    snprintf(path.text, sizeof path.text, "%s.lock", address.sun_path);
    return path;
}

bool complain(const char *what, const char *path)
{
    log_line("%s %s: %s", what, path, strerror(errno));
    return false;
}

bool complain_taken(const char *path)
{
    log_line("another server already listens at %s", path);
    return false;
}

bool same_file(const char *path, dev_t device, ino_t inode)
{
    struct stat named;
    return lstat(path, &named) == 0 && named.st_dev == device && named.st_ino == inode;
}

// The server before us removes its lock file when it ends, and may do so after we opened that very file: the lock is
// then on a file that nobody else will ever meet.
bool lock_is_of_path(int fd, const char *path)
{
    struct stat locked;
    return fstat(fd, &locked) == 0 && same_file(path, locked.st_dev, locked.st_ino);
}

enum class Lock { held, failed, again };

Lock lock_try(const char *path, const char *socket_path, int *lock_fd)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, LOCK_MODE);
    if (fd < 0) {
        complain("cannot open", path);
        return Lock::failed;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) < 0) {
        if (errno == EWOULDBLOCK)
            complain_taken(socket_path);
        else
            complain("cannot lock", path);
        close(fd);
        return Lock::failed;
    }
    if (!lock_is_of_path(fd, path)) {
        close(fd);
        return Lock::again;
    }
    *lock_fd = fd;
    return Lock::held;
}

bool lock_take(Listener *listener)
{
    const LockPath path = lock_path(listener->address);
    for (int i = 0; i < 100; i++) {
        const Lock lock = lock_try(path.text, listener->address.sun_path, &listener->lock_fd);
        if (lock != Lock::again)
            return lock == Lock::held;
    }
    log_line("%s vanishes again and again", path.text);
    return false;
}

// A server whose lock file somebody has removed still answers at its socket. Only a refused connection is the sign of
// a dead one: a full queue or a missing permission is an answer too.
bool somebody_listens(const sockaddr_un &address)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return false;
    const int result = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const bool listens = result == 0 || (errno != ECONNREFUSED && errno != ENOENT);
    close(fd);
    return listens;
}

// Clears the place of the socket. Only a dead socket is ever removed; a link is not followed.
bool place_clear(const sockaddr_un &address)
{
    const char *path = address.sun_path;
    struct stat found;
    if (lstat(path, &found) < 0)
        return errno == ENOENT || complain("cannot look at", path);
    if (!S_ISSOCK(found.st_mode)) {
        log_line("%s is in the way: it is not a socket", path);
        return false;
    }
    if (somebody_listens(address))
        return complain_taken(path);
    return unlink(path) == 0 || errno == ENOENT || complain("cannot remove", path);
}

// The socket's mode holds whatever the umask is. It never opens wider than wanted on the way, and nobody can connect
// before listen anyway.
bool bind_and_listen(Listener *listener)
{
    const char *path = listener->address.sun_path;
    fchmod(listener->fd, SOCKET_MODE);
    if (bind(listener->fd, reinterpret_cast<const sockaddr *>(&listener->address), sizeof listener->address) < 0)
        return complain("cannot bind", path);
    struct stat bound;
    if (lstat(path, &bound) < 0)
        return complain("cannot look at", path);
    listener->device = bound.st_dev;
    listener->inode = bound.st_ino;
    if ((bound.st_mode & 0777) != SOCKET_MODE && fchmodat(AT_FDCWD, path, SOCKET_MODE, AT_SYMLINK_NOFOLLOW) < 0)
        return complain("cannot set the mode of", path);
    listener->refuses = descriptors_refuse(listener->fd);
    return listen(listener->fd, QUEUE_MAX) == 0 || complain("cannot listen at", path);
}

bool open_own(Listener *listener, const char *service)
{
    if (service_address(service, &listener->address) < 0)
        return complain("cannot use the service name", service ? service : "(none)");
    if (strcmp(runtime_folder(), DEFAULT_FOLDER) == 0 && folder_make(DEFAULT_FOLDER) < 0)
        return complain("cannot make", DEFAULT_FOLDER);
    if (!lock_take(listener) || !place_clear(listener->address))
        return false;
    listener->fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return listener->fd < 0 ? complain("cannot make a socket for", service) : bind_and_listen(listener);
}

} // namespace

int folder_make(const char *folder)
{
    if (mkdir(folder, FOLDER_MODE) < 0)
        return errno == EEXIST ? 0 : -1;
    return chmod(folder, FOLDER_MODE); // whatever the umask took away
}

bool listener_open(Listener *listener, const char *service)
{
    *listener = {};
    listener->fd = listener->lock_fd = -1;
    if (listener_take_activated(&listener->fd)) {
        if (listener->fd < 0)
            log_line("the service manager handed over no listening SOCK_SEQPACKET Unix socket");
        else
            descriptors_refuse(listener->fd); // those who wait in it may have sent some already
        return listener->fd >= 0;
    }
    if (open_own(listener, service))
        return true;
    listener_close(listener);
    return false;
}

void listener_close(Listener *listener)
{
    if (listener->inode && same_file(listener->address.sun_path, listener->device, listener->inode))
        unlink(listener->address.sun_path);
    if (listener->fd >= 0)
        close(listener->fd);
    if (listener->lock_fd >= 0) {
        unlink(lock_path(listener->address).text); // while the lock is still held
        close(listener->lock_fd);
    }
    listener->fd = listener->lock_fd = -1;
    listener->inode = 0;
}

} // namespace libmc
