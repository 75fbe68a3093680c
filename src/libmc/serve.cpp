// SPDX-License-Identifier: MIT
// A server-side connection on the main loop: greeting, requests, replies, and every way in which it ends.
#include "descriptors.h"
#include "factory.h"
#include "inbox.h"
#include "log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

using namespace libmc;

namespace libmc {

namespace {

void connection_leave(mc_connection *connection)
{
    watch_stop(&connection->watch);
    if (connection->factory)
        factory_remove(connection);
}

// The other side is gone. The watch ends first: whatever the handler does or leaves undone, an ended connection never
// wakes the loop again, and the handler runs once.
void connection_hang_up(mc_connection *connection)
{
    if (connection->hung_up || connection->closed)
        return;
    connection->hung_up = true;
    watch_stop(&connection->watch);
    connection_close_fd(connection);
    if (connection->hup)
        connection->hup(connection);
    else
        mc_close(connection);
}

bool connection_is_live(const mc_connection *connection)
{
    return connection->watch.active; // neither closed nor hung up nor waiting to be attached
}

// An empty datagram reads like the end. Where the other side has closed as well, the end is what counts.
bool has_hung_up(int fd)
{
    pollfd entry = {fd, POLLRDHUP, 0};
    return poll(&entry, 1, 0) > 0;
}

void send_reply(mc_connection *connection, const mc_packet *reply, uint32_t serial)
{
    if (*mc_packet_command(reply)) {
        char word[256];
        log_line("a handler answered with a request (\"%s\"); it was not sent",
                 log_escape(mc_packet_command(reply), word, sizeof word));
        return;
    }
    if (packet_send(connection->fd, reply, serial, MSG_DONTWAIT) == 0)
        return;
    if (errno == EAGAIN)
        connection_drop(connection, "does not read its replies");
    else if (errno != EPIPE && errno != ECONNRESET) // gone: what it sent before is still to be handled
        connection_drop(connection, "cannot be sent to: %s", strerror(errno));
}

void serve_request(mc_connection *connection, mc_packet *request)
{
    const mc_handler_func handler = connection_handler(connection, mc_packet_command(request));
    if (!handler)
        return;
    mc_packet *reply = handler(connection, request);
    if (!reply)
        return;
    if (connection_is_live(connection))
        send_reply(connection, reply, packet_serial(request));
    mc_packet_free(reply);
}

// In words what is wrong with a greeting, or null with the client's name in *name.
const char *greeting_fault(const mc_packet *packet, const char **name)
{
    int32_t version;
    if (strcmp(mc_packet_command(packet), GREETING_COMMAND) != 0 ||
        strcmp(mc_packet_signature(packet), GREETING_SIGNATURE) != 0)
        return "its first packet is not a greeting";
    mc_packet_parse_args(packet, GREETING_SIGNATURE, &version, name);
    if (version != PROTOCOL_VERSION)
        return "it speaks another version of the protocol";
    if (strlen(*name) > MC_NAME_MAX)
        return "its name is too long";
    return nullptr;
}

void take_greeting(mc_connection *connection, const mc_packet *packet)
{
    const char *name;
    if (const char *fault = greeting_fault(packet, &name)) {
        connection_drop(connection, "%s", fault);
        return;
    }
    mc_factory *factory = connection->factory;
    strcpy(connection->name, name); // at most MC_NAME_MAX bytes, checked above
    connection->greeted = true;
    factory->n_ungreeted--;
    watch_set_deadline(&connection->watch, -1);
    factory_ref(factory);
    factory->callback(factory, connection, factory->user_data);
    if (!connection->attached)
        watch_stop(&connection->watch); // until mc_glib_init
    factory_unref(factory);
}

// Handles a packet of n bytes; an empty one may be the end.
void take_packet(mc_connection *connection, mc_packet *packet, size_t n)
{
    if (n == 0 && has_hung_up(connection->fd) && !connection->greeted)
        connection_drop(connection, "hung up without a greeting");
    else if (n == 0 && has_hung_up(connection->fd))
        connection_hang_up(connection);
    else if (n == 0)
        connection_drop(connection, "malformed packet: empty datagram");
    else if (const char *fault = packet_decode(packet, n))
        connection_drop(connection, "malformed packet: %s", fault);
    else if (!connection->greeted)
        take_greeting(connection, packet);
    else
        serve_request(connection, packet);
}

// Handles up to `wanted` packets. Returns how many there were; fewer: there is no more.
int take_some(mc_connection *connection, Inbox *inbox, int wanted)
{
    const int n = inbox_receive(inbox, connection->fd, wanted);
    if (n < 0 && errno == ECONNRESET)
        return wanted;
    if (n < 0)
        connection_drop(connection, "cannot be read: %s", strerror(errno));
    for (int i = 0; i < n && connection_is_live(connection); i++)
        take_packet(connection, &inbox->packets[i], inbox->sizes[i]);
    return n;
}

// The same where packets may carry descriptors: those before the first one that does are handled.
int take_some_guarded(mc_connection *connection, Inbox *inbox, int wanted)
{
    const Look look = inbox_look(inbox, connection->fd, wanted);
    if (look.n < 0 && errno == ECONNRESET)
        return wanted;
    if (look.n < 0)
        connection_drop(connection, "cannot be read: %s", strerror(errno));
    connection->carries |= look.carries;
    if (look.n >= 0 && look.n < wanted && !look.carries && connection->refuses)
        descriptors_rule_out(connection);
    if (look.free > 0)
        take_some(connection, inbox, look.free);
    if (look.carries)
        connection_drop(connection, "sends descriptors");
    return look.n;
}

// Packets of a connection that are taken at a time. The greeting comes alone: what follows it waits in the socket until
// the connection is attached.
int batch_of(const mc_connection *connection)
{
    if (!connection->greeted)
        return 1;
    return connection->look_ahead > 0 ? connection->look_ahead : RECEIVE_MAX;
}

// Handles what has arrived, up to PACKETS_PER_TURN. False when there may be more.
[[gnu::hot]] bool take_arrived(mc_connection *connection, Inbox *inbox)
{
    for (int left = PACKETS_PER_TURN; left > 0 && connection_is_live(connection);) {
        const int wanted = std::min(left, batch_of(connection));
        const int n = connection->look_ahead > 0 ? take_some_guarded(connection, inbox, wanted)
                                                 : take_some(connection, inbox, wanted);
        if (n < wanted)
            return true;
        left -= n;
    }
    return false;
}

// A handler that runs the main loop finds this connection at rest: its next request comes when this one is done.
[[gnu::hot]] void connection_turn(void *owner, bool late)
{
    auto *connection = static_cast<mc_connection *>(owner);
    if (connection->in_turn) {
        watch_rest(&connection->watch);
        return;
    }
    Inbox *inbox = inbox_take();
    if (!inbox) {
        watch_again(&connection->watch);
        return;
    }
    connection_ref(connection);
    connection->in_turn = true;
    const bool all = take_arrived(connection, inbox);
    connection->in_turn = false;
    inbox_give(inbox);
    if (connection_is_live(connection) && late && !connection->greeted)
        connection_drop(connection, "no greeting in time");
    if (connection_is_live(connection) &&
        (!watch_resume(&connection->watch) || (!all && !watch_again(&connection->watch))))
        connection_drop(connection, "cannot be waited for: %s", strerror(errno));
    connection_unref(connection);
}

bool connection_attach(mc_connection *connection)
{
    connection->watch.turn = connection_turn;
    connection->watch.owner = connection;
    connection->watch.drains = true;
    connection->leave = connection_leave;
    if (!connection->factory)
        descriptors_guard(connection); // who knows what it was before
    return watch_start(&connection->watch, connection->fd);
}

} // namespace

bool connection_await_greeting(mc_connection *connection, gint64 deadline)
{
    if (!connection_attach(connection))
        return false;
    watch_set_deadline(&connection->watch, deadline);
    return true;
}

void connection_drop(mc_connection *connection, const char *format, ...)
{
    if (connection->hung_up || connection->closed)
        return;
    char name[4 * MC_NAME_MAX + 1];
    char reason[160];
    va_list values;
    va_start(values, format);
    vsnprintf(reason, sizeof reason, format, values);
    va_end(values);
    log_line("dropped client \"%s\" (pid %d): %s", log_escape(connection->name, name, sizeof name),
             static_cast<int>(connection->pid), reason);
    connection_hang_up(connection);
}

} // namespace libmc

int mc_glib_init(mc_connection *connection)
{
    if (connection->side != Side::server || connection->fd < 0 || connection->closed)
        return -1;
    if (!connection->watch.active && !connection_attach(connection))
        return -1;
    connection->attached = true;
    return 0;
}
