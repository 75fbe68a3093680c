// SPDX-License-Identifier: MIT
#include "wire.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

using namespace libmc;

namespace {

// The one that was freed last waits to be the next one: a server answers its requests one after the other.
mc_packet *spare;

// Bytes that the arguments take on the wire. False for an unknown letter, a null string or more than a packet holds.
bool arguments_measure(const char *signature, va_list values, size_t *bytes)
{
    *bytes = 0;
    for (; *signature; signature++) {
        if (*signature == 'i') {
            (void)va_arg(values, int32_t);
            *bytes += sizeof(int32_t);
        } else if (*signature == 's') {
            const char *string = va_arg(values, const char *);
            if (!string)
                return false;
            *bytes += padded(strnlen(string, MC_PACKET_MAX) + 1);
        } else {
            return false;
        }
        if (*bytes > MC_PACKET_MAX)
            return false;
    }
    return true;
}

void arguments_write(char *at, const char *signature, va_list values)
{
    for (; *signature; signature++) {
        if (*signature == 'i') {
            const int32_t value = va_arg(values, int32_t);
            memcpy(at, &value, sizeof value);
            at += sizeof value;
        } else {
            const char *string = va_arg(values, const char *);
            const size_t n = strlen(string) + 1;
            memcpy(at, string, n);
            memset(at + n, 0, padded(n) - n);
            at += padded(n);
        }
    }
}

// Makes room for a longer signature: what stands behind it moves by whole words.
void signature_append(mc_packet *packet, const char *letters, size_t n)
{
    char *bytes = packet->bytes;
    const size_t end = packet->signature + strlen(bytes + packet->signature);
    const size_t arguments = padded(end + n + 1);
    memmove(bytes + arguments, bytes + packet->arguments, packet->size - packet->arguments);
    memcpy(bytes + end, letters, n);
    memset(bytes + end + n, 0, arguments - end - n);
    packet->size += static_cast<uint32_t>(arguments) - packet->arguments;
    packet->arguments = static_cast<uint32_t>(arguments);
}

int arguments_append(mc_packet *packet, const char *signature, va_list values, size_t bytes)
{
    const size_t old_letters = strlen(packet->bytes + packet->signature);
    const size_t letters = strlen(signature);
    const size_t header = padded(packet->signature + old_letters + letters + 1);
    if (old_letters + letters > MC_ARGS_MAX || header + (packet->size - packet->arguments) + bytes > MC_PACKET_MAX)
        return -1;
    signature_append(packet, signature, letters);
    arguments_write(packet->bytes + packet->size, signature, values);
    packet->size += static_cast<uint32_t>(bytes);
    return static_cast<int>(letters);
}

// Stores the argument at *at under a letter that the packet carries there, and walks behind it.
void argument_read(char letter, const char **at, void *value)
{
    if (letter == 'i') {
        memcpy(value, *at, sizeof(int32_t));
        *at += sizeof(int32_t);
    } else {
        *static_cast<const char **>(value) = *at;
        *at += padded(strlen(*at) + 1);
    }
}

} // namespace

mc_packet *mc_packet_new(int)
{
    return mc_packet_new_command("");
}

mc_packet *mc_packet_new_command(const char *command)
{
    const size_t n = command ? strnlen(command, MC_PACKET_MAX) : MC_PACKET_MAX;
    const size_t size = padded(COMMAND_OFFSET + n + 2);
    if (size > MC_PACKET_MAX)
        return nullptr;
    mc_packet *packet = __atomic_exchange_n(&spare, nullptr, __ATOMIC_ACQUIRE);
    if (!packet)
        packet = static_cast<mc_packet *>(malloc(sizeof(mc_packet)));
    if (!packet)
        return nullptr;
    memset(packet->bytes, 0, size);
    memcpy(packet->bytes + COMMAND_OFFSET, command, n);
    packet->size = packet->arguments = static_cast<uint32_t>(size);
    packet->signature = static_cast<uint32_t>(COMMAND_OFFSET + n + 1);
    packet->borrowed = false;
    return packet;
}

void mc_packet_free(mc_packet *packet)
{
    if (packet && !packet->borrowed)
        free(__atomic_exchange_n(&spare, packet, __ATOMIC_ACQ_REL)); // any thread may be at it
}

[[gnu::hot]] const char *mc_packet_command(const mc_packet *packet)
{
    return packet->bytes + COMMAND_OFFSET;
}

[[gnu::hot]] const char *mc_packet_signature(const mc_packet *packet)
{
    return packet->bytes + packet->signature;
}

[[gnu::hot]] int mc_packet_parse_args(const mc_packet *packet, const char *signature, ...)
{
    const char *carried = mc_packet_signature(packet);
    const char *at = packet->bytes + packet->arguments;
    int count = 0;
    va_list values;
    va_start(values, signature);
    for (; signature[count] && signature[count] == carried[count]; count++)
        argument_read(carried[count], &at, va_arg(values, void *));
    va_end(values);
    return count;
}

int mc_packet_build_args(mc_packet *packet, const char *signature, ...)
{
    size_t bytes;
    va_list values;
    va_start(values, signature);
    const bool fits = arguments_measure(signature, values, &bytes);
    va_end(values);
    if (!fits)
        return -1;
    va_start(values, signature);
    const int added = arguments_append(packet, signature, values, bytes);
    va_end(values);
    return added;
}

int mc_packet_rewrite(mc_packet *packet, const char *command, const int32_t *values, int n)
{
    const size_t length = strnlen(command, MC_PACKET_MAX);
    const auto letters = static_cast<size_t>(n);
    const size_t signature = COMMAND_OFFSET + length + 1;
    const size_t arguments = padded(signature + letters + 1);
    if (n < 0 || n > MC_ARGS_MAX || arguments + letters * sizeof(int32_t) > MC_PACKET_MAX)
        return -1;
    char *bytes = packet->bytes;
    memcpy(bytes + COMMAND_OFFSET, command, length + 1);
    memset(bytes + signature, 'i', letters);
    memset(bytes + signature + letters, 0, arguments - signature - letters);
    if (n > 0)
        memcpy(bytes + arguments, values, letters * sizeof(int32_t));
    packet->signature = static_cast<uint32_t>(signature);
    packet->arguments = static_cast<uint32_t>(arguments);
    packet->size = static_cast<uint32_t>(arguments + letters * sizeof(int32_t));
    return 0;
}
