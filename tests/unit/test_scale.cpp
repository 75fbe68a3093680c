// SPDX-License-Identifier: MIT
// Scaled surfaces: the mapping that is set up, and the scaled image that passes fill from the client's.
#include <algorithm>
#include <climits>

#include <gmock/gmock.h>

#include "../support/kernel_sets.h"
#include "../support/random_cases.h"
#include "../support/scale_test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// ---- setting up ----

TEST_F(Scale, TheMappingIsKeptInFixedPoint)
{
    scale({0, 0, 100, 50}, {30, 40, 200, 100});
    const ScaleState *state = surface->scale_state;
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->src_rect, (Rect{0, 0, 100, 50}));
    EXPECT_EQ(state->dst_rect, (Rect{30, 40, 230, 140}));
    EXPECT_EQ(state->x_scale, 131072);
    EXPECT_EQ(state->x_step, 32768);
    EXPECT_EQ(state->x_offset, 0);
    EXPECT_EQ(state->y_scale, 131072);
    EXPECT_EQ(state->y_step, 32768);
    EXPECT_EQ(state->y_offset, 0);
    EXPECT_EQ(state->src_x_origin, 0);
    EXPECT_EQ(state->src_y_origin, 0);
}

TEST_F(Scale, TheOffsetsFollowFromTheSourcesPlace)
{
    ImageSurface *wide = add("fb.b", {0, 0, 200, 100}, XRGB32);
    scale(wide, {10, 20, 100, 70}, {0, 0, 50, 33});
    const ScaleState *state = wide->scale_state;
    EXPECT_EQ(state->x_offset, -327680);
    EXPECT_EQ(state->y_offset, -617910); // -(33 x 20) / 70 x 65536, cut
    EXPECT_EQ(state->x_scale, 50 * 65536 / 100);
    EXPECT_EQ(state->y_scale, 33 * 65536 / 70);
    EXPECT_EQ(state->src_x_origin, 10 * 65536);
    EXPECT_EQ(state->src_y_origin, 20 * 65536);
    EXPECT_EQ(state->x_step, 2 * 65536);
    EXPECT_EQ(state->y_step, 70 * 65536 / 33);
}

TEST_F(Scale, TheSurfaceGetsAnImageOfTheDestinationsSize)
{
    xc_image *client = surface->img;
    scale({0, 0, 50, 25}, {30, 40, 200, 100});
    EXPECT_EQ(surface->scale_state->orig_img, client);
    EXPECT_EQ(surface->img->width, 200);
    EXPECT_EQ(surface->img->height, 100);
    EXPECT_EQ(surface->img->stride, 800);
    EXPECT_EQ(surface->img->format, client->format);
    EXPECT_EQ(surface->area, (Rect{30, 40, 230, 140}));
    EXPECT_EQ(surface->drawing_area, (Rect{30, 40, 230, 140}));
    EXPECT_THAT(rects_of(surface->opaque_area), ElementsAre(Rect{0, 0, 200, 100}));
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{0, 0, 50, 25}));
}

TEST_F(Scale, TheOldPlaceIsDamagedAndTheNewOneIsPaintedByThePass)
{
    const uint32_t flags = surface->flags;
    scale({0, 0, 100, 50}, {150, 100, 50, 25});
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{10, 20, 110, 70}));
    EXPECT_EQ(surface->flags, flags);
    EXPECT_TRUE(render_is_pending());
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{150, 100, 200, 125}}));
}

TEST_F(Scale, AnImageWithAlphaKeepsItsOpaqueArea)
{
    ImageSurface *blended = add("fb.b", {0, 0, 20, 20}, ARGB32);
    fs_set_opaque_surface(server, blended, 1, 2, 3, 4);
    scale(blended, {0, 0, 20, 20}, {0, 0, 40, 40});
    EXPECT_THAT(rects_of(blended->opaque_area), ElementsAre(Rect{1, 2, 4, 6}));
    EXPECT_TRUE(image_has_alpha(blended->img));
}

TEST_F(Scale, PartlyAndWhollyOffScreenTheDrawingAreaIsCropped)
{
    scale({0, 0, 100, 50}, {-50, 200, 200, 100});
    EXPECT_EQ(surface->drawing_area, (Rect{0, 200, 150, 240}));
    scale({0, 0, 100, 50}, {320, 0, 200, 100});
    EXPECT_EQ(surface->drawing_area, (Rect{0, 0, 0, 0}));
}

