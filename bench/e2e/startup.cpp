// SPDX-License-Identifier: MIT
// startup TARGET WHERE PLACE [NAME=VALUE...] COMMAND... - starts a server, with these additions to its environment, and
// prints as one line of JSON how many nanoseconds after that it accepts a client, and how many nanoseconds after the
// start of its connection that client's first pixels are on the panel (or drawn, where the panel is not seen). The
// server is ended then. WHERE names the server's socket (or display). PLACE is the target's; "WHERE/segment" stands for
// the shared memory that the server has made by then.
#include "target.h"

#include <cstdio>
#include <csignal>
#include <cstring>
#include <sched.h>
#include <string>
#include <sys/shm.h>
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

// The one segment that a process has made; the system's list of them has room for others that have gone.
int segment_of(pid_t pid)
{
    shmid_ds segment;
    const int last = shmctl(0, SHM_INFO, &segment);
    for (int i = 0; i <= last; i++) {
        const int id = shmctl(i, SHM_STAT, &segment);
        if (id >= 0 && segment.shm_cpid == pid)
            return id;
    }
    fail("the server has made no shared memory");
}

int64_t show_first(const Target *target)
{
    const int64_t start = now();
    Client client{Area{0, 0, FLOOR_WIDTH, FLOOR_HEIGHT}, nullptr, 0, nullptr};
    target->connect(&client);
    for (int32_t i = 0; i < client.pitch * FLOOR_HEIGHT; i++)
        client.pixels[i] = COLOUR;
    target->update(&client, client.area);
    if (target->pixel == nullptr)
        target->finish(&client);
    while (target->pixel != nullptr && ((*target->pixel(FLOOR_WIDTH - 1, FLOOR_HEIGHT - 1) ^ COLOUR) & 0xffffff) != 0) {
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
    const int64_t start = now();
    const pid_t server = program_start(argv + 4);
    const int64_t accepted = wait_accepting(target, argv[2], server, start);
    std::string place = argv[3];
    if (place == "WHERE/segment")
        place = argv[2] + ("/" + std::to_string(segment_of(server)));
    target->start(place.c_str());
    printf("{\"accept_ns\": %lld, \"pixel_ns\": %lld}\n", static_cast<long long>(accepted),
           static_cast<long long>(show_first(target)));
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
}
