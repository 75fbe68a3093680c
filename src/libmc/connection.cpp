// SPDX-License-Identifier: MIT
#include "connection.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

using namespace libmc;

namespace libmc {

namespace {

void read_credentials(mc_connection *connection)
{
    ucred peer;
    socklen_t size = sizeof peer;
    if (connection->fd < 0 || getsockopt(connection->fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0)
        return;
    connection->uid = peer.uid;
    if (peer.pid > 0) // 0: a process that our pid namespace does not see
        connection->pid = peer.pid;
}

// The link that points at the handler of exactly this word, or at the end of the list.
Handler **handler_link(mc_connection *connection, const char *command)
{
    Handler **link = &connection->handlers;
    while (*link && strcmp((*link)->command, command) != 0)
        link = &(*link)->next;
    return link;
}

void handler_remove(Handler **link)
{
    Handler *handler = *link;
    if (!handler)
        return;
    *link = handler->next;
    free(handler->command);
    free(handler);
}

int handler_add(Handler **link, const char *command, mc_handler_func function)
{
    auto *handler = static_cast<Handler *>(malloc(sizeof(Handler)));
    char *copy = strdup(command);
    if (!handler || !copy) {
        free(handler);
        free(copy);
        return -1;
    }
    *handler = {nullptr, copy, function};
    *link = handler;
    return 0;
}

} // namespace

mc_connection *connection_new(Side side, int fd, const char *name)
{
    auto *connection = static_cast<mc_connection *>(calloc(1, sizeof(mc_connection)));
    if (!connection)
        return nullptr;
    connection->refs = 1;
    connection->side = side;
    connection->fd = fd;
    connection->pid = -1;
    connection->uid = static_cast<uid_t>(-1);
    strncpy(connection->name, name, MC_NAME_MAX);
    read_credentials(connection);
    return connection;
}

[[gnu::hot]] void connection_ref(mc_connection *connection)
{
    connection->refs++;
}

[[gnu::hot]] void connection_unref(mc_connection *connection)
{
    if (--connection->refs > 0)
        return;
    while (connection->handlers)
        handler_remove(&connection->handlers);
    free(connection);
}

void connection_close_fd(mc_connection *connection)
{
    if (connection->fd >= 0 && connection->close_fd)
        connection->close_fd(connection->fd, connection->carries);
    else if (connection->fd >= 0)
        close(connection->fd);
    connection->fd = -1;
}

[[gnu::hot]] mc_handler_func connection_handler(const mc_connection *connection, const char *command)
{
    mc_handler_func any = nullptr;
    for (const Handler *handler = connection->handlers; handler; handler = handler->next) {
        if (!*handler->command)
            any = handler->function;
        else if (*handler->command == *command && strcmp(handler->command, command) == 0)
            return handler->function;
    }
    return any;
}

} // namespace libmc

mc_connection *mc_connection_new(int fd, const char *name)
{
    if (!name || strlen(name) > MC_NAME_MAX)
        return nullptr;
    mc_connection *connection = connection_new(Side::server, fd, name);
    if (connection)
        connection->greeted = true;
    return connection;
}

int mc_close(mc_connection *connection)
{
    if (!connection || connection->closed)
        return 0;
    connection->closed = true;
    if (connection->leave)
        connection->leave(connection);
    connection_close_fd(connection);
    connection_unref(connection);
    return 0;
}

int mc_set_handler(mc_connection *connection, const char *command, mc_handler_func handler, void *)
{
    if (!command)
        return -1;
    Handler **link = handler_link(connection, command);
    if (!handler)
        handler_remove(link);
    else if (*link)
        (*link)->function = handler;
    else
        return handler_add(link, command, handler);
    return 0;
}

int mc_set_hup_handler(mc_connection *connection, mc_hup_func handler, void *)
{
    connection->hup = handler;
    return 0;
}

int mc_set_user_data(mc_connection *connection, void *user_data, int)
{
    connection->user_data = user_data;
    return 0;
}

[[gnu::hot]] void *mc_user_data(const mc_connection *connection)
{
    return connection->user_data;
}

const char *mc_connection_name(const mc_connection *connection)
{
    return connection->name;
}

pid_t mc_connection_pid(const mc_connection *connection)
{
    return connection->pid;
}

uid_t mc_connection_uid(const mc_connection *connection)
{
    return connection->uid;
}

int mc_fd(const mc_connection *connection)
{
    return connection->fd;
}