TEST_F(Scale, TheDestinationIsCutToTheClip)
{
    fs_set_clip(server, surface, 0, 0, 60, 60);
    scale({0, 0, 100, 50}, {30, 40, 200, 100});
    EXPECT_EQ(surface->drawing_area, (Rect{30, 40, 60, 60}));
}

TEST_F(Scale, ASecondScaleReplacesTheScaledImageAndKeepsTheClients)
{
    xc_image *client = surface->img;
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    xc_image *first = xc_image_ref(surface->img);
    scale({0, 0, 50, 50}, {0, 0, 60, 60});
    EXPECT_EQ(first->refs, 1);
    EXPECT_EQ(surface->scale_state->orig_img, client);
    EXPECT_EQ(surface->img->width, 60);
    xc_image_unref(first);
}

// Reports that lie apart wait outside the dirty region.
TEST_F(Scale, ReportsThatWaitInABatchAreForgottenToo)
{
    for (int32_t y = 0; y < 50; y += 2) {
        for (int32_t x = 0; x < 100; x += 2)
            fs_add_dirty(server, surface, x, y, 1, 1);
    }
    fs_add_dirty(server, surface, 99, 49, 1, 1);
    ASSERT_GT(surface->reports.n, 0);
    scale({0, 0, 10, 10}, {30, 40, 200, 100});
    EXPECT_EQ(surface->reports.n, 0);
    fs_fold_reports(server, surface);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{0, 0, 10, 10}));
}

// ---- refusing ----

TEST_F(Scale, ASourceWiderThanTheImageIsRefusedAfterTheDamage)
{
    const std::string text = printed([&] { scale({60, 0, 41, 50}, {0, 0, 200, 100}); });
    EXPECT_EQ(text, "******WARNING: fs_set_scale: surface width is invalid(surface offset x = 60 height = 41 surface "
                    "dimension = 100\n");
    EXPECT_EQ(surface->scale_state, nullptr);
    EXPECT_EQ(surface->area, (Rect{10, 20, 110, 70}));
    EXPECT_THAT(damage_of(surface), ElementsAre(Rect{10, 20, 110, 70}));
    EXPECT_TRUE(render_is_pending());
}

TEST_F(Scale, TheWidthIsTestedAgainstTheImageThatIsShown)
{
    scale({0, 0, 100, 50}, {0, 0, 40, 20});
    const std::string text = printed([&] { scale({0, 0, 100, 50}, {0, 0, 200, 100}); });
    EXPECT_THAT(text, testing::HasSubstr("surface dimension = 40\n"));
    EXPECT_EQ(surface->img->width, 40);
}

TEST_F(Scale, TheHeightIsNotTested)
{
    EXPECT_EQ(printed([&] { scale({0, 0, 100, 500}, {0, 0, 50, 50}); }), "");
    EXPECT_NE(surface->scale_state, nullptr);
    settle();
}

TEST_F(Scale, SizesBelowOneAndBeyondMemoryAreRefusedWithOneLine)
{
    for (const auto &[from, to] : {std::pair<Place, Place>{{0, 0, 0, 50}, {0, 0, 50, 50}},
                                   {{0, 0, 50, 0}, {0, 0, 60, 60}},
                                   {{0, 0, 50, 50}, {0, 0, 0, 60}},
                                   {{0, 0, 50, 50}, {0, 0, 60, 0}},
                                   {{0, 0, -50, 50}, {0, 0, 60, 60}},
                                   {{0, 0, 50, INT_MIN}, {0, 0, 60, 60}},
                                   {{0, 0, 50, 50}, {0, 0, -1, 60}},
                                   {{0, 0, 50, 50}, {0, 0, 60, -1}},
                                   {{0, 0, 50, 50}, {0, 0, INT_MAX, INT_MAX}},
                                   {{0, 0, 50, 50}, {0, 0, 65536, 65536}},
                                   {{0, 0, 50, 50}, {0, 0, (1 << 30) + 1, 1}}, // rows of 4 bytes in 32 bits
                                   // Wider than the image as well: the size is told, not the width.
                                   {{0, 0, 500, 0}, {0, 0, 60, 60}}}) {
        forget_damage();
        const std::string text = printed([&, from = from, to = to] { scale(from, to); });
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
        EXPECT_THAT(text, testing::Not(StartsWith("******WARNING")));
        EXPECT_EQ(surface->scale_state, nullptr);
        EXPECT_EQ(surface->img->width, 100);
        EXPECT_EQ(surface->area, (Rect{10, 20, 110, 70}));
        EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
        EXPECT_THAT(damage_of(surface), ElementsAre(Rect{10, 20, 110, 70}));
        EXPECT_TRUE(render_is_pending());
    }
}

