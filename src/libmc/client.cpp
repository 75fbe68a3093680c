// SPDX-License-Identifier: MIT
// The client side: blocking, without a main loop.
#include "connection.h"
#include "names.h"
#include "wire.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

using namespace libmc;

namespace {

constexpr int64_t FOR_EVER = -1;

int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int64_t deadline_in(int timeout_ms)
{
    return timeout_ms < 0 ? FOR_EVER : now_ms() + timeout_ms;
}

// However the kernel tells that the other side is gone, callers see EPIPE.
void unify_errno()
{
    if (errno == ECONNRESET || errno == ECONNREFUSED || errno == ENOTCONN)
        errno = EPIPE;
}

// Waits for `events` until the deadline (FOR_EVER: without one). False with errno set, ETIMEDOUT in particular. A
// deadline that has passed still looks once.
bool wait_until(int fd, short events, int64_t deadline)
{
    for (;;) {
        int64_t left = -1;
        if (deadline != FOR_EVER) {
            left = deadline - now_ms();
            left = left < 0 ? 0 : left > INT_MAX ? INT_MAX : left;
        }
        pollfd entry = {fd, events, 0};
        const int n = poll(&entry, 1, static_cast<int>(left));
        if (n > 0)
            return true;
        if (n == 0)
            errno = ETIMEDOUT;
        if (n == 0 || errno != EINTR)
            return false;
    }
}

// How long connect may block: until the deadline, or 0, without limit.
int limit_connect(int fd, int64_t deadline)
{
    timeval limit = {};
    if (deadline != FOR_EVER) {
        const int64_t left = std::max<int64_t>(deadline - now_ms(), 1);
        limit.tv_sec = static_cast<time_t>(left / 1000);
        limit.tv_usec = static_cast<suseconds_t>(left % 1000 * 1000);
    }
    return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

int connect_until(int fd, const sockaddr_un &address, int64_t deadline)
{
    do {
        if (limit_connect(fd, deadline) < 0)
            return -1;
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return limit_connect(fd, FOR_EVER);
    } while (errno == EINTR);
    if (errno == EAGAIN) // the server's queue was full all the time
        errno = ETIMEDOUT;
    return -1;
}

// A blocking socket in any case.
int connect_socket(const sockaddr_un &address, int timeout_ms)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | (timeout_ms == 0 ? SOCK_NONBLOCK : 0), 0);
    if (fd < 0)
        return -1;
    if (connect_until(fd, address, deadline_in(timeout_ms)) == 0 && fcntl(fd, F_SETFL, 0) == 0)
        return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

int send_greeting(mc_connection *connection)
{
    mc_packet *greeting = mc_packet_new_command(GREETING_COMMAND);
    if (!greeting)
        return -1;
    mc_packet_build_args(greeting, GREETING_SIGNATURE, PROTOCOL_VERSION, connection->name);
    const int result = packet_send(connection->fd, greeting, 0, 0);
    const int error = errno;
    mc_packet_free(greeting);
    errno = error;
    return result;
}

// Answers that nobody waits for are looked for before each request, until there were none for so many of them; from
// then on before every eighth one, as looking is a system call.
constexpr unsigned CALM = 16;
constexpr unsigned CALM_STEP = 8;

// Throws away the answers that nobody waits for, so that a client that only ever sends does not count as one that does
// not read. Bounded: a server that answers faster than this reads must not hold the client here.
void discard_answers(mc_connection *connection)
{
    char byte;
    connection->calm++;
    for (int i = 0; i < 64; i++) {
        if (recv(connection->fd, &byte, sizeof byte, MSG_DONTWAIT | MSG_TRUNC) <= 0)
            break;
        connection->calm = 0;
    }
}

void discard_answers_at_times(mc_connection *connection)
{
    if (connection->calm < CALM || connection->calm % CALM_STEP == 0)
        discard_answers(connection);
    else
        connection->calm++;
}

bool usable(const mc_connection *connection, const mc_packet *request)
{
    if (connection->side == Side::client && request)
        return true;
    errno = EINVAL;
    return false;
}

int send_until(mc_connection *connection, const mc_packet *request, int64_t deadline)
{
    discard_answers_at_times(connection);
    connection->serial++;
    while (packet_send(connection->fd, request, connection->serial, MSG_DONTWAIT) < 0) {
        if (errno != EAGAIN) {
            unify_errno();
            return -1;
        }
        if (!wait_until(connection->fd, POLLOUT, deadline))
            return -1;
        discard_answers(connection); // it may be behind because nobody reads them
    }
    return 0;
}

enum class Taken { nothing, other, answer, failure };

// Takes one packet, if one is there, and says whether it answers the last request.
Taken take_answer(mc_connection *connection, mc_packet *packet)
{
    const ssize_t n = packet_receive(connection->fd, packet);
    if (n < 0 && errno == EAGAIN)
        return Taken::nothing;
    if (n < 0 && errno == ECONNRESET) // answers from before may still be there
        return Taken::other;
    if (n < 0)
        return Taken::failure;
    if (n == 0) {
        errno = EPIPE;
        return Taken::failure;
    }
    if (packet_decode(packet, static_cast<size_t>(n))) {
        errno = EPROTO;
        return Taken::failure;
    }
    return packet_serial(packet) == connection->serial ? Taken::answer : Taken::other;
}

bool receive_until(mc_connection *connection, mc_packet *packet, int64_t deadline)
{
    for (;;) {
        switch (take_answer(connection, packet)) {
        case Taken::answer:
            return true;
        case Taken::failure:
            return false;
        case Taken::other:
            break;
        case Taken::nothing:
            if (!wait_until(connection->fd, POLLIN, deadline))
                return false;
        }
    }
}

// To the last request that was sent.
mc_packet *answer_until(mc_connection *connection, int64_t deadline)
{
    mc_packet *answer = mc_packet_new(0);
    if (!answer || receive_until(connection, answer, deadline))
        return answer;
    const int error = errno;
    mc_packet_free(answer);
    errno = error;
    return nullptr;
}

} // namespace

