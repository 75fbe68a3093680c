// SPDX-License-Identifier: MIT
// Many surfaces from one connection: each "create" leaves the surface before it where it is.
#include "target.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "floor.h"
#include "mc.h"

namespace {

void request(mc_connection *connection, const char *word)
{
    mc_packet *packet = mc_packet_new_command(word);
    if (packet == nullptr || mc_send(connection, packet) < 0)
        fail("\"%s\" could not be sent", word);
    mc_packet_free(packet);
}

void create_surface(mc_connection *connection, int number, int32_t size)
{
    char name[64];
    snprintf(name, sizeof name, "/crowd-%d-%d", static_cast<int>(getpid()), number);
    const int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, size * size * 4) < 0)
        fail("no shared memory %s", name);
    close(fd);
    const int32_t x = number * 37 % (FLOOR_WIDTH - size);
    const int32_t y = number * 53 % (FLOOR_HEIGHT - size);
    mc_packet *packet = mc_packet_new_command("create");
    mc_packet_build_args(packet, "iiiiiiiiis", 0, 32, x, y, size, size, size * 4, 0, 0, name);
    if (mc_send(connection, packet) < 0)
        fail("\"create\" could not be sent");
    mc_packet_free(packet);
}

} // namespace

mc_connection *crowd_connect(int n, int32_t size)
{
    mc_connection *connection = mc_connect("pfb", "crowd");
    if (connection == nullptr)
        fail("no server");
    for (int i = 0; i < n; i++) {
        create_surface(connection, i, size);
        request(connection, "show");
    }
    mc_packet *ask = mc_packet_new_command("get_native_color_depth");
    mc_packet *answer = mc_call(connection, ask, 10000);
    if (n > 0 && answer == nullptr)
        fail("the server does not answer");
    mc_packet_free(ask);
    mc_packet_free(answer);
    return connection;
}
