// SPDX-License-Identifier: MIT
// Shared memory that is not, or not any more, what "create" said.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "hostile_memory.h"
#include "misbehaviour.h"
#include "pfb.h"

namespace {

constexpr int WIDTH = 150, HEIGHT = 100, STRIDE = 4 * WIDTH;
constexpr off_t WHOLE = off_t{STRIDE} * HEIGHT;
constexpr const char *TOO_SHORT = "is too short: what is missing shows as zero";

// A child that changes the memory's size as fast as it can, whatever the server does with it at that moment.
template <typename Change> pid_t change_without_end(const Change &change)
{
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(1);
    for (unsigned i = 0;; i++)
        change(i);
}

// What the panel shows where ChangingMemory::create puts the surface, row by row; 0 where the bystander's window is.
using Place = std::vector<uint32_t>;

bool is_in_window(int x, int y)
{
    return x >= WINDOW_X && x < WINDOW_X + WINDOW_SIZE && y >= WINDOW_Y && y < WINDOW_Y + WINDOW_SIZE;
}

Place place_on(const PanelView &panel)
{
    Place place;
    for (int y = 5; y < 5 + HEIGHT; y++) {
        for (int x = 5; x < 5 + WIDTH; x++)
            place.push_back(is_in_window(x, y) ? 0 : panel.raw(x, y) & 0xFFFFFF);
    }
    return place;
}

// White as far as so many bytes of memory reach, and what is missing like `rest`.
Place white_until(off_t bytes, const Place &rest)
{
    Place place = rest;
    for (int i = 0; i < WIDTH * HEIGHT && 4 * (off_t{i} + 1) <= bytes; i++)
        place[static_cast<size_t>(i)] = is_in_window(5 + i % WIDTH, 5 + i / WIDTH) ? 0 : 0xFFFFFF;
    return place;
}

constexpr int BYTE = 0xFF; // of white, opaque or not

Place black()
{
    return Place(static_cast<size_t>(WIDTH) * HEIGHT, 0);
}

Place white()
{
    return white_until(WHOLE, black());
}

// In a client that goes on without end.
void require(bool holds, const char *what)
{
    if (!holds)
        throw std::runtime_error(what); // ends it, which is a failure
}

void require_shown(mc_connection *connection, const PanelView &panel, const Place &place, const char *what)
{
    send_dirty(connection, WIDTH, HEIGHT);
    require(settles(connection) && place_on(panel) == place, what);
}

// The memory of each surface is whole when it is shown, and is cut at any moment of the frames after that; what is
// covered by zeros once stays so, and the next surface begins anew.
void truncate_mid_frame(Stage &stage)
{
    const SharedCount surfaces;
    const Place below = place_on(stage.panel());
    stage.until_updates(30, [&](std::atomic<unsigned long> &done) {
        for (;;) {
            const ChangingMemory memory(WHOLE);
            memory.fill(WHOLE, BYTE);
            mc_connection *connection = mc_connect("pfb", "fb.cut");
            memory.create(connection, WIDTH, HEIGHT, STRIDE, 1);
            require_shown(connection, stage.panel(), white(), "what is there is not drawn");
            const pid_t cutter = change_without_end([&](unsigned i) {
                memory.resize(i % 8 == 7 ? WHOLE : WHOLE - off_t{4096} * (i % 8 + 1));
                done++;
            });
            for (int frame = 0; frame < 5; frame++) {
                send_dirty(connection, WIDTH, HEIGHT);
                is_answered(connection);
            }
            kill(cutter, SIGKILL);
            program_wait(cutter);
            memory.resize(0);
            require_shown(connection, stage.panel(), below, "what is missing is seen");
            (*surfaces)++;
            mc_close(connection);
        }
    });
    // The last one may have been killed with its line or without.
    stage.expect_line({TOO_SHORT, *surfaces, *surfaces + 1});
}

void grow_and_shrink(Stage &stage)
{
    const Place below = place_on(stage.panel());
    stage.until_updates(30, [&](std::atomic<unsigned long> &done) {
        const ChangingMemory memory(WHOLE);
        memory.fill(WHOLE, BYTE);
        mc_connection *connection = mc_connect("pfb", "fb.breathing");
        memory.create(connection, WIDTH, HEIGHT, STRIDE, 1);
        require_shown(connection, stage.panel(), white(), "what is there is not drawn");
        for (const off_t bytes : {off_t{8 * 4096}, off_t{0}}) {
            memory.resize(bytes);
            require_shown(connection, stage.panel(), white_until(bytes, below), "what is missing is seen");
        }
        memory.resize(WHOLE);
        memory.fill(WHOLE, BYTE);
        require_shown(connection, stage.panel(), below, "what was missing once does not stay zero");
        change_without_end([&](unsigned i) {
            memory.resize(WHOLE * (i % 2) * 3);
            done++;
        });
        for (;;) {
            send_dirty(connection, WIDTH, HEIGHT);
            is_answered(connection);
        }
    });
}

void too_small(Stage &stage)
{
    stage.in_process([&] {
        const Place below = place_on(stage.panel());
        for (int i = 0; i < 50; i++) {
            const off_t bytes = i % 3 == 0 ? 0 : i * 100;
            const bool alpha = i % 2 == 1;
            const ChangingMemory memory(bytes);
            memory.fill(bytes, BYTE);
            mc_connection *connection = mc_connect("pfb", "fb.small");
            memory.create(connection, WIDTH, HEIGHT, STRIDE, alpha);
            EXPECT_TRUE(settles(connection));
            EXPECT_TRUE(place_on(stage.panel()) == white_until(bytes, alpha ? below : black())) << i;
            mc_close(connection);
            stage.done()++;
        }
    });
}

// All that lies inside of the memory is white. A row begins `stride` bytes behind the one before, wherever that ends.
void expect_existing(const Place &place, int stride)
{
    const Place whole = white();
    for (int y = 0; y < HEIGHT; y++) {
        const int there = std::min(stride * (HEIGHT - y) / 4, WIDTH);
        for (int x = 0; x < there; x++) {
            const auto i = static_cast<size_t>(y * WIDTH + x);
            ASSERT_EQ(place[i], whole[i]) << "stride " << stride << ": " << x << "," << y;
        }
    }
}

void odd_strides(Stage &stage)
{
    stage.in_process([&] {
        for (const int stride : {1, 3, 5, 64, 599, 601, 4096, 65536}) {
            for (const int alpha : {0, 1}) {
                const ChangingMemory memory(off_t{stride} * HEIGHT);
                memory.fill(off_t{stride} * HEIGHT, BYTE);
                mc_connection *connection = mc_connect("pfb", "fb.odd");
                memory.create(connection, WIDTH, HEIGHT, stride, alpha);
                send_dirty(connection, WIDTH, HEIGHT);
                EXPECT_TRUE(settles(connection));
                expect_existing(place_on(stage.panel()), stride);
                mc_close(connection);
                stage.done()++;
            }
        }
    });
}

off_t room_in_shared_memory()
{
    struct statvfs space {};
    EXPECT_EQ(statvfs("/dev/shm", &space), 0) << strerror(errno);
    return static_cast<off_t>(space.f_bavail * space.f_frsize);
}

// Where no /dev/shm of one's own can be had, a limit on the size of files stands in for one that is full: the library
// finds out in the same place, and pages that cannot be had look like pages that are missing.
void shared_memory_full(Stage &stage)
{
    const bool own = stage.has_small_memory();
    stage.in_process([&] {
        if (!own) {
            signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{4096, 4096};
            EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        }
        for (int i = 0; i < 10; i++) {
            EXPECT_TRUE(wait_until([] { return room_in_shared_memory() > 0; })) << "all of it is still there";
            const ChangingMemory memory(own ? off_t{8} << 20 : 4096);
            memory.fill(4096, BYTE);
            const ChangingMemory others(own ? room_in_shared_memory() : 0);
            others.fill(own ? room_in_shared_memory() : 0, BYTE);
            mc_connection *connection = mc_connect("pfb", "fb.greedy");
            memory.create(connection, 1024, 2048, 4096, 0);
            EXPECT_TRUE(settles(connection));
            EXPECT_TRUE(place_on(stage.panel()) == white_until(STRIDE, black())) << i; // the first row
            pfb_client *client = pfb_connect("fb.careful");
            EXPECT_NE(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1024, 1024, 0, 0), PFB_OK);
            EXPECT_NE(strstr(pfb_error_text(), own ? "No space left on device" : "File too large"), nullptr)
                << pfb_error_text();
            send_word(connection, "status");
            EXPECT_TRUE(is_answered(connection));
            EXPECT_EQ(count_of(stage.out(), "name=fb.greedy"), static_cast<size_t>(i) + 1);
            EXPECT_EQ(count_of(stage.out(), "name=fb.careful"), 0u) << "it has sent something";
            pfb_disconnect(client);
            mc_close(connection);
            stage.done()++;
        }
    });
}

