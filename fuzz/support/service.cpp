// SPDX-License-Identifier: MIT
// The clients, and the service from start to end.
#include "service.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <unistd.h>

#include "../../src/libmc/wire.h"
#include "../../tests/support/failing_memory.h"
#include "service_state.h"

namespace {

constexpr int MOST_STEPS = 80;

using Packet = std::unique_ptr<mc_packet, decltype(&mc_packet_free)>;

// ---- the clients' side ----

int packet_socket()
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const sockaddr_un any{AF_UNIX, ""};
    // A name of the kernel's choice, without a file.
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any.sun_family) != 0)
        service_no_socket("socket");
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
    client.address = service_address_of(own, size);
}

// One that is handed to the service, without a greeting.
void hand_over_client(Client *&slot, FuzzInput &in)
{
    static const char *const names[] = {"stays", "later", "plain", "\x1b\n\"\\"};
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        service_no_socket("socketpair");
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
    service_set_handlers(connection);
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
    // Those that run out together are refused together.
    if (kind >= 96 && kind < 128)
        service->opening = {1, 1 + in.below(3), EMFILE};
    Refusal &refusal = kind < 128 ? service->accepting : kind < 192 ? service->receiving : service->sending;
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
        service_turn();
        break;
    case 13:
        if (slot != nullptr && slot->connection != nullptr && !slot->gone)
            mc_glib_init(slot->connection); // of those who were to be attached later
        break;
    case 14:
        flood(slot, in);
        break;
    default:
        service_turn();
    }
}

void step(FuzzInput &in)
{
    service_check();
    const uint8_t head = in.byte();
    any_step(in, head % 16, service->slots[head / 16 % Service::SLOTS]);
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
        service_no_socket("listen");
    const bool is_odd = in.chance(8);
    setenv("LISTEN_PID", is_odd && in.chance(128) ? "1x" : std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", is_odd ? odd_count(in) : std::to_string(fd - STDERR_FILENO).c_str(), 1);
    const bool may_fail = is_odd || in.chance(8);
    if (may_fail)
        fail_allocation(ANY_ALLOCATION, 1 + in.below(4));
    service->factory = mc_factory_open("fuzz", service_note_connection, nullptr, nullptr);
    allocation_failed();
    if (service->factory == nullptr) {
        close(fd);
        if (!may_fail)
            fuzz_finding("the service cannot be opened");
        return false;
    }
    const gint64 wait = in.chance(24) ? 0 : gint64{3600} * G_USEC_PER_SEC;
    const auto connections = static_cast<unsigned>(in.between(1, 6));
    const auto ungreeted = static_cast<unsigned>(in.between(1, 4));
    // All clients are of one process.
    service->factory->limits = {connections, connections, ungreeted, wait};
    return true;
}

void close_service()
{
    for (Client *&slot : service->slots)
        hang_up(slot);
    service->accepting = service->receiving = service->sending = service->opening = {};
    service_turn();
    service_check();
    mc_factory_close(service->factory);
    service_turn();
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
    mc_set_log(service_note_line);
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
