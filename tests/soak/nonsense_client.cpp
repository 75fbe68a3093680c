// SPDX-License-Identifier: MIT
// Clients below the library: packets that are none, greetings that are none, answers that nobody reads.
#include "soak.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

int raw_connect(const std::string &socket_path)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw std::runtime_error(std::string("cannot connect: ") + strerror(errno));
    return fd;
}

ssize_t raw_send(int fd, const std::string &bytes, int flags = 0)
{
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | flags);
}

std::string greeting(const std::string &name)
{
    std::string bytes("\0\0\0\0connect\0is\0\0", 16);  // serial, word, signature, padding
    bytes += std::string("\1\0\0\0", 4) + name + '\0'; // version, name
    bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
    return bytes;
}

const std::string QUESTION("\0\0\0\0get_native_color_depth\0\0", 28);

const std::string NONSENSE[] = {
    std::string("\0", 1),
    std::string("\0\0\0\0show", 8),
    std::string("\0\0\0\0dirty\0iiii\0\0\0\0\0", 20),
    std::string("\0\0\0\0show\0\0\0\0garbage!", 20),
    std::string("\0\0\0\0move\0zz\0\0", 12),
    std::string(5000, 'a'),
    std::string(),
};

bool is_dropped(int fd)
{
    return wait_long([&] {
        char byte;
        const ssize_t n = recv(fd, &byte, 1, MSG_DONTWAIT);
        return n == 0 || (n < 0 && errno == ECONNRESET);
    });
}

} // namespace

void client_nonsense(Plan &plan, Shared *shared, const std::string &socket_path)
{
    const int fd = raw_connect(socket_path);
    if (chance(plan.random, 25)) { // says nothing, and goes before or after the server has lost its patience
        usleep(static_cast<useconds_t>(chance(plan.random, 20) ? 6000000 : plan.pause_ms * 1000));
        return;
    }
    if (chance(plan.random, 70)) {
        raw_send(fd, greeting("fb.nonsense\n" + std::to_string(plan.number)));
        raw_send(fd, NONSENSE[between(plan.random, 0, 6)]);
    } else {
        raw_send(fd, chance(plan.random, 50) ? greeting(std::string(300, 'n')) : NONSENSE[between(plan.random, 0, 6)]);
    }
    shared->requests++;
    if (!is_dropped(fd))
        shared_fault(shared, "client " + std::to_string(plan.number) + ": not dropped");
}

void client_deaf(Plan &plan, Shared *shared, const std::string &socket_path)
{
    const int fd = raw_connect(socket_path);
    raw_send(fd, greeting(plan.name));
    // Until it is dropped; or for a while, when nothing is selected and nothing is answered.
    for (int i = 0; i < 3000; i++) {
        if (raw_send(fd, QUESTION) < 0)
            return;
        shared->requests++;
    }
}
