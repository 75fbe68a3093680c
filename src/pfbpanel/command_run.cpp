// SPDX-License-Identifier: MIT
#include "commands.h"

#include <cerrno>
#include <unistd.h>

#include "environment.h"
#include "../panelimage/message.h"
#include "../panelimage/options.h"

namespace {

const GOptionEntry ENTRIES[] = {
    {"name", 'n', 0, G_OPTION_ARG_STRING, &screen_options.name, "The panel of this name", "NAME"},
    {"panel", 0, 0, G_OPTION_ARG_FILENAME, &screen_options.panel, "The panel in this folder", "DIR"},
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "[--] PROGRAM [ARGUMENT...]",
    "Runs a further program on a panel that is already running; without a choice on the only one.",
    nullptr,
    true,
};

} // namespace

int command_run(int argc, char **argv)
{
    ScreenChoice choice;
    if (!options_parse(TEXT, ENTRIES, &argc, &argv) || !options_screen(&choice))
        return STATUS_USAGE;
    if (argc < 2) {
        complain("run takes a program (see --help)");
        return STATUS_USAGE;
    }
    const std::string panel = screen_panel(choice);
    if (panel.empty()) {
        complain("there is no panel to run %s on", argv[1]);
        return STATUS_FAILED;
    }
    if (!environment_enter(panel))
        return STATUS_FAILED;
    execvp(argv[1], argv + 1);
    const int status = errno == ENOENT ? STATUS_NOT_FOUND : STATUS_NOT_EXECUTABLE;
    complain_errno(argv[1]);
    return status;
}
