// SPDX-License-Identifier: MIT
// What clients may make the server hold, and what happens at each limit. The accounts are the process's own, so the
// tests that fill them run in a child.
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "../../src/composite/client_limits.h"
#include "../../src/composite/client_memory.h"
#include "../../src/kernels/kernels.h"
#include "../support/aborts.h"
#include "../support/child_process.h"
#include "../support/command_test.h"
#include "../support/failing_memory.h"

namespace {

// What statvfs tells of the room in /dev/shm; 0: the truth.
uint64_t room_in_memory;

int told(int result, const char *path, struct statvfs *space)
{
    if (room_in_memory != 0 && strcmp(path, "/dev/shm") == 0)
        space->f_blocks = room_in_memory / space->f_frsize;
    return result;
}

// Where long files need it, the C library's statvfs is called by another name.
extern "C" {
int __real_statvfs(const char *path, struct statvfs *space);
int __real_statvfs64(const char *path, struct statvfs *space);

int __wrap_statvfs(const char *path, struct statvfs *space)
{
    return told(__real_statvfs(path, space), path, space);
}
int __wrap_statvfs64(const char *path, struct statvfs *space)
{
    return told(__real_statvfs64(path, space), path, space);
}
}

class Limits : public CommandTest {
protected:
    Limits() { client = connect("fb.client"); }

    // One more "create" on the connection; what it printed. The object's name is gone afterwards, whatever came of it.
    std::string created(mc_connection *connection, const Create &c = {})
    {
        SharedObject object(400 * 50);
        const std::string text = printed([&] { EXPECT_EQ(create(connection, c, object.name.c_str()), std::nullopt); });
        EXPECT_FALSE(object.has_name());
        return text;
    }

    std::string scaled(mc_connection *connection, int32_t w, int32_t h)
    {
        return printed([&] { ask(connection, "set_scale", {0, 0, 100, 50, 0, 0, w, h}); });
    }

