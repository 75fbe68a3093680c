// SPDX-License-Identifier: MIT
// docs/protocol.md against the library: its dump, and its Python client.
#include "mc_support.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/mman.h>
#include <sys/stat.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string page()
{
    const char *name = getenv("MC_PROTOCOL_PAGE");
    EXPECT_NE(name, nullptr) << "MC_PROTOCOL_PAGE names docs/protocol.md: run this through meson test";
    std::ifstream file(name ? name : "");
    std::ostringstream text;
    text << file.rdbuf();
    EXPECT_FALSE(text.str().empty());
    return text.str();
}

// The first block of the page that is marked with `language`.
std::string block(const std::string &language)
{
    const std::string text = page();
    const std::string mark = "\n```" + language + "\n";
    const size_t begin = text.find(mark);
    const size_t end = text.find("\n```", begin + mark.size());
    EXPECT_NE(begin, std::string::npos) << language;
    EXPECT_NE(end, std::string::npos) << language;
    return begin == std::string::npos ? "" : text.substr(begin + mark.size(), end + 1 - begin - mark.size());
}

std::string hex(const mc_packet *packet)
{
    std::string text;
    for (uint32_t i = 0; i < packet->size; i++) {
        std::array<char, 3> digits;
        snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(packet->bytes[i]));
        text += digits.data();
    }
    return text;
}

mc_packet *with_serial(mc_packet *packet, uint32_t serial)
{
    memcpy(packet->bytes, &serial, sizeof serial);
    return packet;
}

class McPage : public McTest {
protected:
    void SetUp() override
    {
        McTest::SetUp();
        python = getenv("MC_PYTHON") ? getenv("MC_PYTHON") : "";
        ASSERT_FALSE(python.empty()) << "MC_PYTHON names python3: run this through meson test";
        std::ofstream(path("page_client.py")) << block("python");
    }
    std::string python;
};

std::string output_of(const std::string &shell_command)
{
    std::string text;
    FILE *pipe = popen(shell_command.c_str(), "r");
    for (int byte = fgetc(pipe); byte != EOF; byte = fgetc(pipe))
        text += static_cast<char>(byte);
    EXPECT_EQ(pclose(pipe), 0);
    return text;
}

TEST_F(McPage, PythonEncodesAsTheLibraryDoes)
{
    std::ofstream(path("encode.py")) << "import sys\n"
                                        "sys.dont_write_bytecode = True\n"
                                        "from page_client import encode\n"
                                        "print(encode(0, 'connect', 1, 'fb.example').hex())\n"
                                        "print(encode(1, 'show').hex())\n"
                                        "print(encode(2, 'dirty', -1, 0, 2147483647, -2147483648).hex())\n"
                                        "print(encode(0xfffffffe, 'create', 0, 32, 1, 2, 3, 4, 5, 6, 7, '/n').hex())\n"
                                        "for n in range(6):\n"
                                        "    print(encode(3, 'w' * n, 'x' * n, n).hex())\n";
    std::string expected;
    const auto expect = [&](mc_packet *packet, uint32_t serial) {
        expected += hex(with_serial(packet, serial)) + "\n";
        mc_packet_free(packet);
    };
    mc_packet *packet = mc_packet_new_command("connect");
    mc_packet_build_args(packet, "is", 1, "fb.example");
    expect(packet, 0);
    expect(mc_packet_new_command("show"), 1);
    packet = mc_packet_new_command("dirty");
    mc_packet_build_args(packet, "iiii", -1, 0, INT32_MAX, INT32_MIN);
    expect(packet, 2);
    packet = mc_packet_new_command("create");
    mc_packet_build_args(packet, "iiiiiiiiis", 0, 32, 1, 2, 3, 4, 5, 6, 7, "/n");
    expect(packet, 0xfffffffe);
    for (int n = 0; n < 6; n++) {
        packet = mc_packet_new_command(std::string(static_cast<size_t>(n), 'w').c_str());
        mc_packet_build_args(packet, "si", std::string(static_cast<size_t>(n), 'x').c_str(), n);
        expect(packet, 3);
    }
    EXPECT_EQ(output_of("'" + python + "' '" + path("encode.py") + "'"), expected);
}