constexpr size_t ORPHANS = 16;

// What surfaces without an owner may have together: as docs/robustness.md says it, worked out anew.
off_t bound_of_orphans()
{
    struct statvfs space {};
    EXPECT_EQ(statvfs("/dev/shm", &space), 0) << strerror(errno);
    const off_t machine = off_t{sysconf(_SC_PHYS_PAGES)} * sysconf(_SC_PAGESIZE);
    const off_t most = sizeof(void *) > 4 ? off_t{16} << 30 : off_t{256} << 20;
    return std::min({most, machine / 8, static_cast<off_t>(space.f_blocks * space.f_frsize) / 4});
}

// Where no /dev/shm of one's own can be had, the objects have their size, which is what counts, and no pages.
void memory_of_orphans(Stage &stage)
{
    constexpr int ROW = 4096, ATTEMPTS = 64;
    const bool own = stage.has_small_memory();
    stage.in_process([&] {
        const off_t before = room_in_shared_memory();
        const int rows = static_cast<int>(bound_of_orphans() / static_cast<off_t>(ORPHANS) / ROW);
        const off_t bytes = off_t{ROW} * rows;
        mc_connection *connection = mc_connect("pfb", "fb.orphan");
        for (int i = 0; i < ATTEMPTS; i++) {
            const ChangingMemory memory(bytes);
            memory.fill(own ? bytes : 0, BYTE);
            memory.create_hidden(connection, ROW / 4, rows, ROW, 0);
            EXPECT_TRUE(is_answered(connection));
            stage.done()++;
        }
        mc_connection *other = mc_connect("pfb", "fb.formless");
        for (int i = 0; i < ATTEMPTS; i++) {
            const ChangingMemory memory(bytes);
            memory.fill(own ? bytes : 0, BYTE);
            memory.create_hidden(other, ROW / 4, rows, ROW, 0, 24);
            EXPECT_TRUE(is_answered(other));
            stage.done()++;
        }
        // Its own surface, and those without an owner.
        if (own) {
            EXPECT_EQ(before - room_in_shared_memory(), bytes * static_cast<off_t>(ORPHANS + 1));
        }
        pfb_client *client = pfb_connect("fb.careful");
        EXPECT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1024, own ? 8192 : 1024, 0, 0), PFB_OK)
            << pfb_error_text(); // half of all there is
        pfb_disconnect(client);
        mc_close(other);
        mc_close(connection);
    });
    const std::string are_enough = std::to_string(ORPHANS) + " without an owner are enough";
    EXPECT_EQ(count_of(stage.out(), "create: refused: the connection has a surface, and " + are_enough),
              ATTEMPTS - ORPHANS - 1);
    EXPECT_EQ(count_of(stage.out(), "create: its memory is given back: " + std::to_string(ORPHANS) +
                                        " mappings without an owner are enough"),
              static_cast<size_t>(ATTEMPTS));
}

} // namespace

