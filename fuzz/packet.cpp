// SPDX-License-Identifier: MIT
// Bytes from a socket: the decoder of packets beside one that is written out here, and a service with clients that send
// anything at all.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "../src/libmc/wire.h"
#include "support/fuzz.h"
#include "support/poison.h"
#include "support/service.h"

namespace {

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

// Received bytes. Nothing behind them may be looked at.
struct Received {
    mc_packet packet;

    explicit Received(const std::string &bytes)
    {
        memset(&packet, 0x55, sizeof packet);
        const size_t n = std::min<size_t>(bytes.size(), MC_PACKET_MAX);
        memcpy(packet.bytes, bytes.data(), n);
        poison_add(packet.bytes + n, MC_PACKET_MAX - n);
    }
    ~Received() { poison_remove(packet.bytes, MC_PACKET_MAX); }
    Received(const Received &) = delete;
    Received &operator=(const Received &) = delete;
};

void decode(const std::string &bytes)
{
    const auto received = std::make_unique<Received>(bytes);
    mc_packet *packet = &received->packet;
    Plain plain;
    const bool expected = read_plainly(bytes, plain);
    const char *fault = libmc::packet_decode(packet, bytes.size());
    if (expected != (fault == nullptr))
        fuzz_finding("decoded as \"%s\", and should be %s", fault ? fault : "well formed", expected ? "" : "refused");
    if (fault != nullptr)
        return;
    if (mc_packet_command(packet) != plain.command || mc_packet_signature(packet) != plain.signature)
        fuzz_finding("command word or signature differ");
    compare_arguments(packet, plain);
    const Packet built = build(plain);
    if (std::string(built->bytes + 4, built->size - 4) != bytes.substr(4))
        fuzz_finding("built again the packet has other bytes");
}

// ---- packets that are nearly right ----

void append_padding(std::string &bytes, FuzzInput &in)
{
    bytes.resize(rounded_up(bytes.size()), in.chance(6) ? 'p' : '\0');
}

void append_string(std::string &bytes, FuzzInput &in)
{
    const uint8_t kind = in.byte();
    bytes.append(kind < 240 ? kind % 9 : kind * 14u, 's'); // a few of the long ones fill a packet
    bytes.push_back('\0');
    append_padding(bytes, in);
}

// Written out by hand, with as many arguments as the input says.
std::string nearly_right(FuzzInput &in)
{
    std::string bytes(4, '\1');
    bytes.append(in.byte() % 12u, 'c');
    bytes.push_back('\0');
    const size_t letters = in.chance(96) ? static_cast<size_t>(in.between(MC_ARGS_MAX - 2, MC_ARGS_MAX + 2))
                                         : static_cast<size_t>(in.below(6));
    const size_t signature = bytes.size();
    for (size_t i = 0; i < letters; i++)
        bytes.push_back(in.chance(64) ? 's' : in.chance(2) ? 'x' : 'i');
    bytes.push_back('\0');
    append_padding(bytes, in);
    for (size_t i = 0; i < letters; i++) {
        if (bytes[signature + i] == 's')
            append_string(bytes, in);
        else
            bytes.append(4, static_cast<char>(in.byte()));
    }
    if (in.chance(32))
        bytes.resize(MC_PACKET_MAX + 4 - in.byte() % 9u * 4); // around the most that a packet may hold
    return bytes;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzInput in{data, data + size};
    const int kind = in.below(4);
    if (kind == 0)
        decode({in.at, in.end});
    else if (kind == 3)
        decode(nearly_right(in));
    else if (kind == 1)
        decode(service_request(in));
    else
        service_play(in);
    return 0;
}
