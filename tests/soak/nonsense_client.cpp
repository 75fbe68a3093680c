// SPDX-License-Identifier: MIT
// Clients below the library: packets that are none, greetings that are none, answers that nobody reads.
#include "soak.h"

#include <sys/socket.h>
#include <unistd.h>

#include "../support/raw_client.h"

namespace {

const std::string NONSENSE[] = {
    std::string("\0", 1),
    std::string("\0\0\0\0show", 8),
    std::string("\0\0\0\0dirty\0iiii\0\0\0\0\0", 20),
    std::string("\0\0\0\0show\0\0\0\0garbage!", 20),
    std::string("\0\0\0\0move\0zz\0\0", 12),
    std::string(5000, 'a'),
    std::string(),
};

} // namespace

void client_nonsense(Plan &plan, Shared *shared, const std::string &socket_path)
{
    RawClient client(socket_path);
    if (chance(plan.random, 25)) { // says nothing, and goes before or after the server has lost its patience
        usleep(static_cast<useconds_t>(chance(plan.random, 20) ? 6000000 : plan.pause_ms * 1000));
        return;
    }
    if (chance(plan.random, 70)) {
        client.greet("fb.nonsense\n" + std::to_string(plan.number));
        client.send_bytes(NONSENSE[between(plan.random, 0, 6)]);
    } else {
        const bool named = chance(plan.random, 50);
        client.send_bytes(named ? RawClient::greeting(std::string(300, 'n')) : NONSENSE[between(plan.random, 0, 6)]);
    }
    shared->requests++;
    if (!client.is_dropped())
        shared_fault(shared, "client " + std::to_string(plan.number) + ": not dropped");
}

void client_deaf(Plan &plan, Shared *shared, const std::string &socket_path)
{
    RawClient client(socket_path, plan.name);
    const std::string question = RawClient::request("get_native_color_depth");
    // Until it is dropped; or for a while, when nothing is selected and nothing is answered.
    for (int i = 0; i < 3000; i++) {
        if (send(client.fd(), question.data(), question.size(), MSG_NOSIGNAL) < 0)
            return;
        shared->requests++;
    }
}
