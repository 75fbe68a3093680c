// SPDX-License-Identifier: MIT
#include "commands.h"

#include "../panelimage/message.h"
#include "../panelimage/options.h"
#include "../panelimage/picture.h"

namespace {

gboolean raw;
gboolean both;

const GOptionEntry ENTRIES[] = {
    SCREEN_OPTION_ENTRIES,
    {"both", 0, 0, G_OPTION_ARG_NONE, &both, "The second layer over the first, as people see them", nullptr},
    {"raw", 'r', 0, G_OPTION_ARG_NONE, &raw, "Write the visible rows' bytes, without padding", nullptr},
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "FILE",
    "Writes what a panel shows as a PNG picture. Without a choice it is the panel that this command runs on, else\n"
    "the only one that is running, else the machine's own framebuffer.",
    "Channels of 5 and 6 bits are widened by repeating their upper bits. The second layer's alpha is written as it\n"
    "stands in memory, and so are the colours that go with it. --both lays it over the first one while it is switched\n"
    "on, top left corners together: by its alpha where it has one.",
    false,
};

bool lay_second_over(const Screen &first, std::vector<uint8_t> *pixels)
{
    Screen second;
    if (!screen_open({"", first.title, "", true}, &second))
        return false;
    std::vector<uint8_t> rows;
    screen_copy(second, &rows);
    picture_lay_over(second, picture_decode(second, rows, true), first, pixels);
    screen_close(&second);
    return true;
}

bool write_both(const char *file, const Screen &first)
{
    if (first.panel == nullptr) {
        complain("--both is a panel's; %s is a device", first.title.c_str());
        return false;
    }
    std::vector<uint8_t> rows;
    screen_copy(first, &rows);
    std::vector<uint8_t> pixels = picture_decode(first, rows, false);
    if (screen_second_layer_is_on(*first.panel) && !lay_second_over(first, &pixels))
        return false;
    return picture_write_png(file, first, pixels, false);
}

bool write_picture(const char *file, const Screen &screen)
{
    if (both)
        return write_both(file, screen);
    std::vector<uint8_t> rows;
    screen_copy(screen, &rows);
    if (raw)
        return picture_write_raw(file, rows);
    const bool alpha = screen_options.layer2 && screen.var.transp.length > 0;
    return picture_write_png(file, screen, picture_decode(screen, rows, alpha), alpha);
}

} // namespace

int command_shot(int argc, char **argv)
{
    ScreenChoice choice;
    if (!options_parse(TEXT, ENTRIES, &argc, &argv) || !options_screen(&choice))
        return STATUS_USAGE;
    if (argc != 2) {
        complain("shot takes one file name (see --help)");
        return STATUS_USAGE;
    }
    if (both && (raw || choice.second_layer || !choice.device.empty())) {
        complain("--both is a picture of a panel's two layers: without --raw, --layer2 and --fb");
        return STATUS_USAGE;
    }
    Screen screen;
    if (!screen_open(choice, &screen))
        return STATUS_FAILED;
    const bool written = write_picture(argv[1], screen);
    screen_close(&screen);
    return written ? STATUS_DONE : STATUS_FAILED;
}
