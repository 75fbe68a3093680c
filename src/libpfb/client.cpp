// SPDX-License-Identifier: MIT
// The connection: opening and closing it, and sending requests without ever waiting longer than the caller allows.
#include "client.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/mman.h>

using namespace libpfb;

namespace {

constexpr int DEFAULT_TIMEOUT_MS = 5000;
constexpr const char *SERVER_IS_BEHIND = "the server does not take requests";

const char *server_folder()
{
    for (const char *variable : {"MC_RUNTIME_DIR", "XDG_RUNTIME_DIR"}) {
        const char *folder = getenv(variable);
        if (folder != nullptr && *folder != '\0')
            return folder;
    }
    return "/run/mc";
}

// One that belongs to some output.
bool is_name(const char *name)
{
    return name[strspn(name, ".")] != '\0' && strlen(name) <= MC_NAME_MAX;
}

int fail_connect()
{
    const int error = errno;
    if (error == ENOENT || error == ECONNREFUSED)
        return fail(PFB_ERROR_NO_SERVER, "pfb_connect", "no server listens at %s/%s.mc: is fbserver running?",
                    server_folder(), SERVICE);
    if (error == EACCES)
        return fail(PFB_ERROR_ACCESS, "pfb_connect", "no permission to connect to %s/%s.mc", server_folder(), SERVICE);
    return fail_errno("pfb_connect", "connecting");
}

int connect_first(pfb_client *client)
{
    client->connection = mc_connect_in_time(SERVICE, client->name, client->timeout_ms);
    return client->connection != nullptr ? recovery_start(client) : fail_connect();
}

mc_packet *packet_of(const Request &request)
{
    mc_packet *packet = mc_packet_new_command(request.word);
    if (packet == nullptr)
        return nullptr;
    bool built = true;
    for (int32_t value : request.values)
        built = built && mc_packet_build_args(packet, "i", value) == 1;
    if (request.text != nullptr)
        built = built && mc_packet_build_args(packet, "s", request.text) == 1;
    if (built)
        return packet;
    mc_packet_free(packet);
    errno = EMSGSIZE;
    return nullptr;
}

int wait_for_room(pfb_client *client, const char *function, int64_t deadline)
{
    pollfd entry = {mc_fd(client->connection), POLLOUT, 0};
    for (;;) {
        const int n = poll(&entry, 1, left(deadline));
        if (n > 0)
            return PFB_OK;
        if (n == 0)
            return fail(PFB_ERROR_TIMEOUT, function, "%s", SERVER_IS_BEHIND);
        if (errno != EINTR)
            return fail_errno(function, "poll");
    }
}

// A server that lost its only client in the midst of "block until unlock" would stop: what is missing is made up for.
void end_block(pfb_client *client)
{
    if (!client->state.blocked || client->unusable || client->phase != Phase::ready)
        return;
    const int64_t deadline = deadline_of(client);
    if (client->state.locks == 0 && send(client, {"pfb_disconnect", "lock_area", {0, 0, 0, 0}}, deadline) != PFB_OK)
        return;
    send(client, {"pfb_disconnect", "unlock"}, deadline);
}

} // namespace

