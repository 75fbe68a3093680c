// SPDX-License-Identifier: MIT
#include "service.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "../../src/libmc/factory.h"
#include "../../src/libmc/log.h"
#include "../../src/libmc/wire.h"
#include "../../tests/support/failing_memory.h"

// The names that the linker looks for (--wrap).
int fuzz_accept4(int fd, sockaddr *address, socklen_t *size, int flags) asm("__wrap_accept4");
int real_accept4(int fd, sockaddr *address, socklen_t *size, int flags) asm("__real_accept4");
int fuzz_recvmmsg(int fd, mmsghdr *messages, unsigned n, int flags, timespec *timeout) asm("__wrap_recvmmsg");
int real_recvmmsg(int fd, mmsghdr *messages, unsigned n, int flags, timespec *timeout) asm("__real_recvmmsg");
ssize_t fuzz_sendmsg(int fd, const msghdr *message, int flags) asm("__wrap_sendmsg");
ssize_t real_sendmsg(int fd, const msghdr *message, int flags) asm("__real_sendmsg");
gint64 fuzz_get_monotonic_time() asm("__wrap_g_get_monotonic_time");
gint64 real_get_monotonic_time() asm("__real_g_get_monotonic_time");

namespace {

constexpr int SLOTS = 6;
constexpr int MOST_STEPS = 80;
constexpr int MOST_TURNS = 400; // until nothing is ready any more

using Packet = std::unique_ptr<mc_packet, decltype(&mc_packet_free)>;

struct Client {
    int fd = -1;         // the client's end
    std::string address; // of that end, by which the service's end knows it
    mc_connection *connection = nullptr;
    bool told = false; // the service knows of it
    bool gone = false; // the service was told that it hung up
};

// A system call that fails, some calls from now.
struct Refusal {
    int calls_left, times, error;
};

struct Service {
    mc_factory *factory = nullptr;
    sockaddr_un address{};
    socklen_t address_size = 0;
    std::vector<std::unique_ptr<Client>> clients; // all that have ever connected
    Client *slots[SLOTS] = {};
    Refusal accepting{}, receiving{}, sending{};
    gint64 clock_ahead = 0; // microseconds that the service's clock differs from the main loop's
    bool in_handler = false;
};

Service *service;

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

[[noreturn]] void no_socket(const char *what)
{
    perror(what);
    exit(2); // the machine's fault, not a finding
}

// ---- the service's side ----

Client &client_of(const mc_connection *connection)
{
    for (const auto &client : service->clients) {
        if (client->connection == connection)
            return *client;
    }
    fuzz_finding("a handler was called for a connection that is gone");
}

std::string address_of(const sockaddr_un &address, socklen_t size)
{
    const auto *bytes = reinterpret_cast<const char *>(&address);
    return {bytes, size};
}

// Who is at the other end of a connection that has just been made known.
Client &newcomer(const mc_connection *connection)
{
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (getpeername(mc_fd(connection), reinterpret_cast<sockaddr *>(&address), &size) == 0) {
        for (const auto &client : service->clients) {
            if (client->address == address_of(address, size))
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

void set_handlers(mc_connection *connection)
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

void note_connection(mc_factory *, mc_connection *connection, void *)
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
    set_handlers(connection);
}

// A line is one line, whatever a client called itself.
void note_line(const char *line)
{
    if (strlen(line) >= libmc::LOG_LINE_MAX)
        fuzz_finding("a line of the log is too long");
    for (const char *at = line; *at != '\0'; at++) {
        if (static_cast<unsigned char>(*at) < ' ' || *at == '\x7f')
            fuzz_finding("byte %02x in a line of the log", static_cast<unsigned>(*at));
    }
}

void check_counts()
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

void turn()
{
    for (int i = 0; g_main_context_iteration(nullptr, FALSE); i++) {
        if (i == MOST_TURNS)
            fuzz_finding("the main loop does not come to rest");
    }
    allocation_failed(); // from now on none fails any more
}

// ---- the clients' side ----

int packet_socket()
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un any{AF_UNIX, ""};
    // A name of the kernel's choice, without a file.
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any.sun_family) != 0)
        no_socket("socket");
    return fd;
}

