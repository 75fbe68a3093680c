// SPDX-License-Identifier: MIT
// Packets as bytes. A packet is kept in the form in which it travels, so that sending copies nothing and a received
// one is read where it lies:
//   serial (4 bytes), command word, NUL, signature, NUL, zero bytes to a multiple of 4, then the arguments.
// Native byte order; docs/protocol.md has the whole of it.
#pragma once

#include "mc.h"

namespace libmc {

inline constexpr int32_t PROTOCOL_VERSION = 1;
inline constexpr const char GREETING_COMMAND[] = "connect";
inline constexpr const char GREETING_SIGNATURE[] = "is"; // version, client name
inline constexpr uint32_t COMMAND_OFFSET = sizeof(uint32_t);

constexpr size_t padded(size_t n)
{
    return (n + 3) & ~size_t{3};
}

} // namespace libmc

// All positions are offsets into `bytes`, and every packet that exists is well formed: built here, or checked by
// packet_decode before anybody reads it.
struct mc_packet {
    uint32_t size;      // bytes in use
    uint32_t signature; // where the signature begins
    uint32_t arguments; // where the arguments begin
    bool borrowed;      // lives in the receiver's frame: mc_packet_free leaves it alone
    alignas(uint32_t) char bytes[MC_PACKET_MAX];
};

namespace libmc {

uint32_t packet_serial(const mc_packet *packet);

// Checks the first `size` bytes of packet->bytes and fills in the positions. Returns null, or in words what is wrong;
// the packet is then not to be read. `size` may exceed MC_PACKET_MAX (a datagram that was cut off).
const char *packet_decode(mc_packet *packet, size_t size);

// Sends the packet as one datagram under `serial`; `flags` are those of sendmsg, MSG_NOSIGNAL is added.
// Returns 0, or -1 with errno set.
int packet_send(int fd, const mc_packet *packet, uint32_t serial, int flags);
// The same for a packet that may be written to.
int packet_post(int fd, mc_packet *packet, uint32_t serial, int flags);

// Takes the next datagram without waiting. Returns its true size, which may exceed MC_PACKET_MAX (the rest is lost), 0
// for an empty datagram or the end, or -1 with errno set. ECONNRESET comes once when the other side closed without
// reading everything; what it had sent before is still there to be taken.
ssize_t packet_receive(int fd, mc_packet *packet);

} // namespace libmc
