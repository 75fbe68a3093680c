// SPDX-License-Identifier: MIT
#include "raw.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

bool send_and_free(mc_connection *connection, mc_packet *packet)
{
    const bool sent = packet != nullptr && mc_send(connection, packet) == 0;
    mc_packet_free(packet);
    return sent;
}

bool fill(int fd, const RawSurface &surface)
{
    const size_t pixels = static_cast<size_t>(surface.width) * static_cast<size_t>(surface.height);
    if (ftruncate(fd, static_cast<off_t>(pixels * 4)) < 0)
        return false;
    if (surface.pixel == 0)
        return true;
    void *memory = mmap(nullptr, pixels * 4, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        return false;
    std::fill_n(static_cast<uint32_t *>(memory), pixels, surface.pixel);
    munmap(memory, pixels * 4);
    return true;
}

bool send_create(mc_connection *connection, const RawSurface &s, const char *name)
{
    mc_packet *packet = mc_packet_new_command("create");
    if (packet != nullptr)
        mc_packet_build_args(packet, "iiiiiiiiis", s.alpha ? 1 : 0, 32, s.x, s.y, s.width, s.height, s.width * 4,
                             s.level, 0, name);
    return send_and_free(connection, packet);
}

} // namespace

bool raw_request(mc_connection *connection, const char *word, std::initializer_list<int32_t> values)
{
    mc_packet *packet = mc_packet_new_command(word);
    for (int32_t value : values)
        mc_packet_build_args(packet, "i", value);
    return send_and_free(connection, packet);
}

bool raw_create(mc_connection *connection, const RawSurface &surface)
{
    static int number;
    char name[64];
    snprintf(name, sizeof name, "/raw-%d-%d-%d", static_cast<int>(getppid()), static_cast<int>(getpid()), number++);
    const int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    const bool sent = fill(fd, surface) && send_create(connection, surface, name);
    close(fd);
    if (!sent)
        shm_unlink(name);
    return sent;
}
