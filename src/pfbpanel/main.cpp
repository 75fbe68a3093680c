// SPDX-License-Identifier: MIT
// pfbpanel: a framebuffer panel without hardware, without root, as many at a time as one likes.
#include "commands.h"

#include <cstring>

namespace {

struct Command {
    const char *word;
    int (*run)(int argc, char **argv);
};

constexpr Command COMMANDS[] = {
    {"run", command_run},
    {"list", command_list},
    {"shot", command_shot},
    {"watch", command_watch},
};

} // namespace

int main(int argc, char **argv)
{
    g_set_prgname("pfbpanel");
    for (const Command &command : COMMANDS) {
        if (argc > 1 && strcmp(argv[1], command.word) == 0)
            return command.run(argc - 1, argv + 1);
    }
    return command_panel(argc, argv);
}
