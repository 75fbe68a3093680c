// SPDX-License-Identifier: MIT
// Bytes from a socket: the decoder of packets beside one that is written out here, and a service with clients that send
// anything at all.
#include <cstring>
#include <glib.h>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "../src/libmc/factory.h"
#include "../src/libmc/wire.h"
#include "support/fuzz.h"

namespace {

// ---- the decoder ----

// What a packet holds, read by the description of its form.
struct Plain {
    std::string command, signature;
    std::vector<int32_t> integers;
    std::vector<std::string> strings;
};

size_t rounded_up(size_t n)
{
    return n % 4 ? n + 4 - n % 4 : n;
}

bool take_string(const std::string &bytes, size_t &at, std::string &text)
{
    const size_t nul = bytes.find('\0', at);
    if (nul == std::string::npos)
        return false;
    text = bytes.substr(at, nul - at);
    at = nul + 1;
    return true;
}

bool take_padding(const std::string &bytes, size_t &at)
{
    for (const size_t next = rounded_up(at); at < next; at++) {
        if (at >= bytes.size() || bytes[at] != '\0')
            return false;
    }
    return true;
}

bool take_argument(const std::string &bytes, char letter, size_t &at, Plain &plain)
{
    if (letter == 's')
        return take_string(bytes, at, plain.strings.emplace_back()) && take_padding(bytes, at);
    if (letter != 'i' || at + 4 > bytes.size())
        return false;
    memcpy(&plain.integers.emplace_back(), bytes.data() + at, 4);
    at += 4;
    return true;
}

bool read_plainly(const std::string &bytes, Plain &plain)
{
    if (bytes.size() > MC_PACKET_MAX || bytes.size() < 4)
        return false;
    size_t at = 4;
    if (!take_string(bytes, at, plain.command) || !take_string(bytes, at, plain.signature) ||
        plain.signature.size() > MC_ARGS_MAX || !take_padding(bytes, at))
        return false;
    for (char letter : plain.signature) {
        if (!take_argument(bytes, letter, at, plain))
            return false;
    }
    return at == bytes.size();
}

using Packet = std::unique_ptr<mc_packet, decltype(&mc_packet_free)>;

// Argument by argument, so that each is asked for behind all others.
Packet build(const Plain &plain)
{
    Packet packet{mc_packet_new_command(plain.command.c_str()), mc_packet_free};
    size_t integer = 0, string = 0;
    for (char letter : plain.signature) {
        const int added = letter == 'i' ? mc_packet_build_args(packet.get(), "i", plain.integers[integer++])
                                        : mc_packet_build_args(packet.get(), "s", plain.strings[string++].c_str());
        if (added != 1)
            fuzz_finding("a packet that was received cannot be built");
    }
    return packet;
}

// Parses up to the signature's fourth letter, which is as far as handlers of mixed arguments go.
void compare_arguments(const mc_packet *packet, const Plain &plain)
{
    const std::string signature = plain.signature.substr(0, 4);
    union {
        int32_t integer;
        const char *string;
    } values[4];
    const int parsed = mc_packet_parse_args(packet, signature.c_str(), &values[0], &values[1], &values[2], &values[3]);
    if (parsed != static_cast<int>(signature.size()))
        fuzz_finding("%d arguments parsed of \"%s\"", parsed, signature.c_str());
    size_t integer = 0, string = 0;
    for (size_t i = 0; i < signature.size(); i++) {
        if (signature[i] == 'i' ? values[i].integer != plain.integers[integer++]
                                : values[i].string != plain.strings[string++])
            fuzz_finding("argument %zu is not what was sent", i);
    }
    values[0].integer = 77;
    const char *const other = signature[0] == 'i' ? "s" : "i";
    if (mc_packet_parse_args(packet, other, &values[0]) != 0 || values[0].integer != 77)
        fuzz_finding("an argument was parsed as what it is not");
}

void decode(const std::string &bytes)
{
    auto packet = std::make_unique<mc_packet>();
    memset(packet.get(), 0x55, sizeof(mc_packet));
    memcpy(packet->bytes, bytes.data(), std::min<size_t>(bytes.size(), MC_PACKET_MAX));
    Plain plain;
    const bool expected = read_plainly(bytes, plain);
    const char *fault = libmc::packet_decode(packet.get(), bytes.size());
    if (expected != (fault == nullptr))
        fuzz_finding("decoded as \"%s\", and should be %s", fault ? fault : "well formed", expected ? "" : "refused");
    if (fault != nullptr)
        return;
    if (mc_packet_command(packet.get()) != plain.command || mc_packet_signature(packet.get()) != plain.signature)
        fuzz_finding("command word or signature differ");
    compare_arguments(packet.get(), plain);
    const Packet built = build(plain);
    if (std::string(built->bytes + 4, built->size - 4) != bytes.substr(4))
        fuzz_finding("built again the packet has other bytes");
}

// ---- the service ----

constexpr int CLIENTS = 3;
constexpr int MOST_STEPS = 60;
constexpr int MOST_TURNS = 200; // until nothing is ready any more

struct Client {
    int fd = -1; // the client's end
    mc_connection *connection = nullptr;
    bool greeted = false; // the service was told of it
};

struct Service {
    mc_factory factory{};
    Client clients[CLIENTS];
};

Service *service;
bool in_handler;

Client *client_of(const mc_connection *connection)
{
    for (Client &client : service->clients) {
        if (client.connection == connection)
            return &client;
    }
    fuzz_finding("a handler was called for a connection that is gone");
}

// The library closes those without a handler of hang-ups itself.
void forget_closed()
{
    for (Client &client : service->clients) {
        const mc_connection *open = service->factory.connections;
        while (open != nullptr && open != client.connection)
            open = open->next;
        if (open == nullptr)
            client.connection = nullptr;
    }
}

int note_hangup(mc_connection *connection)
{
    client_of(connection)->connection = nullptr;
    return mc_close(connection);
}

// A handler that leaves the closing to somebody else.
int leave_open(mc_connection *connection)
{
    if (connection->watch.active)
        fuzz_finding("a client has gone, and its connection still waits for it");
    return 0;
}

void check_counts()
{
    unsigned open = 0, ungreeted = 0;
    for (const mc_connection *c = service->factory.connections; c != nullptr; c = c->next) {
        open++;
        ungreeted += !c->greeted;
    }
    if (open != service->factory.n_connections || ungreeted != service->factory.n_ungreeted)
        fuzz_finding("%u connections are counted, %u without a greeting; there are %u and %u",
                     service->factory.n_connections, service->factory.n_ungreeted, open, ungreeted);
}

mc_packet *note_request(mc_connection *connection, mc_packet *request)
{
    Client *client = client_of(connection);
    const char *word = mc_packet_command(request);
    if (!client->greeted)
        fuzz_finding("a request before the greeting");
    if (strcmp(word, "x") == 0) { // the handler ends its own connection
        client->connection = nullptr;
        mc_close(connection);
    } else if (strcmp(word, "l") == 0 && !in_handler) { // a handler that runs the main loop
        in_handler = true;
        g_main_context_iteration(nullptr, FALSE);
        in_handler = false;
    } else if (strcmp(word, "r") == 0) { // not a reply
        return mc_packet_new_command("r");
    }
    mc_packet *reply = mc_packet_new(0);
    mc_packet_build_args(reply, "s", word);
    return reply;
}

void note_connection(mc_factory *, mc_connection *connection, void *)
{
    Client *client = client_of(connection);
    if (client->greeted)
        fuzz_finding("a client was announced twice");
    client->greeted = true;
    if (strcmp(mc_connection_name(connection), "refused") == 0) {
        client->connection = nullptr;
        mc_close(connection);
        return;
    }
    if (strcmp(mc_connection_name(connection), "later") != 0)
        mc_glib_init(connection);
    mc_set_handler(connection, "", note_request, nullptr);
    const bool stays = strcmp(mc_connection_name(connection), "stays") == 0;
    mc_set_hup_handler(connection, stays ? leave_open : note_hangup, nullptr);
}

// As the service adopts an accepted client, without a listening socket.
void open_client(Client &client)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        perror("socketpair");
        exit(2); // the machine's fault, not a finding
    }
    client.fd = ends[0];
    client.greeted = false;
    client.connection = libmc::connection_new(libmc::Side::server, ends[1], "");
    client.connection->factory = &service->factory;
    client.connection->next = service->factory.connections;
    service->factory.connections = client.connection;
    service->factory.n_connections++;
    service->factory.n_ungreeted++;
    if (!libmc::connection_await_greeting(client.connection, g_get_monotonic_time() + gint64{3600} * G_USEC_PER_SEC)) {
        perror("epoll");
        exit(2);
    }
}

