// SPDX-License-Identifier: MIT
// Colour planes, and the opaque shortcut of blended surfaces.
#include <gmock/gmock.h>

#include "../support/compositor_test.h"
#include "../support/stderr_capture.h"
#include "../support/test_image.h"

namespace {

// ---- painting alone ----

constexpr const char *OVERLAY = "overlay_color_layer\n";
constexpr const char *OVERLAY_TWICE = "overlay_color_layer\noverlay_color_layer\n";
constexpr const char *UNSUPPORTED = "unsupported color plane\n";

constexpr Rect PAINTED{3, 2, 9, 7};

// Paints colour over PAINTED; returns what was printed.
std::string paint_plane(TestImage &work, uint32_t colour)
{
    const Box box = region_box(PAINTED);
    Region region;
    region_init(&region, &box);
    const std::string text = printed([&] { color_plane_paint(work.image, &region, static_cast<int32_t>(colour)); });
    region_uninit(&region);
    return text;
}

bool is_painted(int32_t x, int32_t y)
{
    return x >= PAINTED.x1 && x < PAINTED.x2 && y >= PAINTED.y1 && y < PAINTED.y2;
}

template <typename Word, typename Rule>
void expect_painted(const TestImage &work, const std::vector<uint8_t> &before, Rule rule)
{
    const xc_image *image = work.image;
    for (int32_t y = 0; y < image->height; y++) {
        for (int32_t x = 0; x < image->width; x++) {
            Word old;
            memcpy(&old, before.data() + y * image->stride + x * static_cast<int32_t>(sizeof(Word)), sizeof old);
            const Word now = *static_cast<Word *>(xc_image_pointer(image, x, y));
            ASSERT_EQ(now, is_painted(x, y) ? static_cast<Word>(rule(old)) : old) << x << "," << y;
        }
    }
}

TEST(ColorPlane, On16BitsAnOpaqueColourFillsWith565)
{
    TestImage work(12, 10, XC_FORMAT_RGB16, 1, 48);
    const auto before = work.content();
    EXPECT_EQ(paint_plane(work, 0xFF0000FF), OVERLAY);
    expect_painted<uint16_t>(work, before, [](uint16_t) { return 0x001F; });
}

TEST(ColorPlane, On16BitsEachChannelLosesItsLowBits)
{
    TestImage work(12, 10, XC_FORMAT_RGB16, 1);
    const auto before = work.content();
    EXPECT_EQ(paint_plane(work, 0xFF8F47EF), OVERLAY);
    expect_painted<uint16_t>(work, before, [](uint16_t) { return 17 << 11 | 17 << 5 | 29; });
}

TEST(ColorPlane, On16BitsAVeilPaintsNothing)
{
    for (const uint32_t colour : {0x80FFFFFFu, 0xFFFFFFFFu, 0x00FFFFFFu}) {
        TestImage work(12, 10, XC_FORMAT_RGB16, 1);
        const auto before = work.content();
        EXPECT_EQ(paint_plane(work, colour), OVERLAY);
        EXPECT_EQ(work.content(), before);
    }
}

TEST(ColorPlane, On16BitsAnotherAlphaIsUnsupported)
{
    TestImage work(12, 10, XC_FORMAT_RGB16, 1);
    const auto before = work.content();
    const std::string text = paint_plane(work, 0x80123456);
    EXPECT_TRUE(text == std::string(UNSUPPORTED) + OVERLAY || text == std::string(OVERLAY) + UNSUPPORTED) << text;
    EXPECT_EQ(work.content(), before);
}

TEST(ColorPlane, OnWordsAnOpaqueColourFills)
{
    for (const int format : {XC_FORMAT_XRGB32, XC_FORMAT_ARGB32, XC_FORMAT_RGB18}) {
        TestImage work(12, 10, format, 1, 60);
        const auto before = work.content();
        EXPECT_EQ(paint_plane(work, 0xFF8F47EF), OVERLAY_TWICE);
        expect_painted<uint32_t>(work, before, [](uint32_t) { return 0xFF8F47EFu; });
    }
}

TEST(ColorPlane, OnWordsHalfAVeilHalvesEveryColourByteAndZeroesTheTopByte)
{
    TestImage work(12, 10, XC_FORMAT_XRGB32, 1);
    const auto before = work.content();
    EXPECT_EQ(paint_plane(work, 0x80FFFFFF), OVERLAY_TWICE);
    expect_painted<uint32_t>(
        work, before, [](uint32_t p) { return (p >> 16 & 255) / 2 << 16 | (p >> 8 & 255) / 2 << 8 | (p & 255) / 2; });
}

TEST(ColorPlane, OnWordsAVeilScalesByItsStrength)
{
    for (const uint32_t strength : {0u, 1u, 77u, 254u, 255u}) {
        TestImage work(12, 10, XC_FORMAT_XRGB32, strength);
        const auto before = work.content();
        EXPECT_EQ(paint_plane(work, strength << 24 | 0xFFFFFF), OVERLAY_TWICE);
        expect_painted<uint32_t>(work, before, [strength](uint32_t p) {
            const auto scaled = [strength](uint32_t channel) { return channel * strength / 256; };
            return scaled(p >> 16 & 255) << 16 | scaled(p >> 8 & 255) << 8 | scaled(p & 255);
        });
    }
}

TEST(ColorPlane, OnWordsAnotherAlphaIsUnsupported)
{
    for (const uint32_t colour : {0x80123456u, 0x00000000u, 0xFE000000u, 0x7FFFFFFEu}) {
        TestImage work(12, 10, XC_FORMAT_XRGB32, 1);
        const auto before = work.content();
        const std::string text = paint_plane(work, colour);
        EXPECT_TRUE(text == std::string(UNSUPPORTED) + OVERLAY_TWICE ||
                    text == std::string(OVERLAY_TWICE) + UNSUPPORTED ||
                    text == std::string(OVERLAY) + UNSUPPORTED + OVERLAY)
            << text;
        EXPECT_EQ(work.content(), before);
    }
}

TEST(ColorPlane, OnlyPixelsThatExistArePainted)
{
    for (const int format : {XC_FORMAT_XRGB32, XC_FORMAT_RGB16}) {
        const int32_t size = format == XC_FORMAT_RGB16 ? 2 : 4;
        const auto extent = static_cast<size_t>(size * (5 * 12 + 6)); // up to the middle of row 5
        TestImage work(12, 10, format, 1, 0, extent);
        const auto before = work.content();
        paint_plane(work, 0xFF000000);
        const auto after = work.content();
        for (int32_t i = 0; i < 5 * 12 + 6; i++) {
            const auto at = static_cast<size_t>(i * size);
            const bool painted = is_painted(i % 12, i / 12);
            EXPECT_EQ(after[at], painted ? 0 : before[at]) << i;
        }
    }
}

// ---- in a pass ----

class ColorPlanePass : public CompositorTest {
protected:
    ColorPlanePass() { open_server(); }
};

TEST_F(ColorPlanePass, AVeilDimsWhatLiesBelowAndOnlyInItsPlace)
{
    ImageSurface *below = add_shown("fb.a", {0, 0, 40, 40}, XRGB32);
    ImageSurface *veil = add_shown("fb.b", {20, 0, 40, 40}, ARGB32);
    paint(below, 0x00C08040);
    fs_set_color_plane(server, veil, static_cast<int32_t>(0x80FFFFFF));
    EXPECT_EQ(printed([] { settle(); }), OVERLAY_TWICE);
    EXPECT_EQ(primary_output.pixel(10, 10), 0xC08040u);
    EXPECT_EQ(primary_output.pixel(30, 10), 0x604020u);
}

TEST_F(ColorPlanePass, On16BitsAVeilDoesNothing)
{
    primary_output.depth = 16;
    ImageSurface *below = add_shown("fb.a", {0, 0, 40, 40}, XRGB32);
    ImageSurface *veil = add_shown("fb.b", {20, 0, 40, 40}, ARGB32);
    paint(below, 0x00C08040);
    fs_set_color_plane(server, veil, static_cast<int32_t>(0x80FFFFFF));
    EXPECT_EQ(printed([] { settle(); }), OVERLAY);
    EXPECT_EQ(primary_output.pixel(30, 10), primary_output.pixel(10, 10));
}

TEST_F(ColorPlanePass, AFillReplacesTheImage)
{
    ImageSurface *below = add_shown("fb.a", {0, 0, 40, 40}, XRGB32);
    ImageSurface *plane = add_shown("fb.b", {20, 0, 40, 40}, XRGB32);
    paint(below, 0x00C08040);
    paint(plane, 0x00FFFFFF);
    fs_set_color_plane(server, plane, static_cast<int32_t>(0xFF0000FF));
    settle();
    EXPECT_EQ(primary_output.pixel(30, 10) & 0xFFFFFF, 0x0000FFu);
    EXPECT_EQ(primary_output.pixel(50, 10) & 0xFFFFFF, 0x0000FFu);
}

TEST_F(ColorPlanePass, MinusOneIsNoPlane)
{
    ImageSurface *below = add_shown("fb.a", {0, 0, 40, 40}, XRGB32);
    ImageSurface *upper = add_shown("fb.b", {20, 0, 40, 40}, XRGB32);
    paint(below, 0x00C08040);
    paint(upper, 0x00123456);
    fs_set_color_plane(server, upper, 5);
    fs_set_color_plane(server, upper, -1);
    EXPECT_EQ(printed([] { settle(); }), "");
    EXPECT_EQ(primary_output.pixel(30, 10), 0x123456u);
}

TEST_F(ColorPlanePass, AnUnsupportedPlanePaintsNothingAndThePassGoesOn)
{
    ImageSurface *below = add_shown("fb.a", {0, 0, 40, 40}, XRGB32);
    ImageSurface *plane = add_shown("fb.b", {20, 0, 40, 40}, ARGB32);
    ImageSurface *top = add_shown("fb.c", {30, 0, 20, 20}, ARGB32);
    paint(below, 0x00C08040);
    paint(top, 0xFF010203);
    fs_set_color_plane(server, plane, 0x12345678);
    EXPECT_NE(printed([] { settle(); }).find(UNSUPPORTED), std::string::npos);
    EXPECT_EQ(primary_output.pixel(25, 5), 0xC08040u);
    EXPECT_EQ(primary_output.pixel(35, 5) & 0xFFFFFF, 0x010203u);
}

// ---- the opaque shortcut ----

// Pixels of alpha 0 and some colour: blended they add to what lies below, copied they replace it.
constexpr uint32_t GLOW = 0x00101010;

class OpaqueShortcut : public CompositorTest {
protected:
    OpaqueShortcut()
    {
        open_server();
        paint(add_shown("fb.a", {0, 0, 200, 200}, XRGB32), 0x00404040);
        settle();
    }