TEST_F(McPage, TheDumpIsARealPacket)
{
    // Each line of the dump: offset, two spaces, up to 16 bytes in hex, two spaces, what they are.
    std::string dumped;
    std::istringstream lines(block("dump"));
    for (std::string line; std::getline(lines, line);) {
        const size_t end = line.find("  ", 6);
        ASSERT_GE(line.size(), 6u);
        EXPECT_EQ(std::stoul(line.substr(0, 4), nullptr, 16) * 2, dumped.size()) << line;
        for (const char letter : line.substr(6, end - 6))
            if (letter != ' ')
                dumped += letter;
    }
    mc_packet *packet = mc_packet_new_command("create");
    mc_packet_build_args(packet, "iiiiiiiiis", 0, 32, 100, 50, 200, 120, 800, 3, 0, "/clock.1");
    EXPECT_EQ(dumped, hex(with_serial(packet, 1)));
    mc_packet_free(packet);
}

std::string created; // what the client's shared memory held when "create" came

mc_packet *play_display(mc_connection *connection, mc_packet *request)
{
    const std::string word = mc_packet_command(request);
    int32_t v[9];
    const char *name;
    note_request(connection, request);
    if (word == "create" && mc_packet_parse_args(request, "iiiiiiiiis", v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6,
                                                 v + 7, v + 8, &name) == 10) {
        const Fd memory(shm_open(name, O_RDWR, 0));
        struct stat status = {};
        fstat(memory.get(), &status);
        shm_unlink(name);
        EXPECT_EQ(v[1], 32);
        EXPECT_EQ(v[6], v[4] * 4);
        EXPECT_GE(status.st_size, static_cast<off_t>(v[6]) * v[5]);
        created = name;
    }
    if (word != "get_native_color_depth")
        return nullptr;
    mc_packet *reply = mc_packet_new(0);
    mc_packet_build_args(reply, "i", 16);
    return reply;
}

TEST_F(McPage, ThePythonClientTalksToARealService)
{
    EXPECT_LT(std::ranges::count(block("python"), '\n'), 60);
    created.clear();
    mc_factory *factory = mc_factory_open(
        "pfb",
        [](mc_factory *owner, mc_connection *connection, void *data) {
            note_connection(owner, connection, data);
            mc_set_handler(connection, "", play_display, nullptr);
        },
        nullptr, nullptr);
    ASSERT_NE(factory, nullptr);
    const int status =
        reap_in_loop(start({"sh", "-c", "exec \"$0\" -B \"$1\" 0 >\"$1.out\"", python, path("page_client.py")}));
    settle();
    EXPECT_EQ(status, 0);
    std::ifstream output(path("page_client.py.out"));
    std::string line;
    EXPECT_TRUE(std::getline(output, line));
    EXPECT_EQ(line, "bits per pixel on the screen: 16");
    ASSERT_FALSE(created.empty());
    EXPECT_EQ(shm_open(created.c_str(), O_RDWR, 0), -1); // nothing is left behind
    EXPECT_THAT(events, ElementsAre("connect fb.example", "fb.example: create iiiiiiiiis",
                                    "fb.example: get_native_color_depth ", "fb.example: show ",
                                    "fb.example: dirty iiii", "hup fb.example"));
    EXPECT_THAT(log_lines, IsEmpty());
    mc_factory_close(factory);
}

TEST_F(McPage, TellsOfEveryRequest)
{
    const std::string text = page();
    for (const char *word : {"lock_area", "unlock", "dirty", "show", "hide", "move", "resize", "set_layer",
                             "opaque_area", "color_plane", "create", "status", "set_clip", "set_surface", "set_scale",
                             "set_sync", "get_native_color_depth", "block_until_unlock", "set_color_format"})
        EXPECT_THAT(text, HasSubstr(std::string("\n### `") + word + "` "));
}

} // namespace
