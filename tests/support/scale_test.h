// SPDX-License-Identifier: MIT
// What the tests of scaled surfaces share: a shown, clean surface of 100 x 50 pixels at (10, 20).
#pragma once

#include "compositor_test.h"
#include "stderr_capture.h"

class Scale : public CompositorTest {
protected:
    Scale()
    {
        open_server();
        surface = add_shown("fb.a", {10, 20, 100, 50}, XRGB32);
        settle();
        primary_output.calls.clear();
    }

    void scale(Place from, Place to) { scale(surface, from, to); }
    void scale(ImageSurface *which, Place from, Place to)
    {
        fs_set_scale(server, which, from.x, from.y, from.w, from.h, to.x, to.y, to.w, to.h);
    }

    static void paint_numbers(const xc_image *image)
    {
        uint32_t word = 1;
        for (int32_t y = 0; y < image->height; y++) {
            for (int32_t x = 0; x < image->width; x++, word += 7)
                put(image, x, y, word);
        }
    }

    ImageSurface *surface;
};
