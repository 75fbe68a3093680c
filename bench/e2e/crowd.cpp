// SPDX-License-Identifier: MIT
// Many surfaces from one connection: each "create" leaves the surface before it where it is.
#include "target.h"

#include "raw.h"

mc_connection *crowd_connect(int n, int32_t size, const Area &within)
{
    mc_connection *connection = mc_connect("pfb", "crowd");
    if (connection == nullptr)
        fail("no server");
    for (int i = 0; i < n; i++) {
        const int32_t x = within.x + i * 37 % (within.width - size + 1);
        const int32_t y = within.y + i * 53 % (within.height - size + 1);
        if (!raw_create(connection, {x, y, size, size, 0, false, 0}) || !raw_request(connection, "show"))
            fail("no surface of a crowd");
    }
    if (n == 0)
        return connection;
    mc_packet *ask = mc_packet_new_command("get_native_color_depth");
    mc_packet *answer = mc_call(connection, ask, 10000);
    if (answer == nullptr)
        fail("the server does not answer");
    mc_packet_free(ask);
    mc_packet_free(answer);
    return connection;
}
