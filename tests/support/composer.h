// SPDX-License-Identifier: MIT
// Pictures composed by pixman, to compare a panel with, and the comparison.
#pragma once

#include <cstdint>
#include <pixman.h>
#include <string>
#include <vector>

#include "panel_view.h"
#include "pixels.h"

struct ComposerRect {
    int x, y, width, height;
};

// A canvas of 8 bits per channel, black at first. Surfaces are drawn onto it from the bottom to the top.
class PictureComposer {
public:
    // `alpha`: the canvas is a layer of its own, nothing at first, and words() tells how much of each pixel there is.
    PictureComposer(int width, int height, bool alpha = false);
    ~PictureComposer();
    PictureComposer(const PictureComposer &) = delete;
    PictureComposer &operator=(const PictureComposer &) = delete;

    // What follows is cut to the rectangle.
    void set_clip(const ComposerRect &clip);
    void clear_clip();
    // The picture with its first pixel at (x, y): OVER where it has alpha, unless `ignore_alpha`; else SRC.
    void draw(const Pixels &pixels, int x, int y, bool ignore_alpha = false);
    // A filled colour plane, 0x00RRGGBB.
    void fill(const ComposerRect &area, uint32_t colour);
    // A dimming veil of strength 0 to 255: each channel times strength / 256, rounded down. This is the system's own
    // arithmetic, which no operator of pixman has.
    void veil(const ComposerRect &area, uint32_t strength);

    // What a panel of 16, 18 or 32 bits shows of it: the low bits of each channel are cut off.
    Picture picture(int depth) const;
    // The canvas as it lies in memory: 0xAARRGGBB, premultiplied; without alpha the top bytes mean nothing.
    const std::vector<uint32_t> &words() const { return words_; }

private:
    ComposerRect visible(const ComposerRect &area) const;

    int width_;
    int height_;
    std::vector<uint32_t> words_;
    pixman_image_t *canvas_;
    ComposerRect clip_;
};

// "" when they are equal. Otherwise where they differ, after writing TEST-actual.png, -expected.png and
// -difference.png (the differing pixels in white) into the build's folder for them.
std::string picture_difference(const Picture &actual, const Picture &expected);

// Waits until the panel shows the picture; see picture_difference.
std::string panel_shows(const PanelView &panel, const Picture &expected);
