// SPDX-License-Identifier: MIT
// The client side: blocking, without a main loop.
#include "connection.h"
#include "names.h"
#include "wire.h"

#include <algorithm>
#include <cerrno>
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

int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The moment until which a call may wait. The clock is read when it first does: most calls do not.
class Deadline {
public:
    explicit Deadline(int timeout_ms) : timeout_ms_(timeout_ms) {}

    // Milliseconds until then; -1: there is no limit.
    int left()
    {
        if (timeout_ms_ <= 0)
            return timeout_ms_ < 0 ? -1 : 0;
        const int64_t now = now_ms();
        if (at_ms_ == UNREAD)
            at_ms_ = now + timeout_ms_;
        return static_cast<int>(std::max<int64_t>(at_ms_ - now, 0));
    }

private:
    static constexpr int64_t UNREAD = -1;
    int timeout_ms_;
    int64_t at_ms_ = UNREAD;
};

// However the kernel tells that the other side is gone, callers see EPIPE.
void unify_errno()
{
    if (errno == ECONNRESET || errno == ECONNREFUSED || errno == ENOTCONN)
        errno = EPIPE;
}

// Waits for `events` until the deadline. False with errno set, ETIMEDOUT in particular. A deadline that has passed
// still looks once.
bool wait_until(int fd, short events, Deadline &deadline)
{
    pollfd entry = {fd, events, 0};
    int n;
    do {
        n = poll(&entry, 1, deadline.left());
    } while (n < 0 && errno == EINTR);
    if (n == 0)
        errno = ETIMEDOUT;
    return n > 0;
}

// How long connect may block: until the deadline, or 0, without limit.
int limit_connect(int fd, Deadline &deadline)
{
    const int left = deadline.left();
    timeval limit = {};
    if (left >= 0) {
        const int ms = std::max(left, 1);
        limit.tv_sec = ms / 1000;
        limit.tv_usec = ms % 1000 * 1000;
    }
    return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

int connect_until(int fd, const sockaddr_un &address, Deadline &deadline)
{
    Deadline none(-1);
    do {
        if (limit_connect(fd, deadline) < 0)
            return -1;
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return limit_connect(fd, none);
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
    Deadline deadline(timeout_ms);
    if (connect_until(fd, address, deadline) == 0 && fcntl(fd, F_SETFL, 0) == 0)
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

bool usable(const mc_connection *connection, const mc_packet *packet)
{
    if (connection->side == Side::client && packet)
        return true;
    errno = EINVAL;
    return false;
}

// `send` tries to, under the connection's present serial number.
template <typename Send> int send_until(mc_connection *connection, const Send &send, Deadline &deadline)
{
    connection->serial++;
    while (send() < 0) {
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

int ask_until(mc_connection *connection, const mc_packet *request, Deadline &deadline)
{
    discard_answers_at_times(connection);
    const auto send = [=] { return packet_send(connection->fd, request, connection->serial, MSG_DONTWAIT); };
    const int sent = send_until(connection, send, deadline);
    if (sent == 0) {
        connection->asked = connection->serial;
        connection->answers_come = true;
    }
    return sent;
}

enum class Taken { nothing, other, answer, failure };

// Takes one packet, if one is there, and says whether it answers the last request that may be answered.
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
    return packet_serial(packet) == connection->asked ? Taken::answer : Taken::other;
}

bool receive_until(mc_connection *connection, mc_packet *packet, Deadline &deadline)
{
    for (;;) {
        switch (take_answer(connection, packet)) {
        case Taken::answer: // all earlier ones came before it
            connection->answers_come = false;
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

mc_packet *answer_until(mc_connection *connection, Deadline &deadline)
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
    Deadline deadline(timeout_ms);
    return usable(connection, request) ? ask_until(connection, request, deadline) : -1;
}

int mc_send_unanswered(mc_connection *connection, mc_packet *request, int timeout_ms)
{
    if (!usable(connection, request))
        return -1;
    if (connection->answers_come)
        discard_answers_at_times(connection);
    Deadline deadline(timeout_ms);
    const auto send = [=] { return packet_post(connection->fd, request, connection->serial, MSG_DONTWAIT); };
    return send_until(connection, send, deadline);
}

mc_packet *mc_answer(mc_connection *connection, int timeout_ms)
{
    if (connection->side != Side::client) {
        errno = EINVAL;
        return nullptr;
    }
    Deadline deadline(timeout_ms);
    return answer_until(connection, deadline);
}

int mc_take_answer(mc_connection *connection, mc_packet *answer, int timeout_ms)
{
    if (!usable(connection, answer))
        return -1;
    Deadline deadline(timeout_ms);
    return receive_until(connection, answer, deadline) ? 0 : -1;
}

mc_packet *mc_call(mc_connection *connection, const mc_packet *request, int timeout_ms)
{
    if (!usable(connection, request))
        return nullptr;
    Deadline deadline(timeout_ms);
    return ask_until(connection, request, deadline) == 0 ? answer_until(connection, deadline) : nullptr;
}
