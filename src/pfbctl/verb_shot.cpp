// SPDX-License-Identifier: MIT
#include "verbs.h"

#include "../panelimage/message.h"
#include "../panelimage/options.h"
#include "../panelimage/picture.h"
#include "values.h"

namespace {

int rotation;

const GOptionEntry ENTRIES[] = {
    SCREEN_OPTION_ENTRIES,
    {"rotation", 'r', 0, G_OPTION_ARG_INT, &rotation, "How the display is turned (0)", "0|90|270"},
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

const OptionText TEXT = {
    "FILE",
    "Writes what the panel shows as a PNG picture. Without a choice it is the virtual panel that this command runs "
    "on,\n"
    "else the only one that is running, else the machine's own framebuffer.",
    "A display that is turned shows its picture turned in memory; --rotation turns it upright. Channels of 5 and 6 "
    "bits\n"
    "are widened by repeating their upper bits. The second layer is written with its alpha, as it stands in memory.",
    false,
};

bool write_picture(const char *file, const Screen &screen)
{
    std::vector<uint8_t> rows;
    screen_copy(screen, &rows);
    const bool alpha = screen.layer == PANEL_FB2 && screen.var.transp.length > 0;
    PictureSize size = {screen.var.xres, screen.var.yres};
    std::vector<uint8_t> pixels = picture_decode(screen, rows, alpha);
    if (rotation != 0)
        pixels = picture_upright(pixels, &size, alpha, rotation);
    return picture_write_png_size(file, size, pixels, alpha);
}

} // namespace

int verb_shot(int argc, char **argv)
{
    ScreenChoice choice;
    if (!options_parse(TEXT, ENTRIES, &argc, &argv) || !options_screen(&choice) || !value_rotation(rotation))
        return STATUS_USAGE;
    if (argc != 2) {
        complain("shot takes one file name (see --help)");
        return STATUS_USAGE;
    }
    Screen screen;
    if (!screen_open(choice, &screen))
        return STATUS_FAILED;
    const bool written = write_picture(argv[1], screen);
    screen_close(&screen);
    return written ? STATUS_DONE : STATUS_FAILED;
}
