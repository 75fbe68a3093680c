// SPDX-License-Identifier: MIT
// pfb-vnc: what a panel shows, in any VNC viewer.
#include <arpa/inet.h>
#include <clocale>
#include <cstdio>

#include "../panelimage/message.h"
#include "../panelimage/options.h"
#include "password.h"
#include "view.h"

namespace {

constexpr int RATE_MAX = 100, PORT_MAX = 65535;

char *address_text, *password_file;
int port = 5900, rate = 20;
gboolean version;

const GOptionEntry ENTRIES[] = {
    SCREEN_OPTION_ENTRIES,
    {"listen", 'l', 0, G_OPTION_ARG_STRING, &address_text, "Where viewers connect (127.0.0.1)", "ADDRESS"},
    {"port", 'p', 0, G_OPTION_ARG_INT, &port, "The port; 0: the first free one from 5900 on (5900)", "N"},
    {"password-file", 'P', 0, G_OPTION_ARG_FILENAME, &password_file, "Ask viewers for the file's first line", "FILE"},
    {"rate", 'r', 0, G_OPTION_ARG_INT, &rate, "Looks at the panel per second while somebody views it (20)", "N"},
    {"version", 'V', 0, G_OPTION_ARG_NONE, &version, "Print the version", nullptr},
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "",
    "Mirrors a panel to VNC viewers. Without a choice it is the virtual panel that this command runs on, else the "
    "only\n"
    "one that is running, else the machine's own framebuffer. Viewers see; what they type and click goes nowhere.",
    "Other machines reach it only where --listen names one of this machine's addresses, or 0.0.0.0 for all of them;\n"
    "then a password is required. What is sent is not encrypted.",
    false,
};

bool is_loopback(in_addr_t address)
{
    return ntohl(address) >> 24 == 127;
}

bool parse_address(in_addr_t *address)
{
    in_addr parsed = {};
    const char *text = address_text != nullptr ? address_text : "127.0.0.1";
    if (inet_pton(AF_INET, text, &parsed) != 1) {
        complain("--listen: %s is no IPv4 address such as 192.168.1.20", text);
        return false;
    }
    *address = parsed.s_addr;
    if (is_loopback(parsed.s_addr) || password_file != nullptr)
        return true;
    complain("other machines can reach %s: a --password-file is required", text);
    return false;
}

bool check_numbers(int argc)
{
    if (argc == 1 && port >= 0 && port <= PORT_MAX && rate >= 1 && rate <= RATE_MAX)
        return true;
    complain("it takes a --port up to %d, a --rate of 1 to %d, and no words (see --help)", PORT_MAX, RATE_MAX);
    return false;
}

int run(const ScreenChoice &choice, const ViewPlan &plan)
{
    Screen screen;
    if (!screen_open(choice, &screen))
        return STATUS_FAILED;
    const int status = view_run(&screen, plan);
    screen_close(&screen);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    setlocale(LC_ALL, "");
    g_set_prgname("pfb-vnc");
    ScreenChoice choice;
    if (!options_parse(TEXT, ENTRIES, &argc, &argv) || !options_screen(&choice))
        return STATUS_USAGE;
    if (version) {
        printf("pfb-vnc %s\n", PFB_VNC_VERSION);
        return STATUS_DONE;
    }
    ViewPlan plan = {0, port, "", rate};
    if (!check_numbers(argc) || !parse_address(&plan.address))
        return STATUS_USAGE;
    if (password_file != nullptr && !password_read(password_file, &plan.password))
        return STATUS_FAILED;
    return run(choice, plan);
}
