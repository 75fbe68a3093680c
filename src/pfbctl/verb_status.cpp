// SPDX-License-Identifier: MIT
#include "verbs.h"

#include <climits>
#include <cstdio>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "../panelimage/message.h"
#include "../panelimage/options.h"
#include "connect.h"

namespace {

const GOptionEntry ENTRIES[] = {
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "",
    "Makes the server print its surfaces, from the lowest to the topmost, to its standard output, and says where that\n"
    "goes. A server without any surface prints that there is none yet.",
    nullptr,
    false,
};

// The process that listens; 0 when the system does not tell.
pid_t server_process(const pfb_client *client)
{
    ucred server = {};
    socklen_t size = sizeof server;
    return getsockopt(pfb_fd(client), SOL_SOCKET, SO_PEERCRED, &server, &size) == 0 ? server.pid : 0;
}

// Empty when this user may not see it.
std::string output_of(pid_t process)
{
    char target[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(process) + "/fd/1";
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
}

void say_where(pid_t process)
{
    const std::string output = output_of(process);
    printf("fbserver (process %d) prints its surfaces ", static_cast<int>(process));
    if (output.empty())
        printf("to its standard output, which this user may not see; try /var/log/fbserver.log, or\n"
               "journalctl _PID=%d\n",
               static_cast<int>(process));
    else if (output == "/dev/null")
        printf("to /dev/null: nobody can read them\n");
    else if (output[0] == '/')
        printf("to %s\n", output.c_str());
    else if (output.rfind("socket:", 0) == 0)
        printf("to the system's journal: journalctl _PID=%d\n", static_cast<int>(process));
    else
        printf("into a pipe, to the program that has started it\n");
}

} // namespace

int verb_status(int argc, char **argv)
{
    if (!options_parse(TEXT, ENTRIES, &argc, &argv))
        return STATUS_USAGE;
    if (argc > 1) {
        complain("status takes no words (see --help)");
        return STATUS_USAGE;
    }
    pfb_client *client = connect_server("pfbctl");
    if (client == nullptr)
        return connect_status();
    const int status = pfb_status(client) == PFB_OK ? STATUS_DONE : connect_complain();
    if (status == STATUS_DONE)
        say_where(server_process(client));
    pfb_disconnect(client);
    return status;
}
