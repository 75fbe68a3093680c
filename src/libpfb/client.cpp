// SPDX-License-Identifier: MIT
// The connection: opening and closing it, and sending requests without ever waiting longer than the caller allows.
#include "client.h"

#include <algorithm>
#include <cerrno>
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

// Into the client's packet. False with errno set.
bool write_packet(pfb_client *client, const Request &request)
{
    const auto n = static_cast<int>(request.values.size());
    const bool written = mc_packet_rewrite(client->packet, request.word, request.values.begin(), n) == 0 &&
                         (request.text == nullptr || mc_packet_build_args(client->packet, "s", request.text) == 1);
    if (!written)
        errno = EMSGSIZE;
    return written;
}

// `send` sends the client's packet if there is room.
template <typename Send> bool at_once(pfb_client *client, const Request &request, const Send &send)
{
    if (!recovery_is_quiet(client))
        return false;
    const bool survived = recovery_has_survived(client);
    if (!write_packet(client, request) || send(client->connection, client->packet, 0) < 0)
        return false;
    if (survived)
        recovery_confirm_trial(client);
    return true;
}

int wait_for_room(pfb_client *client, const char *function, Deadline &deadline)
{
    pollfd entry = {mc_fd(client->connection), POLLOUT, 0};
    for (;;) {
        const int n = poll(&entry, 1, deadline.left());
        if (n > 0)
            return PFB_OK;
        if (n == 0)
            return fail(PFB_ERROR_TIMEOUT, function, "%s", SERVER_IS_BEHIND);
        if (errno != EINTR)
            return fail_errno(function, "poll");
    }
}

// A server that lost its only client in the midst of "block until unlock" would stop: what is missing is made up for,
// behind a restoration that it has yet to read as well.
void end_block(pfb_client *client, Deadline &deadline)
{
    if (!client->state.blocked || client->unusable || client->phase == Phase::lost)
        return;
    if (client->state.locks == 0 && send(client, {"pfb_disconnect", "lock_area", {0, 0, 0, 0}}, deadline) != PFB_OK)
        return;
    send(client, {"pfb_disconnect", "unlock"}, deadline);
}

void client_free(pfb_client *client)
{
    recovery_end(client);
    mc_close(client->connection);
    if (client->pixels != nullptr)
        munmap(client->pixels, memory_size(client));
    mc_packet_free(client->packet);
    free(client);
}

} // namespace

namespace libpfb {

int64_t now_ms()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int Deadline::left()
{
    if (timeout_ms_ <= 0)
        return timeout_ms_;
    const int64_t now = now_ms();
    if (at_ms_ == UNREAD)
        at_ms_ = now + timeout_ms_;
    return static_cast<int>(std::max<int64_t>(at_ms_ - now, 0));
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
    const bool sent = write_packet(client, request) && mc_send(client->connection, client->packet) == 0;
    return sent ? int{PFB_OK} : fail_errno(request.function, "sending");
}

int send(pfb_client *client, const Request &request, Deadline &deadline)
{
    const int ready = wait_for_room(client, request.function, deadline);
    return ready == PFB_OK ? send_now(client, request) : ready;
}

int send_into_queue(pfb_client *client, const Request &request, Deadline &deadline)
{
    if (write_packet(client, request) && mc_send_unanswered(client->connection, client->packet, deadline.left()) == 0)
        return PFB_OK;
    if (errno == ETIMEDOUT)
        return fail(PFB_ERROR_TIMEOUT, request.function, "%s", SERVER_IS_BEHIND);
    return fail_errno(request.function, "sending");
}

bool send_at_once(pfb_client *client, const Request &request)
{
    return at_once(client, request, mc_send_unanswered);
}

bool ask_at_once(pfb_client *client, const Request &request)
{
    return at_once(client, request, mc_send_in_time);
}

int call(pfb_client *client, const Request &request, Deadline &deadline)
{
    const int result = send(client, request, deadline);
    return result == PFB_OK ? take_answer(client, request.function, deadline) : result;
}

int take_answer(pfb_client *client, const char *function, Deadline &deadline)
{
    if (mc_take_answer(client->connection, client->packet, deadline.left()) < 0)
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
    client->packet = mc_packet_new(0);
    const int connected = client->packet != nullptr ? connect_first(client) : fail_errno("pfb_connect", "connecting");
    if (connected == PFB_OK)
        return client;
    client_free(client);
    return nullptr;
}

void pfb_disconnect(pfb_client *client)
{
    if (client == nullptr)
        return;
    const LastError error = error_save();
    client->on_event = nullptr;
    Deadline deadline(client);
    if (client->phase == Phase::restoring) // a server that did not find the memory any more would stop
        (void)recovery_settle(client, "pfb_disconnect", deadline);
    end_block(client, deadline);
    client_free(client);
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
