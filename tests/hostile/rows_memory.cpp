// SPDX-License-Identifier: MIT
// Shared memory that is not, or not any more, what "create" said.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "hostile_memory.h"
#include "misbehaviour.h"
#include "pfb.h"

namespace {

constexpr int WIDTH = 150, HEIGHT = 100, STRIDE = 4 * WIDTH;
constexpr off_t WHOLE = off_t{STRIDE} * HEIGHT;

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

// The memory of each surface is whole when it is shown, and is cut at any moment of the frames after that; what is
// covered by zeros once stays so, and the next surface begins anew.
void truncate_mid_frame(Stage &stage)
{
    stage.until_updates(30, [](std::atomic<unsigned long> &done) {
        for (;;) {
            const ChangingMemory memory(WHOLE);
            mc_connection *connection = mc_connect("pfb", "fb.cut");
            memory.create(connection, WIDTH, HEIGHT, STRIDE, 1);
            is_answered(connection);
            const pid_t cutter = change_without_end([&](unsigned i) {
                memory.resize(i % 8 == 7 ? WHOLE : WHOLE - off_t{4096} * (i % 8 + 1));
                done++;
            });
            for (int frame = 0; frame < 5; frame++) {
                send_dirty(connection, WIDTH, HEIGHT);
                is_answered(connection);
            }
            memory.resize(0);
            send_dirty(connection, WIDTH, HEIGHT);
            is_answered(connection);
            kill(cutter, SIGKILL);
            program_wait(cutter);
            mc_close(connection);
        }
    });
}

void grow_and_shrink(Stage &stage)
{
    stage.until_updates(30, [](std::atomic<unsigned long> &done) {
        const ChangingMemory memory(WHOLE);
        mc_connection *connection = mc_connect("pfb", "fb.breathing");
        memory.create(connection, WIDTH, HEIGHT, STRIDE, 1);
        is_answered(connection);
        memory.resize(0);
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
        for (int i = 0; i < 50; i++) {
            const ChangingMemory memory(i % 3 == 0 ? 0 : 1 + i * 100);
            mc_connection *connection = mc_connect("pfb", "fb.small");
            memory.create(connection, WIDTH, HEIGHT, STRIDE, i % 2);
            EXPECT_TRUE(is_answered(connection));
            send_dirty(connection, WIDTH, HEIGHT);
            EXPECT_TRUE(is_answered(connection));
            mc_close(connection);
            stage.done()++;
        }
    });
}

void odd_strides(Stage &stage)
{
    stage.in_process([&] {
        for (const int stride : {1, 3, 5, 64, 599, 601, 4096, 65536}) {
            for (const int alpha : {0, 1}) {
                const ChangingMemory memory(off_t{stride} * HEIGHT);
                mc_connection *connection = mc_connect("pfb", "fb.odd");
                memory.create(connection, WIDTH, HEIGHT, stride, alpha);
                send_dirty(connection, WIDTH, HEIGHT);
                EXPECT_TRUE(is_answered(connection));
                mc_close(connection);
                stage.done()++;
            }
        }
    });
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
            const ChangingMemory memory(own ? off_t{8} << 20 : 4096);
            mc_connection *connection = mc_connect("pfb", "fb.greedy");
            memory.create(connection, 1024, 2048, 4096, 0);
            for (int y = 0; y < 4; y++)
                send_dirty(connection, 1024, 2048);
            EXPECT_TRUE(is_answered(connection));
            pfb_client *client = pfb_connect("fb.careful");
            EXPECT_NE(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1024, 1024, 0, 0), PFB_OK);
            pfb_disconnect(client);
            mc_close(connection);
            stage.done()++;
        }
    });
}

} // namespace

std::vector<Misbehaviour> memory_rows()
{
    const char *const missing = "what is missing shows as zero";
    const char *const too_short = "is too short: what is missing shows as zero";
    return {
        {"TruncateMidFrame",
         "cuts its memory short again and again while it is drawn, several times a frame",
         "what is missing shows as zero, with one line",
         "truncations",
         {too_short},
         truncate_mid_frame},
        {"GrowAndShrink",
         "grows and shrinks its memory without end",
         "what was missing once shows as zero, with one line",
         "changes",
         {too_short},
         grow_and_shrink},
        {"TooSmall",
         "has less memory than it said, or none",
         "the pixels that exist are drawn, with one line",
         "surfaces",
         {too_short},
         too_small},
        {"OddStrides",
         "gives rows that overlap, or bytes that are no whole pixels",
         "the pixels that exist are drawn",
         "surfaces",
         {},
         odd_strides},
        {"SharedMemoryFull",
         "finds /dev/shm full, or has pages there that cannot be had any more",
         "libpfb says so before anything is sent; the missing pages show as zero, with one line",
         "surfaces",
         {missing},
         shared_memory_full,
         {.small_memory = true}},
    };
}