    mc_connection *client;
};

const char *const NOTHING = "";

// ---- surfaces and mappings ----

TEST_F(Limits, SurfacesWithoutAnOwner)
{
    in_child([this] {
        create(client, {}); // opens the output, which prints
        client_limits.left_mappings = 2;
        EXPECT_EQ(created(client), NOTHING);
        EXPECT_EQ(created(client), NOTHING);
        ImageSurface *third = surface_of(client);
        const std::string line = "create: refused: the connection has a surface, and 2 without an owner are enough\n";
        EXPECT_EQ(created(client), line);
        EXPECT_EQ(created(client), line);
        EXPECT_EQ(surface_of(client), third);
        EXPECT_EQ(server->n_surface, 3);
        mc_connection *other = connect("fb.other");
        EXPECT_EQ(created(other), NOTHING) << "a connection without a surface is not concerned";
        EXPECT_EQ(created(other), line);
        hang_up(client);
        hang_up(other);
        EXPECT_EQ(server->n_surface, 2) << "who has an owner goes with it";
        EXPECT_EQ(client_memory_use().n_left, 2u);
    });
}

TEST_F(Limits, MemoryOfSurfacesWithoutAnOwner)
{
    in_child([this] {
        create(client, {}); // 20 000 bytes, five pages
        client_limits.left_bytes = 11 * 4096;
        EXPECT_EQ(created(client), NOTHING);
        EXPECT_EQ(created(client), NOTHING);
        EXPECT_EQ(client_memory_use().left_bytes, 10u * 4096);
        EXPECT_EQ(created(client),
                  "create: refused: the connection has a surface, and 2 without an owner are enough\n");
        EXPECT_EQ(server->n_surface, 3);
    });
}

// On a device with little memory they leave most of it to the others.
TEST_F(Limits, SurfacesWithoutAnOwnerFillNoMoreThanAQuarterOfTheSharedMemory)
{
    in_child([this] {
        create(client, {}); // 20 000 bytes, five pages
        room_in_memory = 4 * 11 * 4096;
        EXPECT_EQ(created(client), NOTHING);
        EXPECT_EQ(created(client), NOTHING);
        EXPECT_EQ(created(client),
                  "create: refused: the connection has a surface, and 2 without an owner are enough\n");
        room_in_memory = 4 * 15 * 4096;
        EXPECT_EQ(created(client), NOTHING) << "there is more room now";
    });
}

TEST_F(Limits, SurfacesWithoutAnOwnerFillNoMoreThanAnEighthOfTheMachinesMemory)
{
    const auto machine = static_cast<uint64_t>(sysconf(_SC_PHYS_PAGES)) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    EXPECT_LE(client_limits.left_bytes, machine / 8);
    EXPECT_GE(client_limits.left_bytes, std::min(machine / 8, 256 * MIB));
}

TEST_F(Limits, AThousandSurfacesWithoutAnOwnerMayBe)
{
    in_child([this] {
        create(client, {});
        for (int i = 0; i < 1024; i++)
            ASSERT_EQ(created(client), NOTHING) << i;
        EXPECT_NE(created(client), NOTHING);
        EXPECT_EQ(server->n_surface, 1025);
        ask(client, "show");
        const StderrCapture quiet;
        settle();
    });
}

TEST_F(Limits, MappedMemory)
{
    in_child([this] {
        create(client, {});
        client_limits.mapped_bytes = client_memory_use().bytes + 3 * MIB;
        mc_connection *large = connect("fb.large"), *small = connect("fb.small");
        const Create beyond{.place = {0, 0, 100, 8192}}; // 3 276 800 bytes
        const std::string line = "create: refused: the memory of all clients may have 3 MiB\n";
        EXPECT_EQ(created(large, beyond), line);
        EXPECT_EQ(surface_of(large), nullptr);
        const Create half{.place = {0, 0, 100, 4096}};
        EXPECT_EQ(created(large, half), NOTHING);
        EXPECT_EQ(created(small, half), line);
        hang_up(large);
        EXPECT_EQ(created(small, half), NOTHING) << "there is room again";
    });
}

// What ends the server does so at the limits too.
TEST_F(Limits, NeitherAMissingObjectNorASizeThatCannotBeMappedIsForgiven)
{
    create(client, {});
    const std::string missing = "/pfb-test-missing-" + std::to_string(getpid());
    SharedObject object(400 * 50);
    EXPECT_ABORT_AFTER(
        "shm_open: No such file or directory\n",
        {
            client_limits.mapped_bytes = 1;
            client_limits.left_mappings = 0;
            create(client, {}, missing.c_str());
        },
        "fbserver/", "create", "0");
    EXPECT_ABORT_AFTER(
        "mmap: ",
        {
            client_limits.mapped_bytes = 1;
            client_limits.left_mappings = 0;
            create(client, {.stride = -4}, object.name.c_str());
        },
        "fbserver/", "create", "0");
}

// Of a depth that no surface has: the memory stays mapped, but not without end.
TEST_F(Limits, MappingsThatBecameNoSurface)
{
    in_child([this] {
        client_limits.left_mappings = 3;
        const Create odd{.depth = 24};
        const std::string refusal = "unsupported color depth&alpha combination:depth=24 alpha=0\n";
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(created(client, odd), refusal);
        EXPECT_EQ(client_memory_use().n_left, 3u);
        const uint64_t mapped = client_memory_use().bytes;
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(created(client, odd),
                      refusal + "create: its memory is given back: 3 mappings without an owner are enough\n");
        EXPECT_EQ(client_memory_use().bytes, mapped);
        create(client, {});
        EXPECT_NE(surface_of(client), nullptr);
    });
}

TEST_F(Limits, WithoutMemoryForASurfaceItsMappingIsGivenBack)
{
    create(client, {});
    const uint64_t mapped = client_memory_use().bytes;
    mc_connection *other = connect("fb.other");
    SharedObject object(400 * 50);
    mc_packet *request = mc_packet_new_command("create");
    mc_packet_build_args(request, "iiiiiiiiis", 0, 32, 0, 0, 100, 50, 400, 0, 0, object.name.c_str());
    const std::string message = complained([&] {
        fail_allocation(CALLOC, 1);
        handle_command(other, request);
    });
    mc_packet_free(request);
    EXPECT_TRUE(allocation_failed());
    EXPECT_EQ(message, "ImageSurface malloc error\n");
    EXPECT_EQ(client_memory_use().bytes, mapped);
}

// To open it would wait for the client's leave, up to 45 seconds, and so would everybody's picture.
// One create too many for the list's memory costs nobody but its client anything.
TEST_F(Limits, WithoutMemoryForALongerList)
{
    in_child([this] {
        create(client, {});
        std::vector<mc_connection *> others;
        for (int i = 0; i < 3; i++) {
            others.push_back(connect("fb.other"));
            EXPECT_EQ(created(others.back()), NOTHING);
        }
        const std::vector<ImageSurface *> before(server->surfaces, server->surfaces + 4);
        const uint64_t bytes = client_memory_use().bytes;
        for (mc_connection *connection : {client, connect("fb.late")}) {
            ImageSurface *own = surface_of(connection);
            fail_allocation(REALLOC, 1);
            EXPECT_EQ(created(connection), "create: refused: no memory for one more surface\n");
            EXPECT_TRUE(allocation_failed());
            EXPECT_EQ(surface_of(connection), own);
            EXPECT_EQ(server->n_surface, 4);
            EXPECT_EQ(std::vector<ImageSurface *>(server->surfaces, server->surfaces + 4), before);
            EXPECT_EQ(client_memory_use().bytes, bytes);
            EXPECT_EQ(client_memory_use().n_left, 0u);
        }
        EXPECT_EQ(created(others[0]), NOTHING) << "and then there is some";
        EXPECT_EQ(server->n_surface, 5);
        for (mc_connection *other : others)
            hang_up(other);
        EXPECT_EQ(server->n_surface, 2);
    });
}

TEST_F(Limits, AnObjectThatIsHeldByALease)
{
    signal(SIGIO, SIG_IGN);
    const std::string name = "/pfb-test-lease-" + std::to_string(getpid());
    const int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    ASSERT_EQ(ftruncate(fd, 400 * 50), 0);
    ASSERT_EQ(fcntl(fd, F_SETLEASE, F_WRLCK), 0) << strerror(errno);
    EXPECT_EQ(printed([&] { create(client, {}, name.c_str()); }),
              "create: refused: the shared memory is held by a lease\n");
    EXPECT_EQ(surface_of(client), nullptr);
    ASSERT_EQ(fcntl(fd, F_SETLEASE, F_UNLCK), 0);
    close(fd);
    EXPECT_EQ(shm_unlink(name.c_str()), -1) << "the name is gone, as after every refusal";
    create(client, {});
    EXPECT_NE(surface_of(client), nullptr);
}

// ---- scaled images ----

TEST_F(Limits, ScaledImagesHaveSoMuchMemoryTogether)
{
    client_limits.scaled_bytes = 3 * MIB;
    ImageSurface *surface = create(client, {});
    mc_connection *other = connect("fb.other");
    create(other, {});
    const auto line = [](int32_t w, int32_t h) {
        return "fs_set_scale: too large: destination " + std::to_string(w) + " x " + std::to_string(h) +
               ", while all scaled images may have 3 MiB\n";
    };
    EXPECT_EQ(scaled(client, 1024, 769), line(1024, 769));
    EXPECT_EQ(surface->scale_state, nullptr);
    EXPECT_EQ(surface->area, (Rect{10, 20, 110, 70}));
    EXPECT_EQ(scaled(client, 1024, 768), NOTHING);
    EXPECT_EQ(scaled(other, 1, 1), line(1, 1));
    EXPECT_EQ(scaled(client, 1024, 767), NOTHING) << "its own image makes room";
    EXPECT_EQ(scaled(other, 1024, 1), NOTHING);
    EXPECT_EQ(scaled(client, 30000, 17000), line(30000, 17000));
    EXPECT_EQ(surface->img->height, 767) << "it stays as it was";
    EXPECT_EQ(scaled(client, 40000, 40000), "fs_set_scale: invalid size: source 100 x 50 destination 40000 x 40000\n");
    hang_up(other);
    EXPECT_EQ(scaled(client, 1024, 768), NOTHING);
    client_limits.scaled_bytes = 128 * MIB;
}

int64_t picked;

void count_and_pick(const PickRow *rows, int32_t count, const PickPlan *plan)
{
    picked += int64_t{plan->n} * count;
    kernels_plain.pick_32(rows, count, plan);
}

// 1000 lines of the source fall onto the one line of the scaled image.
TEST_F(Limits, ARefreshFillsNoMoreThanTwoImages)
{
    Kernels counting = kernels_plain;
    counting.pick_32 = count_and_pick;
    const Kernels *before = kernels;
    kernels = &counting;
    const int32_t w = 100, h = 2000;
    ImageSurface *surface = create(client, {.place = {0, 0, w, h}});
    paint(surface, 0x00ABCDEF);
    ask(client, "show");
    ask(client, "set_scale", {0, 0, w, h, 0, 0, 20000, 1});
    settle();
    picked = 0;
    for (int32_t y = 0; y < h; y += 2)
        ask(client, "dirty", {0, y, w - y % 7, 1});
    settle();
    kernels = before;
    EXPECT_GT(picked, 0);
    EXPECT_LE(picked, 2 * 20000 + (1 << 20));
    EXPECT_EQ(primary_output.pixel(0, 0), 0xABCDEFu);
    EXPECT_EQ(primary_output.pixel(319, 0), 0xABCDEFu);
}

// ---- damage ----

TEST_F(Limits, AHundredThousandReportsOfAPixelEachDrawNothingElse)
{
    ImageSurface *surface = create(client, {.place = {0, 0, 700, 600}, .stride = 2800});
    ask(client, "show");
    settle();
    paint(surface, 0x00ABCDEF);
    EXPECT_EQ(printed([&] {
                  for (int32_t i = 0; i < 350 * 300; i++)
                      ask(client, "dirty", {i % 350 * 2, i / 350 * 2, 1, 1});
                  fs_fold_reports(fs, surface);
              }),
              NOTHING);
    EXPECT_EQ(region_num_rects(&surface->dirty_region), 350 * 300);
    settle();
    for (int32_t y = 0; y < 240; y++) {
        for (int32_t x = 0; x < 320; x++)
            ASSERT_EQ(primary_output.pixel(x, y), x % 2 == 0 && y % 2 == 0 ? 0xABCDEFu : 0u) << x << "," << y;
    }
}

TEST_F(Limits, ReportsOfTooManyRectangles)
{
    for (int32_t i = 0; i < 127; i++) // of 128 surfaces 1024 are kept
        create(connect("fb.more"), {});
    ImageSurface *surface = create(client, {.place = {0, 0, 300, 200}, .stride = 1200});
    ask(client, "show");
    settle();
    const auto scatter = [this](int32_t n) {
        return printed([&] {
            for (int32_t i = 0; i < n; i++)
                ask(client, "dirty", {i % 100 * 3, i / 100 * 3, 1, 1});
            fs_fold_reports(fs, surface_of(client));
        });
    };
    EXPECT_EQ(scatter(1024), NOTHING);
    EXPECT_EQ(region_num_rects(&surface->dirty_region), 1024);
    settle();
    paint(surface, 0x00ABCDEF);
    EXPECT_EQ(scatter(1025), "fs_add_dirty: reports of fb.client are more than 1024 rectangles: drawn as one\n");
    EXPECT_EQ(rects_of(surface->dirty_region), (Rects{{0, 0, 298, 31}}));
    settle();
    EXPECT_EQ(primary_output.pixel(1, 1), 0xABCDEFu);
    EXPECT_EQ(primary_output.pixel(297, 30), 0xABCDEFu);
    EXPECT_EQ(primary_output.pixel(298, 30), 0u);
    EXPECT_EQ(scatter(1025), NOTHING) << "there is one line for each surface";
    settle();
}

// As many rectangles as their product, if it were not for the limit.
TEST_F(Limits, TheLineAboutReportsHasAHarmlessName)
{
    mc_connection *forger = connect("fb.a\nfs_b");
    for (int32_t i = 0; i < 255; i++) // of 256 surfaces 256 rectangles are kept
        create(connect("fb.more"), {});
    create(forger, {.place = {0, 0, 300, 200}, .stride = 1200});
    ask(forger, "show");
    settle();
    EXPECT_EQ(printed([&] {
                  for (int32_t i = 0; i < 257; i++)
                      ask(forger, "dirty", {i % 100 * 3, i / 100 * 3, 1, 1});
                  fs_fold_reports(fs, surface_of(forger));
              }),
              "fs_add_dirty: reports of fb.a\\x0afs_b are more than 256 rectangles: drawn as one\n");
    settle();
}

// Each of them would be united with all before it.
TEST_F(Limits, ScatteredReportsOfAScaledSurfaceAreFewRectangles)
{
    ImageSurface *surface = create(client, {.place = {0, 0, 160, 120}, .stride = 640});
    ask(client, "show");
    ask(client, "set_scale", {0, 0, 160, 120, 0, 0, 320, 240});
    settle();
    const auto scatter = [&](int32_t rows) {
        paint(surface, 0x00ABCDEF);
        for (int32_t i = 0; i < 40 * rows; i++)
            ask(client, "dirty", {i % 40 * 4, i / 40 * 4, 1, 1});
        primary_output.calls.clear();
        settle();
        return primary_output.updates().at(0).size();
    };
    EXPECT_EQ(scatter(25), 1000u);
    EXPECT_LE(scatter(30), 1024u);
}

TEST_F(Limits, LinesAcrossLines)
{
    ImageSurface *surface = create(client, {});
    ask(client, "show");
    settle();
    ask(client, "lock_area", {0, 0, 0, 0});
    const StdoutCapture quiet;
    for (int32_t round = 0; round < 5; round++) {
        for (int32_t i = 0; i < 5000; i++) {
            ask(client, "dirty", {0, 2 * i, 32000, 1});
            ASSERT_LE(region_num_rects(&surface->dirty_region), DAMAGE_RECTS);
            ASSERT_LE(surface->reports.n, DAMAGE_RECTS);
        }
        for (int32_t i = 0; i < 5000; i++) {
            ask(client, "dirty", {2 * i, 0, 1, 32000});
            ASSERT_LE(region_num_rects(&surface->dirty_region), DAMAGE_RECTS);
        }
    }
    ask(client, "unlock");
    settle();
}

TEST_F(Limits, DamageOfAnOutputOfTooManyRectangles)
{
    ImageSurface *surface = create(client, {.place = {0, 0, 320, 240}, .stride = 1280});
    ask(client, "set_clip", {0, 0, 1, 1}); // damages what it shows before
    ask(client, "show");
    settle();
    ask(client, "lock_area", {0, 0, 0, 0});
    for (int32_t i = 0; i < 240; i += 2) {
        ask(client, "set_clip", {0, i, 320, 1});
        ask(client, "set_clip", {i, 0, 1, 240});
        ASSERT_LE(region_num_rects(surface->backend->damage_region), SINGLE_RECTS);
    }
    ask(client, "set_clip", {0, 0, 320, 240});
    paint(surface, 0x00ABCDEF);
    ask(client, "unlock");
    settle();
    EXPECT_EQ(primary_output.pixel(319, 239), 0xABCDEFu);
}

// Two surfaces whose reports are few each.
TEST_F(Limits, DamageOfManySurfacesMeets)
{
    mc_connection *other = connect("fb.other");
    for (mc_connection *each : {client, other}) {
        ImageSurface *surface = create(each, {.place = {0, 0, 320, 240}, .stride = 1280});
        paint(surface, 0x00ABCDEF);
        ask(each, "opaque_area", {0, 0, 0, 0});
        ask(each, "show");
    }
    for (int32_t i = 0; i < 34; i++) // of 36 surfaces 12945 rectangles are kept
        create(connect("fb.more"), {});
    settle();
    primary_output.calls.clear();
    for (int32_t i = 0; i < 120; i++) {
        ask(client, "dirty", {0, 2 * i, 320, 1});
        ask(other, "dirty", {2 * i, 0, 1, 240});
    }
    settle();
    ASSERT_EQ(primary_output.updates().size(), 1u);
    EXPECT_EQ(primary_output.updates()[0], (Rects{{0, 0, 320, 240}}));
}

// Narrow opaque windows over the lines of a report: what they hide is too much to tell, and what lies between the lines
// stays as it was, windows included.
TEST_F(Limits, WindowsThatCutTheDamageIntoTooManyRectangles)
{
    ImageSurface *below = create(client, {.place = {0, 0, 320, 240}, .stride = 1280});
    ask(client, "show");
    for (int32_t x = 1; x < 320; x += 4) {
        mc_connection *window = connect("fb.window");
        ImageSurface *surface = create(window, {.place = {x, 0, 2, 240}, .stride = 8, .level = 1});
        paint(surface, 0x00FF0000);
        ask(window, "show");
    }
    settle();
    paint(below, 0x000000FF);
    for (int32_t y = 0; y < 240; y += 2)
        ask(client, "dirty", {0, y, 320, 1});
    settle();
    for (int32_t y = 0; y < 240; y++) {
        for (int32_t x = 0; x < 320; x++) {
            const bool window = x % 4 == 1 || x % 4 == 2;
            ASSERT_EQ(primary_output.pixel(x, y), window ? 0xFF0000u : y % 2 == 0 ? 0x0000FFu : 0u) << x << "," << y;
        }
    }
}

TEST_F(Limits, OfManySurfacesTheDamageIsKeptAsFewerRectangles)
{
    EXPECT_EQ(damage_rects(0), 131072);
    EXPECT_EQ(damage_rects(11), 131072);
    EXPECT_EQ(damage_rects(12), 116508);
    EXPECT_EQ(damage_rects(128), 1024);
    EXPECT_EQ(damage_rects(256), 256);
    EXPECT_EQ(damage_rects(1280), 64);
    EXPECT_EQ(damage_rects(INT_MAX), 64);
    create(client, {.place = {0, 0, 320, 240}, .stride = 1280});
    ask(client, "show");
    mc_connection *other = connect("fb.other");
    create(other, {.place = {0, 0, 320, 240}, .stride = 1280, .level = 1});
    ask(other, "opaque_area", {0, 0, 0, 0});
    ask(other, "set_clip", {0, 0, 1, 1});
    ask(other, "show");
    settle();
    for (const int32_t more : {0, 158}) { // of 160 surfaces 655 are kept
        for (int32_t i = 0; i < more; i++)
            create(connect("fb.more"), {});
        ask(client, "lock_area", {0, 0, 0, 0});
        for (int32_t i = 0; i < 900; i++)
            ask(other, "set_clip", {i % 90 * 3, i / 90 * 3, 1, 1});
        ask(other, "hide");
        primary_output.calls.clear();
        ask(client, "unlock");
        settle();
        ASSERT_EQ(primary_output.updates().size(), 1u);
        EXPECT_EQ(primary_output.updates()[0].size(), more == 0 ? 900u : 1u);
        ask(other, "show");
        settle();
    }
}

} // namespace