mc_connection *mc_connect(const char *service_name, const char *client_name)
{
    return mc_connect_in_time(service_name, client_name, -1);
}

mc_connection *mc_connect_in_time(const char *service_name, const char *client_name, int timeout_ms)
{
    sockaddr_un address;
    if (service_address(service_name, &address) < 0)
        return nullptr;
    if (!client_name || strlen(client_name) > MC_NAME_MAX) {
        errno = client_name ? ENAMETOOLONG : EINVAL;
        return nullptr;
    }
    const int fd = connect_socket(address, timeout_ms);
    if (fd < 0)
        return nullptr;
    mc_connection *connection = connection_new(Side::client, fd, client_name);
    if (connection && send_greeting(connection) == 0)
        return connection;
    unify_errno();
    const int error = errno;
    if (connection)
        mc_close(connection);
    else
        close(fd);
    errno = error;
    return nullptr;
}

int mc_send(mc_connection *connection, const mc_packet *request)
{
    return mc_send_in_time(connection, request, -1);
}

int mc_send_in_time(mc_connection *connection, const mc_packet *request, int timeout_ms)
{
    return usable(connection, request) ? send_until(connection, request, deadline_in(timeout_ms)) : -1;
}

mc_packet *mc_answer(mc_connection *connection, int timeout_ms)
{
    if (connection->side != Side::client) {
        errno = EINVAL;
        return nullptr;
    }
    return answer_until(connection, deadline_in(timeout_ms));
}

mc_packet *mc_call(mc_connection *connection, const mc_packet *request, int timeout_ms)
{
    if (!usable(connection, request))
        return nullptr;
    const int64_t deadline = deadline_in(timeout_ms);
    return send_until(connection, request, deadline) == 0 ? answer_until(connection, deadline) : nullptr;
}
