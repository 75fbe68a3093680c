// SPDX-License-Identifier: MIT
#include "wire.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace libmc {

namespace {

// Walks over the NUL-terminated string at *at. False when it does not end before `end`.
bool skip_string(const char *bytes, size_t *at, size_t end)
{
    const void *nul = *at < end ? memchr(bytes + *at, '\0', end - *at) : nullptr;
    if (!nul)
        return false;
    *at = static_cast<size_t>(static_cast<const char *>(nul) - bytes) + 1;
    return true;
}

const char *skip_padding(const char *bytes, size_t *at, size_t end)
{
    const size_t next = padded(*at);
    if (next > end)
        return "ends inside padding";
    for (; *at < next; ++*at)
        if (bytes[*at] != '\0')
            return "padding is not zero";
    return nullptr;
}

const char *skip_argument(char letter, const char *bytes, size_t *at, size_t end)
{
    switch (letter) {
    case 'i':
        if (end - *at < sizeof(int32_t))
            return "ends inside an integer";
        *at += sizeof(int32_t);
        return nullptr;
    case 's':
        return skip_string(bytes, at, end) ? skip_padding(bytes, at, end) : "string has no end";
    default:
        return "unknown letter in the signature";
    }
}

const char *skip_arguments(const char *signature, const char *bytes, size_t *at, size_t end)
{
    for (; *signature; signature++)
        if (const char *fault = skip_argument(*signature, bytes, at, end))
            return fault;
    return nullptr;
}

} // namespace

uint32_t packet_serial(const mc_packet *packet)
{
    uint32_t serial;
    memcpy(&serial, packet->bytes, sizeof serial);
    return serial;
}

[[gnu::hot]] const char *packet_decode(mc_packet *packet, size_t size)
{
    if (size > MC_PACKET_MAX)
        return "longer than a packet may be";
    if (size < COMMAND_OFFSET)
        return "ends inside the serial number";
    size_t at = COMMAND_OFFSET;
    if (!skip_string(packet->bytes, &at, size))
        return "command word has no end";
    const size_t signature = at;
    if (!skip_string(packet->bytes, &at, size))
        return "signature has no end";
    if (at - signature - 1 > MC_ARGS_MAX)
        return "too many arguments";
    if (const char *fault = skip_padding(packet->bytes, &at, size))
        return fault;
    const size_t arguments = at;
    if (const char *fault = skip_arguments(packet->bytes + signature, packet->bytes, &at, size))
        return fault;
    if (at != size)
        return "bytes behind the last argument";
    packet->size = static_cast<uint32_t>(size);
    packet->signature = static_cast<uint32_t>(signature);
    packet->arguments = static_cast<uint32_t>(arguments);
    return nullptr;
}

int packet_send(int fd, const mc_packet *packet, uint32_t serial, int flags)
{
    iovec parts[2] = {
        {&serial, sizeof serial},
        {const_cast<char *>(packet->bytes) + COMMAND_OFFSET, packet->size - COMMAND_OFFSET},
    };
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    ssize_t sent;
    do {
        sent = sendmsg(fd, &message, flags | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? -1 : 0;
}

int packet_post(int fd, mc_packet *packet, uint32_t serial, int flags)
{
    memcpy(packet->bytes, &serial, sizeof serial);
    ssize_t sent;
    do {
        sent = send(fd, packet->bytes, packet->size, flags | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? -1 : 0;
}

ssize_t packet_receive(int fd, mc_packet *packet)
{
    ssize_t n;
    do {
        n = recv(fd, packet->bytes, sizeof packet->bytes, MSG_DONTWAIT | MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    return n;
}

} // namespace libmc
