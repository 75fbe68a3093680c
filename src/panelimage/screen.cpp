// SPDX-License-Identifier: MIT
#include "screen.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "folder.h"
#include "message.h"

namespace {

bool is_chosen(const ScreenChoice &choice)
{
    return !choice.name.empty() || !choice.folder.empty();
}

std::string chosen_panel(const ScreenChoice &choice)
{
    const std::string path = choice.name.empty() ? choice.folder : folder_find(choice.name);
    if (!path.empty() && folder_is_running(path))
        return path;
    complain("no panel %s is running", choice.name.empty() ? choice.folder.c_str() : choice.name.c_str());
    return "";
}

bool map_memory(Screen *screen, int fd)
{
    void *memory = mmap(nullptr, screen->size, PROT_READ, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        complain_errno(screen->title.c_str());
        return false;
    }
    screen->memory = static_cast<const uint8_t *>(memory);
    return true;
}

bool open_panel(const std::string &path, Screen *screen)
{
    screen->title = path;
    screen->panel = folder_read(path);
    if (screen->panel == nullptr)
        return false;
    const PanelDevice &device = screen->panel->device[screen->layer];
    const std::string file = folder_device(path, screen->layer);
    if (device.memory == 0 || file.empty()) {
        complain("%s has no %s", path.c_str(), panel_nodes[screen->layer][0]);
        return false;
    }
    screen->stride = device.stride;
    screen->size = device.memory;
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const bool mapped = map_memory(screen, fd);
    close(fd);
    return mapped;
}

bool open_device(const std::string &node, Screen *screen)
{
    screen->title = node;
    screen->fd = open(node.c_str(), O_RDONLY | O_CLOEXEC);
    fb_fix_screeninfo fix;
    if (screen->fd < 0 || ioctl(screen->fd, FBIOGET_FSCREENINFO, &fix) != 0) {
        complain_errno(node.c_str());
        return false;
    }
    screen->stride = fix.line_length;
    screen->size = fix.smem_len;
    return map_memory(screen, screen->fd);
}

bool open_chosen(const ScreenChoice &choice, Screen *screen)
{
    if (!choice.device.empty())
        return open_device(choice.device, screen);
    const std::string panel = screen_panel(choice);
    if (!panel.empty())
        return open_panel(panel, screen);
    if (is_chosen(choice) || folder_list().size() > 1)
        return false;
    return open_device(panel_nodes[screen->layer][0], screen);
}

bool is_sensible(const Screen &screen)
{
    const fb_var_screeninfo &var = screen.var;
    return var.xres > 0 && var.yres > 0 && var.xres <= 65535 && var.yres <= 65535 && var.bits_per_pixel >= 8 &&
           var.bits_per_pixel <= 32;
}

} // namespace

std::string screen_panel(const ScreenChoice &choice)
{
    if (is_chosen(choice))
        return chosen_panel(choice);
    const char *own = getenv("PFBPANEL_DIR");
    if (own != nullptr)
        return own;
    const std::vector<std::string> running = folder_list();
    if (running.size() > 1)
        complain("%zu panels are running: say which one with --name or --panel", running.size());
    return running.size() == 1 ? running[0] : "";
}

bool screen_open(const ScreenChoice &choice, Screen *screen)
{
    *screen = {};
    screen->fd = -1;
    screen->layer = choice.second_layer ? PANEL_FB2 : PANEL_FB0;
    if (open_chosen(choice, screen) && screen_refresh(screen))
        return true;
    screen_close(screen);
    return false;
}

void screen_close(Screen *screen)
{
    if (screen->memory != nullptr)
        munmap(const_cast<uint8_t *>(screen->memory), screen->size);
    if (screen->panel != nullptr)
        munmap(const_cast<PanelState *>(screen->panel), sizeof *screen->panel);
    if (screen->fd >= 0)
        close(screen->fd);
    *screen = {};
    screen->fd = -1;
}

bool screen_refresh(Screen *screen)
{
    if (screen->panel != nullptr) {
        screen->var = screen->panel->device[screen->layer].var;
    } else if (ioctl(screen->fd, FBIOGET_VSCREENINFO, &screen->var) != 0) {
        complain_errno(screen->title.c_str());
        return false;
    }
    if (is_sensible(*screen))
        return true;
    complain("%s reports %u x %u pixels of %u bits", screen->title.c_str(), screen->var.xres, screen->var.yres,
             screen->var.bits_per_pixel);
    return false;
}

bool screen_second_layer_is_on(const PanelState &panel)
{
    return panel.layer[0] == PANEL_LAYER_APPLY && panel.layer[PANEL_LAYER_ENABLE / 4] != 0;
}

uint32_t screen_pixel_bytes(const Screen &screen)
{
    const uint32_t packed = (screen.var.bits_per_pixel + 7) / 8;
    // 18 bits stand in whole words where the row has room for them.
    const bool in_words = screen.var.bits_per_pixel == 18 && screen.stride / 4 >= screen.var.xres;
    return in_words ? 4 : packed;
}

size_t screen_row_bytes(const Screen &screen)
{
    return size_t{screen.var.xres} * screen_pixel_bytes(screen);
}

void screen_copy(const Screen &screen, std::vector<uint8_t> *rows)
{
    const size_t row_bytes = screen_row_bytes(screen);
    rows->assign(row_bytes * screen.var.yres, 0);
    for (uint32_t y = 0; y < screen.var.yres; y++) {
        const size_t begin =
            (size_t{screen.var.yoffset} + y) * screen.stride + size_t{screen.var.xoffset} * screen_pixel_bytes(screen);
        if (begin >= screen.size)
            break;
        memcpy(rows->data() + row_bytes * y, screen.memory + begin, std::min(row_bytes, screen.size - begin));
    }
}
