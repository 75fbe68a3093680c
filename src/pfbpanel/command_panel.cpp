// SPDX-License-Identifier: MIT
#include "commands.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "child.h"
#include "../panelimage/fault.h"
#include "../panelimage/folder.h"
#include "format.h"
#include "../panelimage/message.h"
#include "../panelimage/options.h"

namespace {

struct PanelOptions {
    char *size;
    char *format;
    int stride;
    int virtual_height;
    int64_t memory;
    char *layer2;
    char *name;
    char *fault;
    gboolean version;
};

PanelOptions options;

const GOptionEntry ENTRIES[] = {
    {"size", 's', 0, G_OPTION_ARG_STRING, &options.size, "Visible pixels (800x480)", "WxH"},
    {"format", 'f', 0, G_OPTION_ARG_STRING, &options.format, "Pixel format (rgb565)", "FORMAT"},
    {"stride", 0, 0, G_OPTION_ARG_INT, &options.stride, "Bytes per row (width x bytes per pixel)", "BYTES"},
    {"virtual-height", 0, 0, G_OPTION_ARG_INT, &options.virtual_height, "Rows in memory (height)", "ROWS"},
    {"memory", 0, 0, G_OPTION_ARG_INT64, &options.memory, "Bytes (stride x rows, in whole pages)", "BYTES"},
    {"layer2", '2', 0, G_OPTION_ARG_STRING, &options.layer2, "A second layer, /dev/fb2", "WxH:FORMAT[:STRIDE]"},
    {"name", 'n', 0, G_OPTION_ARG_STRING, &options.name, "A name for the panel", "NAME"},
    {"fault", 0, 0, G_OPTION_ARG_STRING, &options.fault, "What does not work", "WORD[,WORD...]"},
    {"version", 'V', 0, G_OPTION_ARG_NONE, &options.version, "Print the version", nullptr},
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

std::string help_text()
{
    return "Commands for running panels (each with its own --help):\n"
           "  pfbpanel shot    writes what a panel shows as a picture\n"
           "  pfbpanel watch   counts how often a panel's picture changes\n"
           "  pfbpanel run     runs a further program on a panel\n"
           "  pfbpanel list    lists the panels\n\n"
           "Formats: " +
           format_names() + "\n\nFaults:\n" + fault_help() +
           "\nThe exit status is the program's, 128 + N when signal N ended it, 127 or 126 when it could not be\n"
           "started, 2 for a wrong option, 1 when the panel could not be made.";
}

bool parse_number(const std::string &text, uint32_t *number)
{
    guint64 value;
    if (!g_ascii_string_to_unsigned(text.c_str(), 10, 1, UINT32_MAX, &value, nullptr))
        return false;
    *number = static_cast<uint32_t>(value);
    return true;
}

// "WxH"
bool parse_size(const std::string &text, DeviceWish *wish)
{
    const size_t x = text.find('x');
    return x != std::string::npos && parse_number(text.substr(0, x), &wish->width) &&
           parse_number(text.substr(x + 1), &wish->height);
}

bool parse_format(const std::string &name, DeviceWish *wish)
{
    wish->format = format_find(name);
    if (wish->format == nullptr)
        complain("no format %s; there are %s", name.c_str(), format_names().c_str());
    return wish->format != nullptr;
}

bool parse_wish(const std::string &size, const std::string &format, DeviceWish *wish)
{
    if (!parse_size(size, wish)) {
        complain("%s is no size such as 800x480", size.c_str());
        return false;
    }
    return parse_format(format, wish);
}

bool describe(const char *option, const DeviceWish &wish, const char *id, PanelDevice *device)
{
    const std::string error = format_describe(wish, id, device);
    if (!error.empty())
        complain("%s: %s", option, error.c_str());
    return error.empty();
}

bool describe_first(PanelDevice *device)
{
    DeviceWish wish = {};
    if (!parse_wish(options.size != nullptr ? options.size : "800x480",
                    options.format != nullptr ? options.format : "rgb565", &wish))
        return false;
    if (options.stride < 0 || options.virtual_height < 0 || options.memory < 0 || options.memory > UINT32_MAX) {
        complain("--stride, --virtual-height and --memory take positive numbers");
        return false;
    }
    wish.stride = static_cast<uint32_t>(options.stride);
    wish.virtual_height = static_cast<uint32_t>(options.virtual_height);
    wish.memory = static_cast<uint32_t>(options.memory);
    return describe("panel", wish, "pfbpanel fb0", device);
}

// "WxH:FORMAT[:STRIDE]"
bool describe_second(const std::string &text, PanelDevice *device)
{
    const size_t format = text.find(':');
    const size_t stride = format == std::string::npos ? format : text.find(':', format + 1);
    if (format == std::string::npos) {
        complain("--layer2: %s is no layer such as 800x480:argb8888", text.c_str());
        return false;
    }
    DeviceWish wish = {};
    if (!parse_wish(text.substr(0, format), text.substr(format + 1, stride - format - 1), &wish))
        return false;
    if (stride != std::string::npos && !parse_number(text.substr(stride + 1), &wish.stride)) {
        complain("--layer2: %s is no stride", text.c_str() + stride + 1);
        return false;
    }
    return describe("--layer2", wish, "pfbpanel fb2", device);
}

bool parse_faults(PanelFaults *faults)
{
    *faults = {};
    const std::string unknown = options.fault != nullptr ? fault_parse(options.fault, faults) : "";
    if (!unknown.empty())
        complain("no fault %s (see --help)", unknown.c_str());
    return unknown.empty();
}

bool describe_panel(PanelState *state, PanelFaults *faults)
{
    *state = {};
    state->magic = PANEL_MAGIC;
    state->size = sizeof *state;
    for (uint32_t i = 0; i < PANEL_LAYER_BLOCK / 4; i++)
        state->layer[i] = PANEL_LAYER_PATTERN + 4 * i;
    if (options.name != nullptr && !folder_name_is_valid(options.name)) {
        complain("a panel's name has up to 64 letters, digits, - and _");
        return false;
    }
    if (!describe_first(&state->device[PANEL_FB0]) || !parse_faults(faults))
        return false;
    if (options.layer2 != nullptr && !describe_second(options.layer2, &state->device[PANEL_FB2]))
        return false;
    for (int device = 0; device < PANEL_DEVICES; device++)
        state->device[device].faults = faults->faults[device];
    return true;
}

int run_panel(char **program, const PanelState &state, const PanelFaults &faults)
{
    sigset_t signals;
    child_hold_signals(&signals);
    PanelFolder folder;
    if (!folder_make(options.name != nullptr ? options.name : "", state, faults, &folder))
        return STATUS_FAILED;
    const pid_t pid = child_start(program, folder, signals);
    const int status = pid > 0 ? child_wait(pid) : STATUS_FAILED;
    folder_remove(&folder);
    return status;
}

} // namespace

int command_panel(int argc, char **argv)
{
    const std::string help = help_text();
    const OptionText text = {
        "[--] PROGRAM [ARGUMENT...]",
        "Runs a framebuffer program, unmodified, on a panel that is a folder of files: the program finds /dev/fb0,\n"
        "/dev/tty0 and, with --layer2, /dev/fb2. Many panels can run side by side.",
        help.c_str(), true};
    if (!options_parse(text, ENTRIES, &argc, &argv))
        return STATUS_USAGE;
    if (options.version) {
        puts("pfbpanel " PFBPANEL_VERSION);
        return STATUS_DONE;
    }
    PanelState state;
    PanelFaults faults;
    if (!describe_panel(&state, &faults))
        return STATUS_USAGE;
    if (argc < 2) {
        complain("a panel needs a program (see --help)");
        return STATUS_USAGE;
    }
    return run_panel(argv + 1, state, faults);
}