    // A blended surface that declares `opaque`, drawn with what lies below; what it shows at its first pixel.
    uint32_t shown_over_others(Place place, Place opaque, Place damage)
    {
        ImageSurface *surface = add("fb.b", place, ARGB32, 1);
        fs_show_surface(server, surface);
        settle();
        paint(surface, GLOW);
        fs_set_opaque_surface(server, surface, opaque.x, opaque.y, opaque.w, opaque.h);
        // Two more draw at another place, so that the pass is one of several surfaces.
        ImageSurface *far = add("fb.c", {150, 150, 10, 10}, ARGB32, 2);
        fs_show_surface(server, far);
        fs_add_dirty(server, surface, damage.x, damage.y, damage.w, damage.h);
        settle();
        alpha_after = image_has_alpha(surface->img);
        const uint32_t word = primary_output.pixel(place.x + damage.x, place.y + damage.y) & 0xFFFFFF;
        fs_remove_surface(server, far);
        fs_remove_surface(server, surface);
        settle();
        return word;
    }

    bool alpha_after = false;
};

TEST_F(OpaqueShortcut, InsideTheOpaqueAreaPixelsAreCopied)
{
    EXPECT_EQ(shown_over_others({30, 30, 20, 20}, {0, 0, 20, 20}, {0, 0, 20, 20}), 0x101010u);
    EXPECT_TRUE(alpha_after);
}

TEST_F(OpaqueShortcut, ADrawRegionThatLeavesTheOpaqueAreaIsBlended)
{
    EXPECT_EQ(shown_over_others({30, 30, 20, 20}, {10, 0, 10, 20}, {0, 0, 20, 20}), 0x505050u);
    EXPECT_TRUE(alpha_after);
}

TEST_F(OpaqueShortcut, WithoutAnOpaqueAreaPixelsAreBlended)
{
    EXPECT_EQ(shown_over_others({30, 30, 20, 20}, {0, 0, 0, 0}, {0, 0, 20, 20}), 0x505050u);
}

// The test adds the surface's x to the opaque area's y as well. Clients have been tuned to what comes out.
TEST_F(OpaqueShortcut, TheOpaqueAreaIsTestedAtXTwice)
{
    // At (30, 80) the area is looked for at (30, 30), where the draw region, y 80 to 100, is not. What lies below was
    // left out all the same, so the blend adds to what the work image held.
    EXPECT_EQ(shown_over_others({30, 80, 20, 20}, {0, 0, 20, 20}, {0, 0, 20, 20}), 0x505050u);
    // An opaque area that the surface does not even reach is found there.
    EXPECT_EQ(shown_over_others({30, 80, 20, 20}, {0, 50, 20, 20}, {0, 0, 20, 20}), 0x101010u);
}

} // namespace
