// SPDX-License-Identifier: MIT
// The service itself: its handlers, what has to hold for them, and the system calls under it.
#include "service_state.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "../../src/libmc/log.h"
#include "../../tests/support/failing_memory.h"
#include "fuzz.h"

Service *service;

// The names that the linker looks for (--wrap).
int fuzz_accept4(int fd, sockaddr *address, socklen_t *size, int flags) asm("__wrap_accept4");
int real_accept4(int fd, sockaddr *address, socklen_t *size, int flags) asm("__real_accept4");
int fuzz_recvmmsg(int fd, mmsghdr *messages, unsigned n, int flags, timespec *timeout) asm("__wrap_recvmmsg");
int real_recvmmsg(int fd, mmsghdr *messages, unsigned n, int flags, timespec *timeout) asm("__real_recvmmsg");
ssize_t fuzz_sendmsg(int fd, const msghdr *message, int flags) asm("__wrap_sendmsg");
ssize_t real_sendmsg(int fd, const msghdr *message, int flags) asm("__real_sendmsg");
// Which of the two names a program calls depends on how it was compiled.
int fuzz_open(const char *path, int flags, ...) asm("__wrap_open");
int fuzz_open64(const char *path, int flags, ...) asm("__wrap_open64");
int real_open64(const char *path, int flags, ...) asm("__real_open64");
gint64 fuzz_get_monotonic_time() asm("__wrap_g_get_monotonic_time");
gint64 real_get_monotonic_time() asm("__real_g_get_monotonic_time");

namespace {

constexpr int MOST_TURNS = 400; // until nothing is ready any more

bool is_refused(Refusal Service::*which)
{
    if (service == nullptr)
        return false;
    Refusal &refusal = service->*which;
    if (refusal.times == 0 || --refusal.calls_left > 0)
        return false;
    refusal.times--;
    errno = refusal.error;
    return true;
}

Client &client_of(const mc_connection *connection)
{
    for (const auto &client : service->clients) {
        if (client->connection == connection)
            return *client;
    }
    fuzz_finding("a handler was called for a connection that is gone");
}

// Who is at the other end of a connection that has just been made known.
Client &newcomer(const mc_connection *connection)
{
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (getpeername(mc_fd(connection), reinterpret_cast<sockaddr *>(&address), &size) == 0) {
        for (const auto &client : service->clients) {
            if (client->address == service_address_of(address, size))
                return *client;
        }
    }
    fuzz_finding("a connection comes from nobody");
}

void forget(Client &client)
{
    client.connection = nullptr;
}

void expect_end(const mc_connection *connection)
{
    Client &client = client_of(connection);
    if (client.gone)
        fuzz_finding("a client has hung up twice");
    if (mc_fd(connection) >= 0)
        fuzz_finding("a client has gone, and its socket is open");
    client.gone = true;
}

int note_hangup(mc_connection *connection)
{
    expect_end(connection);
    forget(client_of(connection));
    return mc_close(connection);
}

// A handler that leaves the closing to somebody else.
int leave_open(mc_connection *connection)
{
    expect_end(connection);
    return 0;
}

void close_other(const Client &client)
{
    for (const auto &other : service->clients) {
        if (other.get() == &client || other->connection == nullptr)
            continue;
        mc_connection *connection = other->connection;
        forget(*other);
        mc_close(connection);
        return;
    }
}

mc_packet *note_request(mc_connection *connection, mc_packet *request)
{
    Client &client = client_of(connection);
    const std::string word = mc_packet_command(request);
    if (!client.told || client.gone)
        fuzz_finding("a request before the greeting or after the end");
    if (word == "x") { // the handler ends its own connection
        forget(client);
        mc_close(connection);
    } else if (word == "o") { // or another one
        close_other(client);
    } else if (word == "l" && !service->in_handler) { // a handler that runs the main loop
        service->in_handler = true;
        g_main_context_iteration(nullptr, FALSE);
        service->in_handler = false;
    } else if (word == "r") { // not a reply
        return mc_packet_new_command("r");
    } else if (word == "xx") {
        return nullptr;
    }
    mc_packet *reply = mc_packet_new(0);
    if (reply != nullptr)
        mc_packet_build_args(reply, "s", word.c_str());
    return reply;
}

} // namespace

