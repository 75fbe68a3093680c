// SPDX-License-Identifier: MIT
// A service: accepts clients, within limits, and never lets a client that cannot be accepted keep the loop awake.
#include "factory.h"
#include "descriptors.h"
#include "log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace libmc;

namespace libmc {

namespace {

// Lines about clients that were turned away: at most one in REST_US, since such clients may come as a flood.
[[gnu::format(printf, 2, 3)]] void report_refusal(mc_factory *factory, const char *format, ...)
{
    const gint64 now = g_get_monotonic_time();
    if (now < factory->quiet_until) {
        factory->unreported++;
        return;
    }
    char reason[160];
    va_list values;
    va_start(values, format);
    vsnprintf(reason, sizeof reason, format, values);
    va_end(values);
    if (factory->unreported)
        log_line("%s: %s (and %u refusals before that were not reported)", factory->service, reason,
                 factory->unreported);
    else
        log_line("%s: %s", factory->service, reason);
    factory->unreported = 0;
    factory->quiet_until = now + REST_US;
}

void reserve_refill(mc_factory *factory)
{
    if (factory->reserve_fd < 0)
        factory->reserve_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void accepting_rest(mc_factory *factory)
{
    watch_rest(&factory->watch);
    watch_set_deadline(&factory->watch, g_get_monotonic_time() + REST_US);
}

int accept_fd(const mc_factory *factory)
{
    return accept4(factory->listener.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

void close_accepted(const mc_factory *factory, int fd)
{
    if (factory->listener.refuses)
        close(fd);
    else
        descriptors_close(fd, false);
}

enum class Accepting { next, done, rest };

// Descriptors have run out. The reserve makes room for the client to be accepted and turned away; left waiting, it
// would keep the listening socket readable for ever. (The kernel says EMFILE even when nobody waits.)
Accepting turn_away(mc_factory *factory)
{
    if (factory->reserve_fd < 0) {
        report_refusal(factory, "cannot accept: no descriptor is free");
        return Accepting::rest;
    }
    close(factory->reserve_fd);
    const int fd = accept_fd(factory);
    const bool nobody_waits = fd < 0 && errno == EAGAIN;
    if (fd >= 0) {
        report_refusal(factory, "refused a client: no descriptor is free");
        close_accepted(factory, fd);
    }
    factory->reserve_fd = -1;
    reserve_refill(factory);
    if (factory->reserve_fd < 0)
        return Accepting::rest;
    return fd >= 0 ? Accepting::next : nobody_waits ? Accepting::done : Accepting::rest;
}

// The one that has waited longest makes way: a client that means well greets at once.
void drop_oldest_ungreeted(mc_factory *factory)
{
    mc_connection *oldest = nullptr;
    for (mc_connection *connection = factory->connections; connection; connection = connection->next)
        if (!connection->greeted)
            oldest = connection;
    if (oldest) {
        report_refusal(factory, "dropped the client of pid %d: %u clients have not greeted yet",
                       static_cast<int>(oldest->pid), factory->n_ungreeted);
        mc_close(oldest);
    }
}

void factory_add(mc_factory *factory, mc_connection *connection)
{
    connection->factory = factory;
    connection->next = factory->connections;
    factory->connections = connection;
    factory->n_connections++;
    factory->n_ungreeted++;
}

unsigned connections_of(const mc_factory *factory, pid_t pid)
{
    unsigned n = 0;
    for (const mc_connection *connection = factory->connections; connection; connection = connection->next)
        n += connection->pid == pid;
    return n;
}

// The record of a client, unless some limit forbids it. All whose pid our pid namespace does not see count as one.
mc_connection *admit(mc_factory *factory, int fd)
{
    if (factory->n_connections >= factory->limits.connections) {
        report_refusal(factory, "refused a client: %u connections are open already", factory->n_connections);
        close_accepted(factory, fd);
        return nullptr;
    }
    mc_connection *connection = connection_new(Side::server, fd, "");
    if (!connection) {
        report_refusal(factory, "refused a client: no memory");
        close_accepted(factory, fd);
        return nullptr;
    }
    if (!factory->listener.refuses)
        descriptors_guard(connection);
    const unsigned of_peer = connections_of(factory, connection->pid);
    if (of_peer < factory->limits.per_peer)
        return connection;
    report_refusal(factory, "refused a client: pid %d has %u connections already", static_cast<int>(connection->pid),
                   of_peer);
    mc_close(connection);
    return nullptr;
}

void adopt(mc_factory *factory, int fd)
{
    mc_connection *connection = admit(factory, fd);
    if (!connection)
        return;
    if (factory->n_ungreeted >= factory->limits.ungreeted)
        drop_oldest_ungreeted(factory);
    factory_add(factory, connection);
    if (connection_await_greeting(connection, g_get_monotonic_time() + factory->limits.greeting_wait_us))
        return;
    report_refusal(factory, "refused a client: it cannot be waited for: %s", strerror(errno));
    mc_close(connection);
}

Accepting accept_one(mc_factory *factory)
{
    const int fd = accept_fd(factory);
    if (fd >= 0) {
        adopt(factory, fd);
        return Accepting::next;
    }
    switch (errno) {
    case EAGAIN:
        return Accepting::done;
    case EINTR:
    case ECONNABORTED:
        return Accepting::next;
    case EMFILE:
    case ENFILE:
        return turn_away(factory);
    default:
        report_refusal(factory, "cannot accept: %s", strerror(errno));
        return Accepting::rest;
    }
}

// After a rest it is late.
void accept_turn(void *owner, bool late)
{
    auto *factory = static_cast<mc_factory *>(owner);
    if (late)
        reserve_refill(factory);
    Accepting accepting = late && !watch_resume(&factory->watch) ? Accepting::rest : Accepting::next;
    for (int i = 0; i < ACCEPTS_PER_TURN && accepting == Accepting::next; i++)
        accepting = accept_one(factory);
    if (accepting == Accepting::rest)
        accepting_rest(factory);
}

bool factory_attach(mc_factory *factory)
{
    factory->watch.turn = accept_turn;
    factory->watch.owner = factory;
    if (watch_start(&factory->watch, factory->listener.fd))
        return true;
    log_line("%s: cannot wait for clients: %s", factory->service, strerror(errno));
    listener_close(&factory->listener);
    return false;
}

// Those who were never accepted would go with the listening socket, and with them what they have sent. One of the
// service manager's stays.
void turn_away_waiting(const mc_factory *factory)
{
    if (factory->listener.refuses || factory->listener.lock_fd < 0)
        return;
    shutdown(factory->listener.fd, SHUT_RDWR);
    for (int fd = accept_fd(factory); fd >= 0; fd = accept_fd(factory))
        descriptors_close(fd, false);
}

mc_factory *factory_new(const char *service, mc_connection_func callback, void *user_data)
{
    auto *factory = static_cast<mc_factory *>(calloc(1, sizeof(mc_factory)));
    char *name = strdup(service);
    if (!factory || !name) {
        free(factory);
        free(name);
        return nullptr;
    }
    factory->refs = 1;
    factory->service = name;
    factory->callback = callback;
    factory->user_data = user_data;
    factory->limits = {CONNECTIONS_MAX, PEER_MAX, UNGREETED_MAX, GREETING_WAIT_US};
    return factory;
}

} // namespace

void factory_ref(mc_factory *factory)
{
    factory->refs++;
}

void factory_unref(mc_factory *factory)
{
    if (--factory->refs > 0)
        return;
    free(factory->service);
    free(factory);
}

void factory_remove(mc_connection *connection)
{
    mc_factory *factory = connection->factory;
    mc_connection **link = &factory->connections;
    while (*link != connection)
        link = &(*link)->next;
    *link = connection->next;
    factory->n_connections--;
    if (!connection->greeted)
        factory->n_ungreeted--;
    connection->factory = nullptr;
}

} // namespace libmc

mc_factory *mc_factory_open(const char *service_name, mc_connection_func callback, void *user_data, void *reserved)
{
    if (!service_name || !callback || reserved) {
        log_line("mc_factory_open: a service name and a callback are needed, and the last argument is null");
        return nullptr;
    }
    mc_factory *factory = factory_new(service_name, callback, user_data);
    if (!factory) {
        log_line("%s: no memory", service_name);
        return nullptr;
    }
    if (!listener_open(&factory->listener, service_name) || !factory_attach(factory)) {
        factory_unref(factory);
        return nullptr;
    }
    factory->reserve_fd = -1;
    reserve_refill(factory);
    return factory;
}

void mc_factory_close(mc_factory *factory)
{
    if (!factory || factory->closed)
        return;
    factory->closed = true;
    watch_stop(&factory->watch);
    while (factory->connections)
        mc_close(factory->connections);
    turn_away_waiting(factory);
    descriptors_finish();
    listener_close(&factory->listener);
    if (factory->reserve_fd >= 0)
        close(factory->reserve_fd);
    factory_unref(factory);
}
