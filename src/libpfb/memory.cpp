// SPDX-License-Identifier: MIT
// Shared memory that the server can open: a server that cannot open a client's memory stops.
#include "client.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int NAME_ATTEMPTS = 100;
constexpr int64_t ALLOCATION = 1 << 16; // bytes
constexpr mode_t OWNER = 0600, OWNER_AND_GROUP = 0660;

// The group of those who may connect, the server among them: the one of its socket's file, or the one that the server
// listened under where that file cannot be seen.
gid_t server_group(int socket, const ucred &server)
{
    sockaddr_un address = {};
    socklen_t size = sizeof address - 1; // leaves a NUL behind the path
    struct stat file;
    if (getpeername(socket, reinterpret_cast<sockaddr *>(&address), &size) == 0 && address.sun_path[0] == '/' &&
        stat(address.sun_path, &file) == 0)
        return file.st_gid;
    return server.gid;
}

int let_server_open(int fd, int socket, const char *function)
{
    ucred server = {};
    socklen_t size = sizeof server;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &server, &size) != 0)
        return libpfb::fail_errno(function, "SO_PEERCRED");
    if (fchown(fd, static_cast<uid_t>(-1), server_group(socket, server)) == 0)
        return fchmod(fd, OWNER_AND_GROUP) == 0 ? int{PFB_OK} : libpfb::fail_errno(function, "fchmod");
    if (server.pid == libpfb::MANAGER)
        return libpfb::fail(PFB_ERROR_ACCESS, function,
                            "the server may be any user, and this process is not of the group of its socket");
    if (server.uid == geteuid() || server.uid == 0) // opens it without the group's help
        return PFB_OK;
    return libpfb::fail(PFB_ERROR_ACCESS, function, "the server is user %u, and this process is not of its group",
                        static_cast<unsigned>(server.uid));
}

int new_object(char *name)
{
    for (int i = 0; i < NAME_ATTEMPTS; i++) {
        uint32_t number = 0;
        if (getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number)
            number = static_cast<uint32_t>(i); // early at boot: the process's number and this one will do
        snprintf(name, libpfb::MEMORY_NAME_SIZE, "/pfb.%d.%08x", static_cast<int>(getpid()), number);
        const int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL, OWNER);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

bool allocate(int fd, int64_t offset, int64_t size)
{
    int error;
    do {
        error = posix_fallocate(fd, offset, size);
    } while (error == EINTR);
    errno = error;
    return error == 0;
}

// Sized with all its pages: memory that runs out is found here, and not when a pixel is written. Bit by bit: many a
// kernel begins a piece again when a signal comes, and would never come to the end of a large one under a timer's.
bool set_size(int fd, int64_t size)
{
    bool allocated = true;
    for (int64_t offset = 0; allocated && offset < size; offset += ALLOCATION)
        allocated = allocate(fd, offset, std::min(ALLOCATION, size - offset));
    return allocated;
}

int fill(int fd, const pfb_client *client, const char *function, int64_t size, void **pixels)
{
    const int opened = let_server_open(fd, mc_fd(client->connection), function);
    if (opened != PFB_OK)
        return opened;
    if (!set_size(fd, size))
        return libpfb::fail_errno(function, "shared memory");
    void *mapping = mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapping == MAP_FAILED)
        return libpfb::fail_errno(function, "mmap");
    *pixels = mapping;
    return PFB_OK;
}

// The pixels go into another mapping, and that to their address. What was there is unmapped.
bool move_pixels(const pfb_client *client, void *mapping, size_t size)
{
    memcpy(mapping, client->pixels, size);
    if (mremap(mapping, size, size, MREMAP_MAYMOVE | MREMAP_FIXED, client->pixels) == client->pixels)
        return true;
    munmap(mapping, size);
    return false;
}

// The old object may be what leaves no room for a new one. False when the pixels are in none any more.
bool free_object(pfb_client *client, size_t size)
{
    if (client->pixels_are_private)
        return false;
    void *mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    client->pixels_are_private = mapping != MAP_FAILED && move_pixels(client, mapping, size);
    return client->pixels_are_private;
}

} // namespace

int libpfb::memory_new(const pfb_client *client, const char *function, int64_t size, char *name, void **pixels)
{
    const int fd = new_object(name);
    if (fd < 0)
        return fail_errno(function, "shm_open");
    const int filled = fill(fd, client, function, size, pixels);
    close(fd);
    if (filled != PFB_OK)
        shm_unlink(name);
    return filled;
}

bool libpfb::memory_renew(pfb_client *client, char *name)
{
    const size_t size = memory_size(client);
    void *fresh = nullptr;
    int made = memory_new(client, "pfb_dispatch", static_cast<int64_t>(size), name, &fresh);
    if (made == PFB_ERROR_MEMORY && free_object(client, size))
        made = memory_new(client, "pfb_dispatch", static_cast<int64_t>(size), name, &fresh);
    if (made == PFB_OK && fresh != nullptr && move_pixels(client, fresh, size)) {
        client->pixels_are_private = false;
        return true;
    }
    if (made == PFB_OK)
        shm_unlink(name);
    name[0] = '\0';
    return false;
}

size_t libpfb::memory_size(const pfb_client *client)
{
    return static_cast<size_t>(client->shape.stride) * static_cast<size_t>(client->shape.height);
}