[[noreturn]] void service_no_socket(const char *what)
{
    perror(what);
    exit(2); // the machine's fault, not a finding
}

std::string service_address_of(const sockaddr_un &address, socklen_t size)
{
    const auto *bytes = reinterpret_cast<const char *>(&address);
    return {bytes, size};
}

void service_set_handlers(mc_connection *connection)
{
    const std::string name = mc_connection_name(connection);
    mc_set_hup_handler(connection, name == "stays" ? leave_open : note_hangup, nullptr);
    mc_set_handler(connection, "", note_request, nullptr);
    mc_set_handler(connection, "echo", nullptr, nullptr);
    mc_set_handler(connection, "echo", note_request, nullptr);
    mc_set_handler(connection, "echo", note_request, nullptr);
    if (name == "stays")
        mc_set_handler(connection, "", nullptr, nullptr);
    if (name != "later")
        mc_glib_init(connection);
}

void service_note_connection(mc_factory *, mc_connection *connection, void *)
{
    Client &client = newcomer(connection);
    if (client.told)
        fuzz_finding("a client was announced twice");
    client.told = true;
    if (strcmp(mc_connection_name(connection), "refused") == 0) {
        mc_close(connection);
        return;
    }
    client.connection = connection;
    service_set_handlers(connection);
}

// A line is one line, whatever a client called itself.
void service_note_line(const char *line)
{
    if (strlen(line) >= libmc::LOG_LINE_MAX)
        fuzz_finding("a line of the log is too long");
    for (const char *at = line; *at != '\0'; at++) {
        if (static_cast<unsigned char>(*at) < ' ' || *at == '\x7f')
            fuzz_finding("byte %02x in a line of the log", static_cast<unsigned>(*at));
    }
}

void service_check()
{
    unsigned open = 0, ungreeted = 0;
    for (const mc_connection *c = service->factory->connections; c != nullptr; c = c->next) {
        open++;
        ungreeted += !c->greeted;
    }
    const mc_factory &factory = *service->factory;
    if (open != factory.n_connections || ungreeted != factory.n_ungreeted)
        fuzz_finding("%u connections are counted, %u without a greeting; there are %u and %u", factory.n_connections,
                     factory.n_ungreeted, open, ungreeted);
    if (open > factory.limits.connections || ungreeted > factory.limits.ungreeted)
        fuzz_finding("%u connections, %u without a greeting: more than allowed", open, ungreeted);
}

void service_turn()
{
    for (int i = 0; g_main_context_iteration(nullptr, FALSE); i++) {
        if (i == MOST_TURNS)
            fuzz_finding("the main loop does not come to rest");
    }
    allocation_failed(); // from now on none fails any more
}

int fuzz_accept4(int fd, sockaddr *address, socklen_t *size, int flags)
{
    return is_refused(&Service::accepting) ? -1 : real_accept4(fd, address, size, flags);
}

int fuzz_recvmmsg(int fd, mmsghdr *messages, unsigned n, int flags, timespec *timeout)
{
    return is_refused(&Service::receiving) ? -1 : real_recvmmsg(fd, messages, n, flags, timeout);
}

ssize_t fuzz_sendmsg(int fd, const msghdr *message, int flags)
{
    return is_refused(&Service::sending) ? -1 : real_sendmsg(fd, message, flags);
}

// Nothing that is opened here is made by that.
int fuzz_open64(const char *path, int flags, ...)
{
    return is_refused(&Service::opening) ? -1 : real_open64(path, flags, 0);
}

int fuzz_open(const char *path, int flags, ...)
{
    return fuzz_open64(path, flags);
}

gint64 fuzz_get_monotonic_time()
{
    return real_get_monotonic_time() + (service != nullptr ? service->clock_ahead : 0);
}
