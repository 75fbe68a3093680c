// SPDX-License-Identifier: MIT
// What the system refuses the client: memory for two surfaces at once, and the group of those who may connect.
#include "pfb_recovery.h"

#include <algorithm>

#include "pfb_system.h"

namespace {

using testing::ElementsAre;
using testing::StartsWith;

using PfbSystemTest = PfbRecovery;

// One and a half surfaces fit into /dev/shm: the pixels wait elsewhere until the old one is gone.
TEST_F(PfbSystemTest, ASurfaceComesBackWhereItFitsOnlyOnce)
{
    create();
    auto *pixels = static_cast<uint32_t *>(pfb_pixels(client));
    pixels[0] = 0xabcdef01;
    pixels[112 * 49 + 99] = 0x10203040;
    pfb_system.room = 448 * 50 * 3 / 2;
    for (int i = 0; i < 2; i++) {
        EXPECT_THAT(sent_after_the_end(), ElementsAre(StartsWith("create "), DEPTH));
        EXPECT_EQ(pfb_pixels(client), pixels);
        EXPECT_EQ(service.first_word, 0xabcdef01);
        EXPECT_EQ(std::exchange(pixels[1], 0), 0x12345678u) << "the new server's memory is not the one at the address";
        EXPECT_EQ(pixels[112 * 49 + 99], 0x10203040u);
    }
}

// Nothing fits for a while. What is drawn meanwhile is there afterwards.
TEST_F(PfbSystemTest, PixelsThatFitNowhereWait)
{
    create();
    auto *pixels = static_cast<uint32_t *>(pfb_pixels(client));
    service.close();
    service.take(0);
    pfb_system.room = 100;
    service.open();
    EXPECT_TRUE(dispatch_until([&] { return wakeups > 4; }));
    EXPECT_EQ(pfb_is_connected(client), 0);
    EXPECT_EQ(pfb_pixels(client), pixels);
    pixels[0] = 0x12121212;
    EXPECT_EQ(shared_objects(), 0u);
    pfb_system.room = -1;
    EXPECT_TRUE(come_back());
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH));
    EXPECT_EQ(service.first_word, 0x12121212u);
}

// A profiler's timer, say, that comes more often than memory of this size is had.
TEST_F(PfbSystemTest, SignalsDoNotKeepALargeSurfaceFromItsMemory)
{
    pfb_system.unbroken = 1 << 18;
    EXPECT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1000, 1001, 0, 0), PFB_OK) << pfb_error_text();
    EXPECT_EQ(service.memory.st_size, 4032 * 1001);
    EXPECT_GE(service.memory.st_blocks * 512, service.memory.st_size) << "not all of it is there";
}

int create_one(pfb_client *client)
{
    return pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 10, 10, 0, 0);
}

// Root opens everything, and so it does not matter whose group the memory is of.
TEST_F(PfbSystemTest, AServerOfRootOpensMemoryOfAnyGroup)
{
    pfb_system.peer = ucred{getpid(), 0, 0};
    pfb_system.gives_groups = false;
    EXPECT_EQ(create_one(client), PFB_OK) << pfb_error_text();
    EXPECT_EQ(service.memory.st_mode & 07777u, 0600u);
}

// The socket of a service manager says nothing about the server's user: it may be one who cannot open the memory, and
// would stop.
TEST_F(PfbSystemTest, BehindASocketOfTheServiceManagerTheGroupDecides)
{
    pfb_system.peer = ucred{1, 0, 0};
    pfb_system.gives_groups = false;
    EXPECT_EQ(create_one(client), PFB_ERROR_ACCESS);
    EXPECT_STREQ(pfb_error_text(),
                 "pfb_create: the server may be any user, and this process is not of the group of its socket");
    EXPECT_EQ(shared_objects(), 0u);
    pfb_system.gives_groups = true;
    pfb_system.peer = ucred{1, geteuid(), getegid()};
    EXPECT_EQ(create_one(client), PFB_OK) << pfb_error_text();
    EXPECT_EQ(service.memory.st_mode & 07777u, 0660u);
}

} // namespace
