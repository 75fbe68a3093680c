// SPDX-License-Identifier: MIT
// Packets: building, parsing, the exact bytes, and every way in which bytes are not a packet.
#include "../support/failing_memory.h"
#include "mc_support.h"

#include <memory>
#include <random>

namespace {

using testing::HasSubstr;
using testing::IsNull;

using Packet = std::unique_ptr<mc_packet, decltype(&mc_packet_free)>;

Packet command(const char *word)
{
    return {mc_packet_new_command(word), mc_packet_free};
}

std::string bytes_of(const Packet &packet)
{
    return {packet->bytes, packet->size};
}

// Decodes `bytes`; what lies behind them is never zero, so that reading on is noticed.
const char *decode(mc_packet *packet, const std::string &bytes)
{
    memset(packet, 0x55, sizeof *packet);
    memcpy(packet->bytes, bytes.data(), std::min<size_t>(bytes.size(), MC_PACKET_MAX));
    return libmc::packet_decode(packet, bytes.size());
}

std::string fault_of(const std::string &bytes)
{
    mc_packet packet;
    const char *fault = decode(&packet, bytes);
    return fault ? fault : "none";
}

TEST(Packet, NewOneIsEmpty)
{
    Packet packet(mc_packet_new(0), mc_packet_free);
    ASSERT_NE(packet, nullptr);
    EXPECT_STREQ(mc_packet_command(packet.get()), "");
    EXPECT_STREQ(mc_packet_signature(packet.get()), "");
    EXPECT_EQ(bytes_of(packet).substr(4), std::string(4, '\0'));
    mc_packet_free(nullptr);
}

// So that a server answers without allocating; a second one at the same time has memory of its own.
TEST(Packet, TheOneThatWasFreedLastIsTheNext)
{
    Packet old = command("a word that is longer");
    ASSERT_EQ(mc_packet_build_args(old.get(), "is", 7, "text"), 2);
    old.reset();
    fail_allocation(ANY_ALLOCATION, 1);
    const Packet packet = command("w");
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(bytes_of(packet).substr(4), std::string("w\0\0\0", 4));
    EXPECT_THAT(command("w"), IsNull());
    EXPECT_TRUE(allocation_failed());
    EXPECT_NE(command("w"), nullptr);
}

TEST(Packet, HasExactlyTheseBytes)
{
    Packet packet = command("dirty");
    ASSERT_EQ(mc_packet_build_args(packet.get(), "iis", 1, -2, "abcd"), 3);
    EXPECT_STREQ(mc_packet_command(packet.get()), "dirty");
    EXPECT_STREQ(mc_packet_signature(packet.get()), "iis");
    const std::string expected("dirty\0iis\0\0\0"
                               "\x01\0\0\0"
                               "\xfe\xff\xff\xff"
                               "abcd\0\0\0\0",
                               28);
    EXPECT_EQ(bytes_of(packet).substr(4), expected);
}

TEST(Packet, ParsesWhatWasBuilt)
{
    Packet packet = command("create");
    ASSERT_EQ(mc_packet_build_args(packet.get(), "isi", INT32_MIN, "", INT32_MAX), 3);
    int32_t first, last;
    const char *text;
    ASSERT_EQ(mc_packet_parse_args(packet.get(), "isi", &first, &text, &last), 3);
    EXPECT_EQ(first, INT32_MIN);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(last, INT32_MAX);
    EXPECT_GE(text, packet->bytes);
    EXPECT_LT(text, packet->bytes + packet->size);
}

TEST(Packet, ParsingStopsAtTheFirstDifference)
{
    Packet packet = command("w");
    ASSERT_EQ(mc_packet_build_args(packet.get(), "isi", 7, "seven", 8), 3);
    int32_t a = -1, b = -1, c = -1;
    const char *text = "untouched";
    EXPECT_EQ(mc_packet_parse_args(packet.get(), "iii", &a, &b, &c), 1);
    EXPECT_EQ(a, 7);
    EXPECT_EQ(b, -1);
    EXPECT_EQ(c, -1);
    EXPECT_EQ(mc_packet_parse_args(packet.get(), "s", &text), 0);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(mc_packet_parse_args(packet.get(), "isii", &a, &text, &b, &c), 3); // one more than there is
    EXPECT_EQ(b, 8);
    EXPECT_EQ(c, -1);
    EXPECT_EQ(mc_packet_parse_args(packet.get(), "i", &c), 1); // further arguments do not matter
    EXPECT_EQ(mc_packet_parse_args(packet.get(), ""), 0);
    EXPECT_EQ(mc_packet_parse_args(packet.get(), "ix", &c, &b), 1); // no such letter
}

TEST(Packet, BuildingInStepsGivesTheSameBytes)
{
    Packet whole = command("step");
    Packet steps = command("step");
    ASSERT_EQ(mc_packet_build_args(whole.get(), "sisisissii", "a", 1, "bc", 2, "def", 3, "ghij", "", 4, 5), 10);
    EXPECT_EQ(mc_packet_build_args(steps.get(), "s", "a"), 1);
    EXPECT_EQ(mc_packet_build_args(steps.get(), ""), 0);
    EXPECT_EQ(mc_packet_build_args(steps.get(), "isi", 1, "bc", 2), 3);
    EXPECT_EQ(mc_packet_build_args(steps.get(), "sissii", "def", 3, "ghij", "", 4, 5), 6);
    EXPECT_EQ(bytes_of(steps).substr(4), bytes_of(whole).substr(4));
}

TEST(Packet, BuildingIsAllOrNothing)
{
    Packet packet = command("word");
    ASSERT_EQ(mc_packet_build_args(packet.get(), "i", 1), 1);
    const std::string before = bytes_of(packet).substr(4);
    EXPECT_EQ(mc_packet_build_args(packet.get(), "ix", 1, 2), -1);
    EXPECT_EQ(mc_packet_build_args(packet.get(), "is", 1, static_cast<const char *>(nullptr)), -1);
    EXPECT_EQ(mc_packet_build_args(packet.get(), "is", 1, std::string(MC_PACKET_MAX, 'x').c_str()), -1);
    EXPECT_EQ(bytes_of(packet).substr(4), before);
}

TEST(Packet, HoldsExactlyMaxArguments)
{
    Packet packet = command("many");
    for (int i = 0; i < MC_ARGS_MAX; i++)
        ASSERT_EQ(mc_packet_build_args(packet.get(), "i", i), 1) << i;
    EXPECT_EQ(mc_packet_build_args(packet.get(), "i", 0), -1);
    EXPECT_EQ(strlen(mc_packet_signature(packet.get())), static_cast<size_t>(MC_ARGS_MAX));
    EXPECT_EQ(fault_of(bytes_of(packet)), "none");
}

TEST(Packet, HoldsExactlyMaxBytes)
{
    // 4 for the serial number, "w", NUL, "s", NUL: the string has what is left, its NUL included.
    const size_t room = MC_PACKET_MAX - 8;
    Packet packet = command("w");
    EXPECT_EQ(mc_packet_build_args(packet.get(), "s", std::string(room, 'x').c_str()), -1);
    ASSERT_EQ(mc_packet_build_args(packet.get(), "s", std::string(room - 1, 'x').c_str()), 1);
    EXPECT_EQ(packet->size, static_cast<uint32_t>(MC_PACKET_MAX));
    EXPECT_EQ(mc_packet_build_args(packet.get(), "i", 1), -1);
    EXPECT_EQ(fault_of(bytes_of(packet)), "none");
}

// Over what a longer packet has left, and at every remainder of the word's and the signature's length.
TEST(Packet, RewritingGivesTheBytesOfANewOne)
{
    const std::vector<int32_t> values = {INT32_MIN, -1, 0, 1, 2, 3, 4, 5, INT32_MAX};
    Packet packet = command("");
    for (const std::string word : {"", "a", "ab", "abc", "abcd", "abcde"}) {
        for (size_t n = 0; n <= values.size(); n++) {
            Packet fresh = command(word.c_str());
            for (size_t i = 0; i < n; i++)
                ASSERT_EQ(mc_packet_build_args(fresh.get(), "i", values[i]), 1);
            memset(packet->bytes + 4, 0x55, sizeof packet->bytes - 4);
            ASSERT_EQ(mc_packet_rewrite(packet.get(), word.c_str(), values.data(), static_cast<int>(n)), 0);
            EXPECT_EQ(bytes_of(packet).substr(4), bytes_of(fresh).substr(4)) << word << " " << n;
            ASSERT_EQ(mc_packet_build_args(fresh.get(), "s", "text"), 1);
            ASSERT_EQ(mc_packet_build_args(packet.get(), "s", "text"), 1);
            EXPECT_EQ(bytes_of(packet).substr(4), bytes_of(fresh).substr(4)) << word << " " << n;
            EXPECT_STREQ(mc_packet_command(packet.get()), word.c_str());
            EXPECT_EQ(mc_packet_signature(packet.get()), std::string(n, 'i') + "s");
        }
    }
}

TEST(Packet, RewritingIsAllOrNothing)
{
    const std::vector<int32_t> values(MC_ARGS_MAX + 1);
    const std::string longest(MC_PACKET_MAX - 4 - 4 - 4,
                              'x'); // beside the serial number, "\0i\0" filled up, an integer
    Packet packet = command("word");
    mc_packet_build_args(packet.get(), "is", 1, "text");
    const std::string before = bytes_of(packet);
    EXPECT_EQ(mc_packet_rewrite(packet.get(), "w", values.data(), MC_ARGS_MAX + 1), -1);
    EXPECT_EQ(mc_packet_rewrite(packet.get(), "w", values.data(), -1), -1);
    EXPECT_EQ(mc_packet_rewrite(packet.get(), (longest + "xx").c_str(), values.data(), 1), -1);
    EXPECT_EQ(mc_packet_rewrite(packet.get(), longest.c_str(), values.data(), 2), -1);
    EXPECT_EQ(mc_packet_rewrite(packet.get(), std::string(MC_PACKET_MAX * 2, 'x').c_str(), nullptr, 0), -1);
    EXPECT_EQ(bytes_of(packet), before);
    EXPECT_EQ(mc_packet_rewrite(packet.get(), longest.c_str(), values.data(), 1), 0);
    EXPECT_EQ(packet->size, static_cast<uint32_t>(MC_PACKET_MAX));
    EXPECT_EQ(mc_packet_rewrite(packet.get(), "w", values.data(), MC_ARGS_MAX), 0);
}

TEST(Packet, CommandWordMustFit)
{
    EXPECT_EQ(mc_packet_new_command(nullptr), nullptr);
    EXPECT_EQ(mc_packet_new_command(std::string(MC_PACKET_MAX - 5, 'w').c_str()), nullptr);
    Packet longest = command(std::string(MC_PACKET_MAX - 6, 'w').c_str());
    ASSERT_NE(longest, nullptr);
    EXPECT_EQ(longest->size, static_cast<uint32_t>(MC_PACKET_MAX));
    EXPECT_EQ(mc_packet_build_args(longest.get(), "i", 1), -1);
}

TEST(Decode, AcceptsWhatIsWellFormed)
{
    EXPECT_EQ(fault_of(header(9, "show", "")), "none");
    EXPECT_EQ(fault_of(header(9, "", "")), "none");
    EXPECT_EQ(fault_of(header(9, "m", "is") + u32(1) + padded_text("")), "none");
}

TEST(Decode, NamesEachFault)
{
    const std::string i32 = u32(5);
    EXPECT_THAT(fault_of(""), HasSubstr("ends inside the serial number"));
    EXPECT_THAT(fault_of("abc"), HasSubstr("ends inside the serial number"));
    EXPECT_THAT(fault_of(u32(1)), HasSubstr("command word has no end"));
    EXPECT_THAT(fault_of(u32(1) + "show"), HasSubstr("command word has no end"));
    EXPECT_THAT(fault_of(u32(1) + std::string("show\0", 5)), HasSubstr("signature has no end"));
    EXPECT_THAT(fault_of(u32(1) + std::string("mo\0ii", 5)), HasSubstr("signature has no end"));
    EXPECT_THAT(fault_of(u32(1) + std::string("a\0i\0", 4) + "xyz"), HasSubstr("ends inside an integer"));
    EXPECT_THAT(fault_of(u32(1) + std::string("a\0ii", 4) + std::string(1, '\0')), HasSubstr("ends inside padding"));
    EXPECT_THAT(fault_of(u32(1) + std::string("a\0ii\0\0\x01\0", 8) + i32 + i32), HasSubstr("padding is not zero"));
    EXPECT_THAT(fault_of(header(1, "a", "s") + "text"), HasSubstr("string has no end"));
    EXPECT_THAT(fault_of(header(1, "a", "s")), HasSubstr("string has no end"));
    EXPECT_THAT(fault_of(header(1, "a", "s") + std::string("t\0", 2)), HasSubstr("ends inside padding"));
    EXPECT_THAT(fault_of(header(1, "a", "s") + std::string("t\0\0!", 4)), HasSubstr("padding is not zero"));
    EXPECT_THAT(fault_of(header(1, "a", "id") + i32 + i32), HasSubstr("unknown letter"));
    EXPECT_THAT(fault_of(header(1, "a", "i") + i32 + i32), HasSubstr("bytes behind the last argument"));
    EXPECT_THAT(fault_of(header(1, "a", "") + '\0'), HasSubstr("bytes behind the last argument"));
    EXPECT_THAT(fault_of(header(1, "a", std::string(MC_ARGS_MAX + 1, 'i')) + std::string(4 * (MC_ARGS_MAX + 1), 'x')),
                HasSubstr("too many arguments"));
    EXPECT_THAT(fault_of(header(1, "a", "s") + padded_text(std::string(MC_PACKET_MAX, 'x'))),
                HasSubstr("longer than a packet may be"));
}

TEST(Decode, NoPrefixOfAPacketIsOne)
{
    const std::string whole = header(3, "create", "iis") + u32(1) + u32(2) + padded_text("/shared");
    ASSERT_EQ(fault_of(whole), "none");
    for (size_t n = 0; n < whole.size(); n++)
        EXPECT_NE(fault_of(whole.substr(0, n)), "none") << n;
}

// Rebuilds a decoded packet from its arguments. There is one encoding of each packet, so the bytes must be the same.
void expect_same_when_rebuilt(const mc_packet &packet, uint64_t case_number)
{
    union Value {
        int32_t integer;
        const char *string;
    } v[MC_ARGS_MAX];
    const char *signature = mc_packet_signature(&packet);
    const int count =
        mc_packet_parse_args(&packet, signature, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8, v + 9,
                             v + 10, v + 11, v + 12, v + 13, v + 14, v + 15, v + 16, v + 17, v + 18, v + 19, v + 20,
                             v + 21, v + 22, v + 23, v + 24, v + 25, v + 26, v + 27, v + 28, v + 29, v + 30, v + 31);
    ASSERT_EQ(static_cast<size_t>(count), strlen(signature)) << "case " << case_number;
    Packet again = command(mc_packet_command(&packet));
    ASSERT_NE(again, nullptr) << "case " << case_number;
    for (int i = 0; i < count; i++)
        ASSERT_EQ(signature[i] == 'i' ? mc_packet_build_args(again.get(), "i", v[i].integer)
                                      : mc_packet_build_args(again.get(), "s", v[i].string),
                  1)
            << "case " << case_number;
    EXPECT_EQ(bytes_of(again).substr(4), std::string(packet.bytes + 4, packet.size - 4)) << "case " << case_number;
}

size_t random_below(std::mt19937_64 &random, size_t limit)
{
    return static_cast<size_t>(random() % limit);
}

std::string random_packet(std::mt19937_64 &random)
{
    std::string signature, arguments;
    for (uint64_t n = random() % 6; n > 0; n--) {
        const bool integer = random() % 2;
        signature += integer ? 'i' : 's';
        arguments +=
            integer ? u32(static_cast<uint32_t>(random())) : padded_text(std::string(random_below(random, 9), 'q'));
    }
    return header(static_cast<uint32_t>(random()), std::string(random_below(random, 7), 'w'), signature) + arguments;
}

TEST(Decode, DamagedPacketsAreRefusedOrReadable)
{
    int accepted = 0, refused = 0;
    for (uint64_t number = 0; number < 50000; number++) {
        std::mt19937_64 random(number);
        std::string bytes = random_packet(random);
        for (uint64_t n = random() % 4; n > 0; n--)
            bytes[random_below(random, bytes.size())] = "\0is\x01"[random() % 4];
        if (random() % 4 == 0)
            bytes.resize(random_below(random, bytes.size() + 8), '\0');
        mc_packet packet;
        if (decode(&packet, bytes)) {
            refused++;
            continue;
        }
        accepted++;
        ASSERT_NO_FATAL_FAILURE(expect_same_when_rebuilt(packet, number));
    }
    EXPECT_GT(accepted, 1000);
    EXPECT_GT(refused, 1000);
}

} // namespace
