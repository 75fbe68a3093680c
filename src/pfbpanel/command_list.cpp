// SPDX-License-Identifier: MIT
#include "commands.h"

#include <cstdio>
#include <sys/mman.h>

#include "../panelimage/folder.h"
#include "../panelimage/message.h"
#include "../panelimage/options.h"

namespace {

const GOptionEntry ENTRIES[] = {
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "",
    "Lists your running panels: name (- without one), size, format, the program's process id, folder; a second layer\n"
    "as +SIZE:FORMAT behind the first one's format.",
    nullptr,
    false,
};

void print_panel(const std::string &path, const PanelState &state)
{
    const PanelDevice &first = state.device[PANEL_FB0], &second = state.device[PANEL_FB2];
    printf("%s %ux%u %s", folder_name(path).c_str(), first.var.xres, first.var.yres, first.format);
    if (second.memory != 0)
        printf("+%ux%u:%s", second.var.xres, second.var.yres, second.format);
    printf(" %d %s\n", state.program, path.c_str());
}

} // namespace

int command_list(int argc, char **argv)
{
    if (!options_parse(TEXT, ENTRIES, &argc, &argv))
        return STATUS_USAGE;
    if (argc > 1) {
        complain("list takes no words (see --help)");
        return STATUS_USAGE;
    }
    int status = STATUS_DONE;
    for (const std::string &path : folder_list()) {
        const PanelState *state = folder_read(path);
        if (state == nullptr) {
            status = STATUS_FAILED;
            continue;
        }
        print_panel(path, *state);
        munmap(const_cast<PanelState *>(state), sizeof *state);
    }
    return status;
}