Client &new_client(Client *&slot)
{
    service->clients.push_back(std::make_unique<Client>());
    slot = service->clients.back().get();
    return *slot;
}

void connect_client(Client *&slot)
{
    const int fd = packet_socket();
    if (connect(fd, reinterpret_cast<const sockaddr *>(&service->address), service->address_size) != 0) {
        close(fd); // too many wait already
        return;
    }
    Client &client = new_client(slot);
    client.fd = fd;
    sockaddr_un own{};
    socklen_t size = sizeof own;
    getsockname(fd, reinterpret_cast<sockaddr *>(&own), &size);
    client.address = address_of(own, size);
}

// One that is handed to the service, without a greeting.
void hand_over_client(Client *&slot, FuzzInput &in)
{
    static const char *const names[] = {"stays", "later", "plain", "\x1b\n\"\\"};
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        no_socket("socketpair");
    mc_connection *connection = mc_connection_new(ends[1], names[in.below(4)]);
    if (connection == nullptr) {
        close(ends[0]);
        close(ends[1]);
        return;
    }
    Client &client = new_client(slot);
    client.fd = ends[0];
    client.told = true;
    client.connection = connection;
    set_handlers(connection);
}

void send_bytes(const Client *client, const std::string &bytes)
{
    if (client != nullptr && client->fd >= 0)
        send(client->fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::string bytes_of(const mc_packet *packet)
{
    return {packet->bytes, packet->size};
}

std::string greeting(FuzzInput &in)
{
    static const char *const names[] = {"stays", "refused", "later", "plain"};
    const uint8_t kind = in.byte();
    const std::string name = kind < 64 ? names[kind % 4] : std::string(kind * 2 - 128, '\x1b');
    const Packet packet{mc_packet_new_command("connect"), mc_packet_free};
    mc_packet_build_args(packet.get(), "is", kind == 63 ? 2 : 1, name.c_str());
    return bytes_of(packet.get());
}

void hang_up(Client *&slot)
{
    if (slot != nullptr && slot->fd >= 0)
        close(slot->fd);
    if (slot != nullptr)
        slot->fd = -1;
    slot = nullptr;
}

void read_replies(const Client *client)
{
    char bytes[MC_PACKET_MAX];
    while (client != nullptr && recv(client->fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
}

void flood(const Client *client, FuzzInput &in)
{
    const std::string bytes = service_request(in);
    for (int i = in.byte(); i > 0; i--)
        send_bytes(client, bytes);
}

void refuse_calls(FuzzInput &in)
{
    static const int errors[] = {EMFILE, EMFILE, ENFILE, EINTR, ECONNABORTED, ENOMEM, EPROTO, EAGAIN, ECONNRESET};
    const uint8_t kind = in.byte();
    if (kind >= 224) { // what has to wait need not, or has waited long enough
        service->clock_ahead = kind % 2 ? -5 * G_USEC_PER_SEC : service->clock_ahead + 5 * G_USEC_PER_SEC;
        return;
    }
    Refusal &refusal = kind < 128   ? service->accepting
                       : kind < 192 ? service->receiving
                                    : service->sending;
    refusal = {1 + in.below(6), 1 + in.below(3), errors[kind % 9]};
}

void any_step(FuzzInput &in, int kind, Client *&slot)
{
    switch (kind) {
    case 0:
    case 1:
        if (slot == nullptr)
            connect_client(slot);
        break;
    case 2:
        send_bytes(slot, greeting(in));
        break;
    case 3:
    case 4:
        send_bytes(slot, service_request(in));
        break;
    case 5:
        if (slot == nullptr)
            hand_over_client(slot, in);
        break;
    case 6: {
        const auto bytes = in.take(in.byte() * 20u);
        send_bytes(slot, {bytes.begin(), bytes.end()});
        break;
    }
    case 7:
        send_bytes(slot, in.chance(128) ? "" : std::string(MC_PACKET_MAX + in.byte() - 128u, 'z'));
        break;
    case 8:
        refuse_calls(in);
        break;
    case 9:
        hang_up(slot);
        break;
    case 10:
        if (slot != nullptr)
            shutdown(slot->fd, in.byte() & 1 ? SHUT_WR : SHUT_RD);
        break;
    case 11:
        read_replies(slot);
        break;
    case 12:
        fail_allocation(ANY_ALLOCATION, 1 + in.below(8));
        turn();
        break;
    case 13:
        if (slot != nullptr && slot->connection != nullptr && !slot->gone)
            mc_glib_init(slot->connection); // of those who were to be attached later
        break;
    case 14:
        flood(slot, in);
        break;
    default:
        turn();
    }
}

void step(FuzzInput &in)
{
    check_counts();
    const uint8_t head = in.byte();
    any_step(in, head % 16, service->slots[head / 16 % SLOTS]);
}

// ---- from start to end ----

const char *odd_count(FuzzInput &in)
{
    static const char *const counts[] = {"", "0", "-1", "1", "2x", "99999999999999999999", "2147483647", "3"};
    return counts[in.below(8)];
}

// Opened as the service manager would have opened it, so that no file is needed. All descriptors before it are open.
bool open_service(FuzzInput &in)
{
    const int fd = packet_socket();
    service->address_size = sizeof service->address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&service->address), &service->address_size);
    if (listen(fd, 8) != 0)
        no_socket("listen");
    const bool is_odd = in.chance(8);
    setenv("LISTEN_PID", is_odd && in.chance(128) ? "1x" : std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", is_odd ? odd_count(in) : std::to_string(fd - STDERR_FILENO).c_str(), 1);
    const bool may_fail = is_odd || in.chance(8);
    if (may_fail)
        fail_allocation(ANY_ALLOCATION, 1 + in.below(4));
    service->factory = mc_factory_open("fuzz", note_connection, nullptr, nullptr);
    allocation_failed();
    if (service->factory == nullptr) {
        close(fd);
        if (!may_fail)
            fuzz_finding("the service cannot be opened");
        return false;
    }
    const gint64 wait = in.chance(24) ? 0 : gint64{3600} * G_USEC_PER_SEC;
    service->factory->limits = {static_cast<unsigned>(in.between(1, 6)), static_cast<unsigned>(in.between(1, 4)), wait};
    return true;
}

void close_service()
{
    for (Client *&slot : service->slots)
        hang_up(slot);
    service->accepting = service->receiving = service->sending = {};
    turn();
    check_counts();
    mc_factory_close(service->factory);
    turn();
}

// Of no factory's, or never attached: nobody else closes them.
void close_handed_over()
{
    for (const auto &client : service->clients) {
        if (client->address.empty() && client->connection != nullptr)
            mc_close(client->connection);
    }
}

} // namespace

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

gint64 fuzz_get_monotonic_time()
{
    return real_get_monotonic_time() + (service != nullptr ? service->clock_ahead : 0);
}

std::string service_request(FuzzInput &in)
{
    static const char *const words[] = {"x", "l", "r", "", "connect", "o", "echo", "xx"};
    const Packet packet{mc_packet_new_command(words[in.below(8)]), mc_packet_free};
    const int arguments = in.below(5);
    for (int i = 0; i < arguments; i++) {
        const uint8_t kind = in.byte();
        if (kind & 1)
            mc_packet_build_args(packet.get(), "i", static_cast<int32_t>(in.word()));
        else
            mc_packet_build_args(packet.get(), "s", std::string(kind, 's').c_str());
    }
    std::string bytes = bytes_of(packet.get());
    if (in.chance(96)) // damaged
        bytes[in.half() % bytes.size()] = static_cast<char>(in.byte());
    if (in.chance(24))
        bytes.resize(in.half() % (bytes.size() + 5));
    return bytes;
}

void service_play(FuzzInput in)
{
    Service here;
    service = &here;
    mc_set_log(note_line);
    setenv("MC_RUNTIME_DIR", "/nowhere", 1); // a service that is not handed its socket cannot be opened
    const bool is_open = open_service(in);
    for (int i = 0; is_open && i < MOST_STEPS && !in.empty(); i++)
        step(in);
    if (is_open) {
        close_service();
        close_handed_over();
    }
    service = nullptr;
}