TEST_F(Scale, ARefusedSecondScaleLeavesTheFirst)
{
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    settle();
    const xc_image *scaled = surface->img;
    scale({0, 0, 50, 50}, {0, 0, 0, 60});
    EXPECT_EQ(surface->img, scaled);
    EXPECT_EQ(surface->area, (Rect{0, 0, 200, 100}));
    EXPECT_THAT(rects_of(surface->dirty_region), IsEmpty());
}

// ---- the scaled image ----

// One rectangle of the client's image refreshed the plain way, in whole numbers wide enough not to wrap.
Rect refresh_slowly(const ImageSurface *surface, const Rect &dirty, std::vector<uint32_t> &image)
{
    const ScaleState *s = surface->scale_state;
    const int64_t w = surface->area.x2 - surface->area.x1, h = surface->area.y2 - surface->area.y1;
    const auto low = [](int64_t at, int64_t scale, int64_t offset) {
        return std::max<int64_t>(0, (at * scale + offset) >> 16);
    };
    const auto high = [](int64_t at, int64_t scale, int64_t offset, int64_t most) {
        return std::min<int64_t>(most, (at * scale + offset + 0xFFFF) >> 16);
    };
    const int64_t x1 = low(dirty.x1, s->x_scale, s->x_offset), y1 = low(dirty.y1, s->y_scale, s->y_offset);
    const int64_t x2 = high(dirty.x2, s->x_scale, s->x_offset, w), y2 = high(dirty.y2, s->y_scale, s->y_offset, h);
    const xc_image *client = s->orig_img;
    const bool words = client->depth == 32;
    for (int64_t y = y1; y < y2; y++) {
        const auto row = static_cast<int32_t>((y * s->y_step + s->src_y_origin) >> 16);
        const int64_t start = x1 * s->x_step + s->src_x_origin;
        auto column = static_cast<int32_t>(start >> 16);
        int64_t fraction = start & 0xFFFF;
        for (int64_t x = x1; x < x2; x++) {
            if (column < client->width && row < client->height) {
                uint32_t word = 0;
                memcpy(&word, xc_image_pointer(client, column, row), words ? 4 : 2);
                image[static_cast<size_t>(y * w + x)] = word;
            }
            fraction += s->x_step;
            // A fraction of exactly one steps on 16 bits, and stays on 32 bits.
            for (; words ? fraction > 0x10000 : fraction >= 0x10000; fraction -= 0x10000)
                column++;
        }
    }
    return {static_cast<int32_t>(x1), static_cast<int32_t>(y1), static_cast<int32_t>(x2), static_cast<int32_t>(y2)};
}

std::vector<uint32_t> words_of(const xc_image *image)
{
    std::vector<uint32_t> words;
    for (int32_t y = 0; y < image->height; y++) {
        for (int32_t x = 0; x < image->width; x++) {
            uint32_t word = 0;
            memcpy(&word, xc_image_pointer(image, x, y), image->depth == 32 ? 4 : 2);
            words.push_back(word);
        }
    }
    return words;
}

TEST_F(Scale, DoubledAndHalvedPixelsOn16Bits)
{
    ImageSurface *narrow = add("fb.b", {0, 0, 4, 1}, RGB16);
    for (int32_t x = 0; x < 4; x++)
        put(narrow->img, x, 0, static_cast<uint32_t>(x + 1));
    scale(narrow, {0, 0, 4, 1}, {0, 0, 8, 2});
    scale_refresh(narrow);
    EXPECT_THAT(words_of(narrow->img), ElementsAre(1, 1, 2, 2, 3, 3, 4, 4, 1, 1, 2, 2, 3, 3, 4, 4));
    EXPECT_THAT(rects_of(narrow->dirty_region), ElementsAre(Rect{0, 0, 8, 2}));
}

