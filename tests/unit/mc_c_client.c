/* SPDX-License-Identifier: MIT */
/* A client in plain C: asks SERVICE, as "c.client", to add two numbers. Succeeds when 42 comes back. */
#include <stdio.h>

#include "mc.h"

static int ask(mc_connection *connection)
{
    int32_t sum = 0;
    mc_packet *request = mc_packet_new_command("add");
    mc_packet *answer;
    if (mc_packet_build_args(request, "ii", (int32_t)40, (int32_t)2) != 2)
        return 1;
    answer = mc_call(connection, request, 20000);
    if (!answer || mc_packet_parse_args(answer, "i", &sum) != 1)
        perror("mc_call");
    mc_packet_free(answer);
    if (mc_send(connection, request) < 0)
        perror("mc_send");
    mc_packet_free(request);
    return sum != 42;
}

int main(int argc, char **argv)
{
    mc_connection *connection = argc > 1 ? mc_connect(argv[1], "c.client") : NULL;
    int result;
    if (!connection) {
        perror("mc_connect");
        return 2;
    }
    result = ask(connection);
    mc_close(connection);
    return result;
}
