// SPDX-License-Identifier: MIT
// Whatever is asked for in whatever order, the screen shows what a composer that knows no damage, no regions and no
// work images would show. The lowest surface is opaque and fills the screen, so that nothing old stays visible.
#include <gtest/gtest.h>

#include "../support/compositor_test.h"
#include "../support/random_cases.h"
#include "../support/reference_picture.h"
#include "../support/stderr_capture.h"

namespace {

using random_cases::Random;

constexpr int32_t W = 48, H = 36;

class Pictures : public CompositorTest {
protected:
    static int32_t between(Random &random, int32_t low, int32_t high)
    {
        return random_cases::between(random, low, high);
    }

    // Colours never exceed alpha, as premultiplied pixels have it.
    static uint32_t random_word(const xc_image *image, Random &random)
    {
        auto word = static_cast<uint32_t>(random());
        if (image->depth == 18)
            return word & 0x3FFFF;
        if (image->format != ARGB32)
            return word | 0xFF000000; // on the second layer a lone surface's top byte counts
        const uint32_t alpha = word >> 24;
        for (const int shift : {0, 8, 16}) {
            const uint32_t channel = (word >> shift & 255) * alpha / 255;
            word = (word & ~(255u << shift)) | channel << shift;
        }
        return word;
    }

    static void paint_random(const ImageSurface *surface, const Rect &rect, Random &random)
    {
        for (int32_t y = std::max(rect.y1, 0); y < std::min(rect.y2, surface->img->height); y++) {
            for (int32_t x = std::max(rect.x1, 0); x < std::min(rect.x2, surface->img->width); x++)
                put(surface->img, x, y, random_word(surface->img, random));
        }
    }

    ImageSurface *add_random(const char *output, Random &random)
    {
        constexpr int32_t FORMATS[] = {ARGB32, XRGB32, RGB16, RGB18};
        const Place place = {between(random, -10, W), between(random, -10, H), between(random, 1, W),
                             between(random, 1, H)};
        ImageSurface *surface = add(output, place, FORMATS[between(random, 0, 3)], between(random, 1, 3));
        paint_random(surface, {0, 0, place.w, place.h}, random);
        if (all_shown)
            fs_show_surface(server, surface);
        return surface;
    }

    void ask(ImageSurface *surface, Random &random)
    {
        const auto number = [&](int32_t low, int32_t high) { return between(random, low, high); };
        const Rect rect = {number(-5, W), number(-5, H), number(1, W), number(1, H)};
        switch (number(all_shown ? 2 : 0, 7)) {
        case 0:
            return fs_show_surface(server, surface);
        case 1:
            return fs_hide_surface(server, surface);
        case 2:
            return fs_move_surface(server, surface, number(-15, W), number(-15, H));
        case 3:
            return fs_resize_surface(server, surface, rect.x2, rect.y2);
        case 4:
            return fs_set_level_surface(server, surface, number(1, 3));
        case 5:
            return fs_set_clip(server, surface, rect.x1, rect.y1, rect.x2, rect.y2);
        default:
            paint_random(surface, {rect.x1, rect.y1, rect.x1 + rect.x2, rect.y1 + rect.y2}, random);
            return fs_add_dirty(server, surface, rect.x1, rect.y1, rect.x2, rect.y2);
        }
    }

    void play(MemoryOutput &output, const char *name, Random &random)
    {
        memory_outputs_reset();
        output.width = W;
        output.height = H;
        constexpr uint32_t DEPTHS[] = {16, 18, 32};
        output.depth = DEPTHS[between(random, 0, 2)];
        output.stride = between(random, 0, 1) == 0 ? 0 : output.row_bytes() + 8;
        const StdoutCapture quiet;
        const StderrCapture silent;
        open_server(W, H);
        ImageSurface *background = add(name, {0, 0, W, H}, XRGB32, 0);
        fs_show_surface(server, background);
        paint_random(background, {0, 0, W, H}, random);
        settle();
        for (int step = 0; step < 40; step++) {
            const int32_t n = server->n_surface;
            if (n < 2 || (n < 6 && between(random, 0, 5) == 0))
                add_random(name, random);
            else if (between(random, 0, 15) == 0)
                fs_remove_surface(server, server->surfaces[between(random, 1, n - 1)]);
            else
                ask(server->surfaces[between(random, 1, n - 1)], random);
            if (between(random, 0, 2) != 0)
                continue;
            settle();
            const std::string difference = picture_difference(server, background->backend, output);
            ASSERT_EQ(difference, "") << "after step " << step << " on " << output.depth << " bits";
        }
        close_server();
        memories.clear();
    }

    bool all_shown = false;
};

TEST_F(Pictures, OnThePrimaryOutput)
{
    random_cases::run(250, [this](Random &random) { play(primary_output, "fb", random); });
}

// On an output with alpha hidden surfaces are drawn too, wherever something else is damaged: here all are shown.
TEST_F(Pictures, OnTheSecondLayer)
{
    all_shown = true;
    random_cases::run(250, [this](Random &random) { play(second_output, "fb2", random); });
}

} // namespace