void send_bytes(const Client &client, const std::string &bytes)
{
    if (client.fd >= 0)
        send(client.fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

std::string with_serial(const mc_packet *packet)
{
    return {packet->bytes, packet->size};
}

std::string greeting(FuzzInput &in)
{
    static const char *const names[] = {"stays", "refused", "later", "plain"};
    const uint8_t kind = in.byte();
    const std::string name = kind < 64 ? names[kind % 4] : std::string(kind * 2 - 128, '\x1b');
    Packet packet{mc_packet_new_command("connect"), mc_packet_free};
    mc_packet_build_args(packet.get(), "is", kind == 63 ? 2 : 1, name.c_str());
    return with_serial(packet.get());
}

std::string request(FuzzInput &in)
{
    static const char *const words[] = {"x", "l", "r", "", "connect", "add", "echo", "xx"};
    Packet packet{mc_packet_new_command(words[in.below(8)]), mc_packet_free};
    const int arguments = in.below(5);
    for (int i = 0; i < arguments; i++) {
        const uint8_t kind = in.byte();
        if (kind & 1)
            mc_packet_build_args(packet.get(), "i", static_cast<int32_t>(in.word()));
        else
            mc_packet_build_args(packet.get(), "s", std::string(kind, 's').c_str());
    }
    std::string bytes = with_serial(packet.get());
    if (in.chance(96)) // damaged
        bytes[in.half() % bytes.size()] = static_cast<char>(in.byte());
    if (in.chance(24))
        bytes.resize(in.half() % (bytes.size() + 5));
    return bytes;
}

void turn()
{
    for (int i = 0; g_main_context_iteration(nullptr, FALSE); i++) {
        if (i == MOST_TURNS)
            fuzz_finding("the main loop does not come to rest");
    }
}

void hang_up(Client &client)
{
    if (client.fd >= 0)
        close(client.fd);
    client.fd = -1;
}

void read_replies(const Client &client)
{
    char bytes[MC_PACKET_MAX];
    while (client.fd >= 0 && recv(client.fd, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
}

void flood(const Client &client, FuzzInput &in)
{
    const std::string bytes = request(in);
    for (int i = in.byte(); i > 0; i--)
        send_bytes(client, bytes);
}

void step(FuzzInput &in)
{
    forget_closed();
    check_counts();
    const uint8_t head = in.byte();
    Client &client = service->clients[head / 16 % CLIENTS];
    switch (head % 16) {
    case 0:
    case 1:
        if (client.fd < 0 && client.connection == nullptr)
            open_client(client);
        break;
    case 2:
        send_bytes(client, greeting(in));
        break;
    case 3:
    case 4:
    case 5:
        send_bytes(client, request(in));
        break;
    case 6: {
        const auto bytes = in.take(in.byte() * 20);
        send_bytes(client, {bytes.begin(), bytes.end()});
        break;
    }
    case 7:
        send_bytes(client, "");
        break;
    case 8:
        send_bytes(client, std::string(MC_PACKET_MAX + in.byte() - 128, 'z'));
        break;
    case 9:
        hang_up(client);
        break;
    case 10:
        if (client.fd >= 0)
            shutdown(client.fd, in.byte() & 1 ? SHUT_WR : SHUT_RD);
        break;
    case 11:
        read_replies(client);
        break;
    case 12:
        if (client.connection != nullptr && client.connection->watch.active && !client.greeted)
            libmc::watch_set_deadline(&client.connection->watch, 0); // its time to greet is over
        break;
    case 13:
        if (client.connection != nullptr && client.greeted)
            mc_glib_init(client.connection); // of those who were to be attached later
        break;
    case 14:
        flood(client, in);
        break;
    default:
        turn();
    }
}

void serve(FuzzInput in)
{
    Service here;
    service = &here;
    here.factory.refs = 1;
    here.factory.callback = note_connection;
    here.factory.service = const_cast<char *>("fuzz");
    here.factory.limits = {libmc::CONNECTIONS_MAX, libmc::UNGREETED_MAX, libmc::GREETING_WAIT_US};
    for (int i = 0; i < MOST_STEPS && !in.empty(); i++)
        step(in);
    turn();
    for (Client &client : here.clients)
        hang_up(client);
    turn();
    check_counts();
    for (const mc_connection *c = here.factory.connections; c != nullptr; c = c->next) {
        if (c->watch.active)
            fuzz_finding("a client has gone, and its connection still waits for it");
    }
    while (here.factory.connections != nullptr) // those that were never attached
        mc_close(here.factory.connections);
    check_counts();
    service = nullptr;
}

void no_log(const char *) {}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    mc_set_log(no_log);
    FuzzInput in{data, data + size};
    const int kind = in.below(3);
    if (kind == 0)
        decode({in.at, in.end});
    else if (kind == 1)
        decode(request(in));
    else
        serve(in);
    return 0;
}