namespace libpfb {

int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int64_t deadline_of(const pfb_client *client)
{
    return client->timeout_ms < 0 ? FOR_EVER : now_ms() + client->timeout_ms;
}

int left(int64_t deadline)
{
    if (deadline == FOR_EVER)
        return -1;
    const int64_t ms = deadline - now_ms();
    return static_cast<int>(ms < 0 ? 0 : ms);
}

int check_client(const pfb_client *client, const char *function)
{
    if (client == nullptr)
        return fail(PFB_ERROR_ARGUMENT, function, "the client is NULL");
    if (client->unusable)
        return fail(PFB_ERROR_STATE, function, "the server did not answer pfb_create: disconnect");
    return PFB_OK;
}

int check_surface(const pfb_client *client, const char *function)
{
    const int checked = check_client(client, function);
    if (checked == PFB_OK && client->pixels == nullptr)
        return fail(PFB_ERROR_STATE, function, "%s has no surface", client->name);
    return checked;
}

int check_position(const char *function, int32_t x, int32_t y)
{
    if (x < -PFB_COORDINATE_MAX || x > PFB_COORDINATE_MAX || y < -PFB_COORDINATE_MAX || y > PFB_COORDINATE_MAX)
        return fail(PFB_ERROR_ARGUMENT, function, "position %d, %d is not within +-%d", x, y, PFB_COORDINATE_MAX);
    return PFB_OK;
}

int check_size(const char *function, int32_t width, int32_t height, int32_t least)
{
    if (width < least || height < least || width > PFB_COORDINATE_MAX || height > PFB_COORDINATE_MAX)
        return fail(PFB_ERROR_ARGUMENT, function, "size %d x %d is not within %d to %d", width, height, least,
                    PFB_COORDINATE_MAX);
    return PFB_OK;
}

int check_area(const char *function, const Area &area)
{
    const int positioned = check_position(function, area.x, area.y);
    return positioned == PFB_OK ? check_size(function, area.width, area.height, 0) : positioned;
}

int send_now(pfb_client *client, const Request &request)
{
    mc_packet *packet = packet_of(request);
    const int sent = packet != nullptr ? mc_send(client->connection, packet) : -1;
    const int result = sent == 0 ? int{PFB_OK} : fail_errno(request.function, "sending");
    mc_packet_free(packet);
    return result;
}

int send(pfb_client *client, const Request &request, int64_t deadline)
{
    const int ready = wait_for_room(client, request.function, deadline);
    return ready == PFB_OK ? send_now(client, request) : ready;
}

int send_into_queue(pfb_client *client, const Request &request, int64_t deadline)
{
    mc_packet *packet = packet_of(request);
    const int sent = packet != nullptr ? mc_send_in_time(client->connection, packet, left(deadline)) : -1;
    int result = PFB_OK;
    if (sent < 0 && errno == ETIMEDOUT)
        result = fail(PFB_ERROR_TIMEOUT, request.function, "%s", SERVER_IS_BEHIND);
    else if (sent < 0)
        result = fail_errno(request.function, "sending");
    mc_packet_free(packet);
    return result;
}

int call(pfb_client *client, const Request &request, int64_t deadline, mc_packet **answer)
{
    *answer = nullptr;
    const int result = send(client, request, deadline);
    return result == PFB_OK ? take_answer(client, request.function, deadline, answer) : result;
}

int take_answer(pfb_client *client, const char *function, int64_t deadline, mc_packet **answer)
{
    *answer = mc_answer(client->connection, left(deadline));
    if (*answer == nullptr)
        return fail_errno(function, "asking the server");
    recovery_confirm(client);
    return PFB_OK;
}

} // namespace libpfb

pfb_client *pfb_connect(const char *name)
{
    if (name == nullptr || !is_name(name)) {
        fail(PFB_ERROR_ARGUMENT, "pfb_connect", "a name has 1 to %d bytes, not only dots", MC_NAME_MAX);
        return nullptr;
    }
    auto *client = static_cast<pfb_client *>(calloc(1, sizeof(pfb_client)));
    if (client == nullptr) {
        fail_errno("pfb_connect", "connecting");
        return nullptr;
    }
    client->timeout_ms = DEFAULT_TIMEOUT_MS;
    client->reconnect = true;
    client->epoll_fd = client->timer_fd = -1;
    strcpy(client->name, name); // is_name has measured it
    if (connect_first(client) == PFB_OK)
        return client;
    recovery_end(client);
    mc_close(client->connection);
    free(client);
    return nullptr;
}

void pfb_disconnect(pfb_client *client)
{
    if (client == nullptr)
        return;
    const LastError error = error_save();
    client->on_event = nullptr;
    if (client->phase == Phase::restoring) // a server that did not find the memory any more would stop
        (void)recovery_settle(client, "pfb_disconnect", deadline_of(client));
    end_block(client);
    recovery_end(client);
    mc_close(client->connection);
    if (client->pixels != nullptr)
        munmap(client->pixels, memory_size(client));
    free(client);
    error_restore(error);
}

int pfb_fd(const pfb_client *client)
{
    return client != nullptr && client->connection != nullptr ? mc_fd(client->connection) : -1;
}

int pfb_poll_fd(const pfb_client *client)
{
    return client != nullptr ? client->epoll_fd : -1;
}

int pfb_set_timeout(pfb_client *client, int milliseconds)
{
    if (client == nullptr || milliseconds < -1)
        return fail(PFB_ERROR_ARGUMENT, __func__, "%d milliseconds", milliseconds);
    client->timeout_ms = milliseconds;
    return PFB_OK;
}
