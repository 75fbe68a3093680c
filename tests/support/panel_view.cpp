// SPDX-License-Identifier: MIT
#include "panel_view.h"

#include <fcntl.h>
#include <linux/kd.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../../src/panelimage/panel_state.h"

namespace {

void *map_file(const std::string &path, size_t size, int protection)
{
    const int fd = open(path.c_str(), protection == PROT_READ ? O_RDONLY : O_RDWR);
    if (fd < 0)
        return nullptr;
    void *memory = lseek(fd, 0, SEEK_END) >= static_cast<off_t>(size)
                       ? mmap(nullptr, size, protection, MAP_SHARED, fd, 0)
                       : MAP_FAILED;
    close(fd);
    return memory != MAP_FAILED ? memory : nullptr;
}

uint32_t colour(uint32_t word, int depth)
{
    if (depth == 16)
        return (word & 0xF800) << 8 | (word & 0x07E0) << 5 | (word & 0x001F) << 3;
    if (depth == 18)
        return (word & 0x3F000) << 6 | (word & 0x00FC0) << 4 | (word & 0x0003F) << 2;
    return word & 0x00FFFFFF;
}

} // namespace

PanelView::~PanelView()
{
    if (memory_ != nullptr)
        munmap(const_cast<uint8_t *>(memory_), memory_size());
    if (state_ != nullptr)
        munmap(const_cast<PanelState *>(state_), sizeof *state_);
}

bool PanelView::open(const std::string &folder)
{
    state_ = static_cast<const PanelState *>(map_file(folder + PANEL_STATE, sizeof *state_, PROT_READ));
    if (state_ == nullptr || state_->magic != PANEL_MAGIC)
        return false;
    for (const char *node : panel_nodes[PANEL_FB0]) {
        void *memory = map_file(folder + node, memory_size(), PROT_READ | PROT_WRITE);
        if (memory != nullptr)
            memory_ = static_cast<volatile uint8_t *>(memory);
    }
    return true; // a panel may have no framebuffer at all: picture() is then empty
}

int PanelView::width() const
{
    return static_cast<int>(state_->device[PANEL_FB0].var.xres);
}

int PanelView::height() const
{
    return static_cast<int>(state_->device[PANEL_FB0].var.yres);
}

int PanelView::depth() const
{
    return static_cast<int>(state_->device[PANEL_FB0].var.bits_per_pixel);
}

size_t PanelView::stride() const
{
    return state_->device[PANEL_FB0].stride;
}

size_t PanelView::memory_size() const
{
    return state_->device[PANEL_FB0].memory;
}

bool PanelView::console_in_graphics_mode() const
{
    return state_->console == KD_GRAPHICS;
}

pid_t PanelView::program() const
{
    return static_cast<const volatile PanelState *>(state_)->program;
}

uint32_t PanelView::raw(int x, int y) const
{
    const volatile uint8_t *row = memory_ + static_cast<size_t>(y) * stride();
    if (depth() == 16)
        return reinterpret_cast<const volatile uint16_t *>(row)[x];
    return reinterpret_cast<const volatile uint32_t *>(row)[x];
}

Picture PanelView::picture() const
{
    Picture picture{width(), height(), {}};
    if (memory_ == nullptr)
        return picture;
    picture.pixels.reserve(static_cast<size_t>(picture.width * picture.height));
    for (int y = 0; y < picture.height; y++) {
        for (int x = 0; x < picture.width; x++)
            picture.pixels.push_back(colour(raw(x, y), depth()));
    }
    return picture;
}

bool PanelView::is_black() const
{
    for (size_t i = 0; i < memory_size(); i++) {
        if (memory_[i] != 0)
            return false;
    }
    return true;
}