// On 32 bits a fraction that reaches exactly one pixel does not step yet: the first pixel comes once more.
TEST_F(Scale, DoubledPixelsOn32BitsStartWithOneMore)
{
    ImageSurface *narrow = add("fb.b", {0, 0, 4, 1}, XRGB32);
    for (int32_t x = 0; x < 4; x++)
        put(narrow->img, x, 0, static_cast<uint32_t>(x + 1));
    scale(narrow, {0, 0, 4, 1}, {0, 0, 8, 2});
    scale_refresh(narrow);
    EXPECT_THAT(words_of(narrow->img), ElementsAre(1, 1, 1, 2, 2, 3, 3, 4, 1, 1, 1, 2, 2, 3, 3, 4));
}

TEST_F(Scale, ARefreshFollowsTheMappingForRandomRectangles)
{
    random_cases::run(300, [this](random_cases::Random &random) {
        const auto between = [&](int32_t low, int32_t high) { return random_cases::between(random, low, high); };
        const auto sets = all_kernel_sets();
        const UsedKernels used(sets[static_cast<size_t>(between(0, static_cast<int32_t>(sets.size()) - 1))]);
        SCOPED_TRACE(kernels->name);
        const int32_t w = between(1, 40), h = between(1, 40);
        const int32_t format = between(0, 1) == 0 ? XRGB32 : RGB16;
        ImageSurface *scaled = add("x", {0, 0, w, h}, format);
        paint_numbers(scaled->img);
        const int32_t sx = between(0, w - 1), sy = between(0, h - 1);
        const Place from = {sx, sy, between(1, w - sx), between(1, h - sy)};
        const Place to = {between(-20, 300), between(-20, 200), between(1, 90), between(1, 90)};
        if (from.w == to.w && from.h == to.h)
            return;
        scale(scaled, from, to);
        scale_refresh(scaled);
        std::vector<uint32_t> expected = words_of(scaled->img);
        refresh_slowly(scaled, scaled->scale_state->src_rect, expected);
        ASSERT_EQ(words_of(scaled->img), expected);

        for (int32_t y = 0; y < h; y++) {
            for (int32_t x = 0; x < w; x++)
                put(scaled->scale_state->orig_img, x, y, static_cast<uint32_t>(random()));
        }
        const Rect dirty = {between(0, w - 1), between(0, h - 1), between(1, w), between(1, h)};
        region_reset(&scaled->dirty_region, &dirty);
        if (region_is_empty(&scaled->dirty_region))
            return;
        scale_refresh(scaled);
        const Rect refreshed = refresh_slowly(scaled, dirty, expected);
        ASSERT_EQ(words_of(scaled->img), expected);
        const bool empty = refreshed.x2 <= refreshed.x1 || refreshed.y2 <= refreshed.y1;
        ASSERT_EQ(rects_of(scaled->dirty_region), empty ? Rects() : Rects{refreshed});
        fs_remove_surface(server, scaled);
    });
}

// The columns of a refresh are kept for the next one, which may begin elsewhere between two pixels.
TEST_F(Scale, RefreshesOfOneWidthAtEachPlace)
{
    for (const int32_t format : {XRGB32, RGB16}) {
        ImageSurface *scaled = add("x", {0, 0, 90, 4}, format);
        scale(scaled, {0, 0, 90, 4}, {0, 0, 60, 4});
        scale_refresh(scaled);
        std::vector<uint32_t> expected = words_of(scaled->img);
        for (int32_t x = 0; x < 80; x++) {
            for (int32_t at = 0; at < 90 * 4; at++)
                put(scaled->scale_state->orig_img, at % 90, at / 90, static_cast<uint32_t>(at * 7 + x + 1));
            const Rect dirty = {x, 0, x + 9, 4};
            region_reset(&scaled->dirty_region, &dirty);
            scale_refresh(scaled);
            refresh_slowly(scaled, dirty, expected);
            ASSERT_EQ(words_of(scaled->img), expected) << x;
        }
        fs_remove_surface(server, scaled);
    }
}

