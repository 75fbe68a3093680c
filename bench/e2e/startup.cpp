// SPDX-License-Identifier: MIT
// startup TARGET WHERE PLACE [NAME=VALUE...] COMMAND... - starts a server, with these additions to its environment, and
// prints as one line of JSON how many nanoseconds after that it accepts a client, and how many nanoseconds after the
// start of its connection that client's first pixels are on the panel. The server is ended then. WHERE names the
// server's socket (or display). A place of "-" is one that is not looked at: the first time alone is taken.
#include "target.h"

#include <cstdio>
#include <csignal>
#include <cstring>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include "floor.h"
#include "observe.h"

namespace {

constexpr int64_t LIMIT_NS = 10 * SECOND;
const uint32_t COLOUR = 0xff000001 | static_cast<uint32_t>(getpid()) * 7919 << 1; // what an earlier run left is another

int64_t wait_accepting(const Target *target, const char *where, pid_t server, int64_t start)
{
    for (; !target->accepts(where); usleep(50)) { // a loop without rest would take the processor from the server
        if (now() - start > LIMIT_NS || waitpid(server, nullptr, WNOHANG) != 0)
            fail("%s does not start", target->name);
    }
    return now() - start;
}

int64_t show_first(const Target *target)
{
    const int64_t start = now();
    Client client{Area{0, 0, FLOOR_WIDTH, FLOOR_HEIGHT}, nullptr, 0, nullptr};
    target->connect(&client);
    for (int32_t i = 0; i < client.pitch * FLOOR_HEIGHT; i++)
        client.pixels[i] = COLOUR;
    target->update(&client, client.area);
    while (((*target->pixel(FLOOR_WIDTH - 1, FLOOR_HEIGHT - 1) ^ COLOUR) & 0xffffff) != 0) {
        if (now() - start > LIMIT_NS)
            fail("%s shows nothing", target->name);
        sched_yield();
    }
    return now() - start;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 5)
        fail("see the head of startup.cpp");
    const Target *target = find_target(argv[1]);
    const bool seen = strcmp(argv[3], "-") != 0;
    if (seen)
        target->start(argv[3]);
    const int64_t start = now();
    const pid_t server = program_start(argv + 4);
    const int64_t accepted = wait_accepting(target, argv[2], server, start);
    const int64_t shown = seen ? show_first(target) : 0;
    printf("{\"accept_ns\": %lld, \"pixel_ns\": %lld}\n", static_cast<long long>(accepted),
           static_cast<long long>(shown));
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
}
