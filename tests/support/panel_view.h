// SPDX-License-Identifier: MIT
// What a virtual panel shows, read from its memory. The mapping stays when the panel has gone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct PanelState;

// Colours as 0x00RRGGBB, rows from top to bottom without gaps. Channels of fewer than 8 bits stand in the upper bits
// of their byte, with zero below.
struct Picture {
    int width = 0;
    int height = 0;
    std::vector<uint32_t> pixels;

    uint32_t at(int x, int y) const { return pixels[static_cast<size_t>(y * width + x)]; }
    uint32_t &at(int x, int y) { return pixels[static_cast<size_t>(y * width + x)]; }
    bool operator==(const Picture &) const = default;
};

class PanelView {
public:
    PanelView() = default;
    ~PanelView();
    PanelView(const PanelView &) = delete;
    PanelView &operator=(const PanelView &) = delete;

    // Maps the panel in `folder`; false when it is not (wholly) there.
    bool open(const std::string &folder);
    bool is_open() const { return state_ != nullptr; }

    int width() const; // pixels
    int height() const;
    int depth() const; // 16, 18 or 32
    size_t stride() const;
    size_t memory_size() const; // bytes, the invisible ones included
    volatile uint8_t *memory() const { return memory_; }
    bool console_in_graphics_mode() const;
    pid_t program() const; // what runs on the panel; 0 before it does

    Picture picture() const;
    uint32_t raw(int x, int y) const; // the pixel's word as it lies in memory
    bool is_black() const;            // every byte of the memory is 0

private:
    const PanelState *state_ = nullptr;
    volatile uint8_t *memory_ = nullptr;
};