std::vector<Misbehaviour> memory_rows()
{
    return {
        {"TruncateMidFrame",
         "cuts its memory short again and again while it is drawn, several times a frame",
         "what is missing shows as zero, with one line for each surface",
         "truncations",
         {},
         truncate_mid_frame},
        {"GrowAndShrink",
         "grows and shrinks its memory without end",
         "what was missing once shows as zero, with one line",
         "changes",
         {times(1, TOO_SHORT)},
         grow_and_shrink},
        {"TooSmall",
         "has less memory than it said, or none",
         "the pixels that exist are drawn, the others as zero, with one line for each surface",
         "surfaces",
         {times(50, TOO_SHORT)},
         too_small},
        {"OddStrides",
         "gives rows that overlap, or bytes that are no whole pixels",
         "the pixels that exist are drawn",
         "surfaces",
         {},
         odd_strides},
        {"SharedMemoryFull",
         "finds /dev/shm full, or has pages there that cannot be had any more",
         "libpfb says so before anything is sent; the missing pages show as zero, with one line for each surface",
         "surfaces",
         {times(10, "what is missing shows as zero")},
         shared_memory_full,
         {.room = "512k"}},
        {"MemoryOfOrphans",
         "makes one large surface after the other on its connection, each of which leaves the last one without an "
         "owner; or memory of a depth that no surface has",
         "beyond what such memory may have (below: Limits) refused or given back, with a line each time; the others "
         "get theirs",
         "surfaces",
         {},
         memory_of_orphans,
         {.room = "64m", .orphans = ORPHANS}},
    };
}