// Heights are not tested, so that the first rows may come from above the client's image: they stay as they were.
TEST_F(Scale, RowsFromAboveTheImageAreSkipped)
{
    for (const int32_t format : {XRGB32, RGB16}) {
        ImageSurface *scaled = add("x", {0, 0, 20, 20}, format);
        paint_numbers(scaled->img);
        scale(scaled, {0, -4, 20, 10}, {0, 0, 40, 20});
        ASSERT_NE(scaled->scale_state, nullptr);
        const Rect dirty = {0, 0, 20, 6};
        region_reset(&scaled->dirty_region, &dirty);
        scaled->scale_state->y_offset = 0; // so that the damage is mapped to the first rows as well
        // There is memory above: the image begins four rows further down.
        xc_image *client = scaled->scale_state->orig_img;
        void *const all = client->pixels;
        const std::vector<uint32_t> numbers = words_of(client);
        client->pixels = xc_image_pointer(client, 0, 4);
        scale_refresh(scaled);
        client->pixels = all;
        const std::vector<uint32_t> found = words_of(scaled->img);
        for (size_t y = 0; y < 12; y++)
            EXPECT_EQ(found[y * 40 + 39], y < 8 ? 0 : numbers[(4 + (y - 8) / 2) * 20 + 19]) << y;
        fs_remove_surface(server, scaled);
    }
}

// Rows that are so long that they are done in two parts, of the same width.
TEST_F(Scale, TheLongestRows)
{
    for (const int32_t format : {XRGB32, RGB16}) {
        ImageSurface *scaled = add("x", {0, 0, 1000, 2}, format);
        paint_numbers(scaled->img);
        scale(scaled, {0, 0, 1000, 2}, {0, 0, 4096, 3});
        scale_refresh(scaled);
        std::vector<uint32_t> expected = words_of(scaled->img);
        std::ranges::fill(expected, 0);
        refresh_slowly(scaled, scaled->scale_state->src_rect, expected);
        ASSERT_EQ(words_of(scaled->img), expected);
        fs_remove_surface(server, scaled);
    }
}

TEST_F(Scale, ASaturatedDamageCoversTheWholeScaledImage)
{
    scale({0, 0, 100, 50}, {0, 0, 300, 200});
    settle();
    fs_add_dirty(server, surface, 0, 0, INT_MAX, INT_MAX);
    scale_refresh(surface);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{0, 0, 300, 200}));
}

// A scaled surface shrinks to less than its scaled image, and back to that; the refresh ends at its area.
TEST_F(Scale, OfAResizedSurfaceOnlyItsAreaIsRefreshed)
{
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    settle();
    fs_resize_surface(server, surface, 150, 60);
    fs_add_dirty(server, surface, 0, 0, 100, 50);
    scale_refresh(surface);
    EXPECT_THAT(rects_of(surface->dirty_region), ElementsAre(Rect{0, 0, 150, 60}));
    fs_resize_surface(server, surface, 200, 100);
    EXPECT_EQ(surface->area, (Rect{0, 0, 200, 100}));
    fs_resize_surface(server, surface, 201, 100);
    EXPECT_EQ(surface->area, (Rect{0, 0, 200, 100}));
}

TEST_F(Scale, DamageOfTheClientsImageIsPaintedScaled)
{
    scale({0, 0, 100, 50}, {20, 30, 200, 100});
    settle();
    primary_output.calls.clear();
    paint(surface, 0x00FEDCBA);
    fs_add_dirty(server, surface, 10, 10, 5, 5);
    settle();
    EXPECT_THAT(primary_output.updates(), ElementsAre(Rects{{40, 50, 50, 60}}));
    EXPECT_EQ(primary_output.pixel(49, 59), 0xFEDCBAu);
    EXPECT_EQ(primary_output.pixel(50, 60), 0u);
}

TEST_F(Scale, ADirtyScaledSurfaceIsRefreshedWhole)
{
    scale({0, 0, 100, 50}, {0, 0, 200, 100});
    settle();
    paint(surface, 0x00FEDCBA);
    fs_move_surface(server, surface, 50, 50);
    settle();
    EXPECT_EQ(primary_output.pixel(50, 50), 0xFEDCBAu);
    EXPECT_EQ(primary_output.pixel(249, 149), 0xFEDCBAu);
}

} // namespace
