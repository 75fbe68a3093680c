// SPDX-License-Identifier: MIT
// The status dump, word for word.
#include <gmock/gmock.h>

#include "../support/compositor_test.h"
#include "../support/stderr_capture.h"

namespace {

using testing::HasSubstr;

class Status : public CompositorTest {
protected:
    Status() { open_server(); }

    std::string dump() const
    {
        return printed([this] { fs_dump_status(server); });
    }
};

TEST_F(Status, WithoutSurfacesThereAreTwoLines)
{
    EXPECT_EQ(dump(), "# of surface: 0\ncount of lock: 0\n");
}

TEST_F(Status, AShownSurfaceAfterARender)
{
    primary_output.depth = 16;
    add_shown("fb.menu", {10, 20, 100, 50}, RGB16, 3);
    settle();
    EXPECT_EQ(dump(), "# of surface: 1\n"
                      "count of lock: 0\n"
                      "\t[00]: backend = fb name=fb.menu level=3 shown=1 dirty=0 direct=1\n"
                      "\t\t[10,20] - [110,70]\n"
                      "\t\tdrawing area: [10,20] - [110,70]\n"
                      "\t\tclip area: not set\n"
                      "\t\tdepth = 16 stride = 200 alpha = 0\n");
}

TEST_F(Status, ItChangesNothing)
{
    ImageSurface *surface = add_shown("fb.a", {10, 20, 100, 50}, RGB16);
    forget_damage();
    const uint32_t flags = surface->flags;
    dump();
    EXPECT_EQ(surface->flags, flags);
    EXPECT_FALSE(render_is_pending());
}

TEST_F(Status, AHiddenSurfaceWithAlphaBeforeARender)
{
    add_with_stride("fb2.a", {10, 20, 100, 50}, 512, ARGB32, -7);
    EXPECT_EQ(dump(), "# of surface: 1\n"
                      "count of lock: 0\n"
                      "\t[00]: backend = fb2 name=fb2.a level=-7 shown=0 dirty=0 direct=0\n"
                      "\t\t[10,20] - [110,70]\n"
                      "\t\tdrawing area: [10,20] - [110,70]\n"
                      "\t\tclip area: not set\n"
                      "\t\tdepth = 32 stride = 512 alpha = 1\n");
}

TEST_F(Status, DirtyIsTold)
{
    add_shown("fb.a", {10, 20, 100, 50}, XRGB32);
    EXPECT_THAT(dump(), HasSubstr("shown=1 dirty=1 direct=0\n"));
}

TEST_F(Status, AnEighteenBitSurface)
{
    add("fb.a", {10, 20, 100, 50}, RGB18);
    EXPECT_THAT(dump(), HasSubstr("direct=1\n"));
    EXPECT_THAT(dump(), HasSubstr("\t\tdepth = 18 stride = 400 alpha = 0\n"));
}

// Tools that read this dump find the drawing area under both labels.
TEST_F(Status, WithAClipTheDrawingAreaIsPrintedTwice)
{
    ImageSurface *surface = add("fb.a", {10, 20, 100, 50}, RGB16);
    fs_set_clip(server, surface, 50, 0, 500, 60);
    EXPECT_THAT(dump(), HasSubstr("\t\t[10,20] - [110,70]\n"
                                  "\t\tdrawing area: [50,20] - [110,60]\n"
                                  "\t\tclip area: [50,20] - [110,60]\n"
                                  "\t\tdepth = "));
}

TEST_F(Status, AClipThatIsLargerThanTheDrawingAreaIsNotPrinted)
{
    ImageSurface *surface = add("fb.a", {-10, 200, 100, 50}, RGB16);
    fs_set_clip(server, surface, -50, -60, 1000, 2000);
    EXPECT_THAT(dump(), HasSubstr("\t\t[-10,200] - [90,250]\n"
                                  "\t\tdrawing area: [0,200] - [90,240]\n"
                                  "\t\tclip area: [0,200] - [90,240]\n"
                                  "\t\tdepth = "));
}

TEST_F(Status, OffScreenTheDrawingAreaIsZero)
{
    add("fb.a", {1000, 20, 100, 50}, RGB16);
    EXPECT_THAT(dump(), HasSubstr("\t\t[1000,20] - [1100,70]\n\t\tdrawing area: [0,0] - [0,0]\n"));
}

TEST_F(Status, TheNullBackendAndNoBackendHaveNoName)
{
    add("x.a", {0, 0, 10, 10}, RGB16);
    add("...", {0, 0, 10, 10}, RGB16);
    EXPECT_THAT(dump(), HasSubstr("\t[00]: backend = (null) name=x.a level=0"));
    EXPECT_THAT(dump(), HasSubstr("\t[01]: backend = (null) name=... level=0"));
}

TEST_F(Status, SurfacesAreListedFromTheBottomWithTwoDigits)
{
    for (int i = 0; i < 11; i++)
        add(("x." + std::to_string(i)).c_str(), {0, 0, 10, 10}, RGB16, 10 - i);
    const std::string text = dump();
    EXPECT_THAT(text, HasSubstr("# of surface: 11\n"));
    EXPECT_THAT(text, HasSubstr("\t[00]: backend = (null) name=x.10 level=0 "));
    EXPECT_THAT(text, HasSubstr("\t[09]: backend = (null) name=x.1 level=9 "));
    EXPECT_THAT(text, HasSubstr("\t[10]: backend = (null) name=x.0 level=10 "));
    EXPECT_LT(text.find("[00]"), text.find("[10]"));
}

TEST_F(Status, TheLockCountIsTheServers)
{
    ImageSurface *surface = add("fb.a", {10, 20, 100, 50}, RGB16);
    fs_set_lock_area(server, surface, 0, 0, 1, 1);
    fs_set_lock_area(server, surface, 0, 0, 1, 1);
    fs_lock_render(server);
    EXPECT_THAT(dump(), HasSubstr("count of lock: 2\n"));
}

TEST_F(Status, ALongNameIsPrintedWhole)
{
    const std::string name = "fb." + std::string(2000, 'n');
    add(name.c_str(), {0, 0, 10, 10}, RGB16);
    EXPECT_THAT(dump(), HasSubstr("name=" + name + " level=0"));
}

} // namespace
