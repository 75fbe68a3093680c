// SPDX-License-Identifier: MIT
// What the tests of turned displays share: small panels of both outputs, wider than high.
#pragma once

#include "compositor_test.h"
#include "stderr_capture.h"

inline constexpr int32_t PANEL_W = 40, PANEL_H = 24;

// A server over outputs of that size, in whatever depth the test gives them before it opens the server.
class Turned : public CompositorTest {
protected:
    Turned()
    {
        primary_output.width = second_output.width = PANEL_W;
        primary_output.height = second_output.height = PANEL_H;
    }

    void settle_quietly()
    {
        const StdoutCapture quiet;
        const StderrCapture silent;
        settle();
        primary_output.calls.clear();
        second_output.calls.clear();
    }

    // Every pixel another word.
    static void paint_numbers(const ImageSurface *surface)
    {
        uint32_t word = 0x00A13579;
        for (int32_t y = 0; y < surface->img->height; y++) {
            for (int32_t x = 0; x < surface->img->width; x++)
                put(surface->img, x, y, surface->img->depth == 18 ? word & 0x3FFFF : word & 0xFFFFFF), word += 0x10867;
        }
    }
};
