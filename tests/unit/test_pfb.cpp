// SPDX-License-Identifier: MIT
// The client library against a service that notes what it is sent.
#include "pfb.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>

#include "pfb_service.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Strings = std::vector<std::string>;

constexpr int32_t FAR = PFB_COORDINATE_MAX + 1;
const std::string DEPTH = "get_native_color_depth ";

class Pfb : public testing::Test {
protected:
    void SetUp() override
    {
        client = pfb_connect("fb.test");
        ASSERT_NE(client, nullptr) << pfb_error_text();
        pfb_set_timeout(client, 30000);
    }
    void TearDown() override { pfb_disconnect(client); }

    void create(pfb_format format = PFB_FORMAT_XRGB32)
    {
        ASSERT_EQ(pfb_create(client, format, 10, 20, 100, 50, 3, 0), PFB_OK) << pfb_error_text();
        service.take(2);
    }
    // Expects that nothing but this was sent since the last look.
    void expect_sent(Strings requests)
    {
        int depth;
        EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
        requests.push_back(DEPTH);
        EXPECT_EQ(service.take(requests.size()), requests);
    }

    PfbService service;
    pfb_client *client = nullptr;
};

TEST_F(Pfb, EveryRequestGoesOutAsItsPacket)
{
    create();
    EXPECT_EQ(pfb_show(client), PFB_OK);
    EXPECT_EQ(pfb_hide(client), PFB_OK);
    EXPECT_EQ(pfb_move(client, -5, 6), PFB_OK);
    EXPECT_EQ(pfb_resize(client, 100, 49), PFB_OK);
    EXPECT_EQ(pfb_set_layer(client, -7), PFB_OK);
    EXPECT_EQ(pfb_set_clip(client, 1, 2, 3, 0), PFB_OK);
    EXPECT_EQ(pfb_set_opaque_area(client, 4, 5, 6, 7), PFB_OK);
    EXPECT_EQ(pfb_set_color_plane(client, PFB_PLANE_VEIL(128)), PFB_OK);
    EXPECT_EQ(pfb_set_color_plane(client, PFB_PLANE_COLOR(0x0000ff)), PFB_OK);
    EXPECT_EQ(pfb_set_color_plane(client, PFB_PLANE_NONE), PFB_OK);
    EXPECT_EQ(pfb_set_scale(client, 1, 2, 50, 48, -3, 4, 200, 96), PFB_OK);
    EXPECT_EQ(pfb_dirty(client, 8, 9, 10, 11), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 1, 2, 3, 4), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 5, 6, 7, 8), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_set_sync(client, 5), PFB_OK);
    EXPECT_EQ(pfb_set_surface(client, "clock"), PFB_OK);
    EXPECT_EQ(pfb_status(client), PFB_OK);
    EXPECT_EQ(pfb_set_color_format(client, 9), PFB_OK);
    expect_sent({"show ",
                 "hide ",
                 "move ii -5 6",
                 "resize ii 100 49",
                 "set_layer i -7",
                 "set_clip iiii 1 2 3 0",
                 "opaque_area iiii 4 5 6 7",
                 "color_plane i -2130706433",
                 "color_plane i -16776961",
                 "color_plane i -1",
                 "set_scale iiiiiiii 1 2 50 48 -3 4 200 96",
                 "dirty iiii 8 9 10 11",
                 "lock_area iiii 1 2 3 4",
                 "unlock ",
                 "block_until_unlock ",
                 "lock_area iiii 5 6 7 8",
                 "unlock ",
                 "set_sync i 1",
                 "set_surface s clock",
                 "status ",
                 "set_color_format i 9"});
}

TEST_F(Pfb, ColorDepthIsTheAnswer)
{
    int depth = 0;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    EXPECT_EQ(depth, 18);
}

TEST_F(Pfb, CreateSharesItsMemory)
{
    ASSERT_EQ(pfb_create(client, PFB_FORMAT_ARGB32, -10, 20, 101, 50, 3, 270), PFB_OK) << pfb_error_text();
    EXPECT_THAT(service.take(2), ElementsAre("create iiiiiiiiis 1 32 -10 20 101 50 448 3 270 NAME", DEPTH));
    EXPECT_EQ(service.client_name, "fb.test");
    EXPECT_EQ(service.memory.st_size, 448 * 50);
    EXPECT_GE(service.memory.st_blocks * 512, 448 * 50) << "the pages are not there yet";
    EXPECT_EQ(service.first_word, 0u);
    EXPECT_EQ(pfb_stride(client), 448);
    EXPECT_EQ(pfb_width(client), 101);
    EXPECT_EQ(pfb_height(client), 50);
    EXPECT_EQ(static_cast<uint32_t *>(pfb_pixels(client))[1], 0x12345678u);
    memset(pfb_pixels(client), 0xff, 448 * 50);
}

TEST_F(Pfb, FormatsBecomeDepths)
{
    const struct {
        pfb_format format;
        const char *start;
        int32_t stride;
    } cases[] = {{PFB_FORMAT_ARGB32, "create iiiiiiiiis 1 32 ", 192},
                 {PFB_FORMAT_XRGB32, "create iiiiiiiiis 0 32 ", 192},
                 {PFB_FORMAT_RGB16, "create iiiiiiiiis 0 16 ", 128},
                 {PFB_FORMAT_RGB18, "create iiiiiiiiis 0 18 ", 192}};
    for (const auto &c : cases) {
        pfb_client *other = pfb_connect("other");
        ASSERT_EQ(pfb_create(other, c.format, 0, 0, 33, 1, 0, 0), PFB_OK);
        EXPECT_THAT(service.take(2), ElementsAre(StartsWith(c.start), DEPTH));
        EXPECT_EQ(pfb_stride(other), c.stride);
        pfb_disconnect(other);
    }
}

TEST_F(Pfb, MemoryIsOpenToThoseWhoMayConnect)
{
    struct stat socket;
    ASSERT_EQ(stat(service.socket_path().c_str(), &socket), 0);
    if (geteuid() == 0) { // any group will do; another user's process is of one group often
        ASSERT_EQ(chown(service.socket_path().c_str(), static_cast<uid_t>(-1), 12345), 0);
        socket.st_gid = 12345;
    }
    const mode_t before = umask(0777);
    create();
    umask(before);
    EXPECT_EQ(service.memory.st_mode & 07777u, 0660u);
    EXPECT_EQ(service.memory.st_gid, socket.st_gid);
}

TEST_F(Pfb, MemoryHasNoNameWhenTheServerHasIt)
{
    create();
    EXPECT_THAT(service.memory_name, StartsWith("/pfb." + std::to_string(getpid()) + "."));
    EXPECT_EQ(shm_open(service.memory_name.c_str(), O_RDONLY, 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Pfb, RefusesWhatCannotBeCreated)
{
    const std::function<int()> calls[] = {
        [&] { return pfb_create(nullptr, PFB_FORMAT_XRGB32, 0, 0, 1, 1, 0, 0); },
        [&] { return pfb_create(client, static_cast<pfb_format>(2), 0, 0, 1, 1, 0, 0); },
        [&] { return pfb_create(client, PFB_FORMAT_XRGB32, FAR, 0, 1, 1, 0, 0); },
        [&] { return pfb_create(client, PFB_FORMAT_XRGB32, 0, -FAR, 1, 1, 0, 0); },
        [&] { return pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 0, 1, 0, 0); },
        [&] { return pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1, -1, 0, 0); },
        [&] { return pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 32768, 1, 0, 0); },
        [&] { return pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 32767, 32767, 0, 0); },
        [&] { return pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1, 1, 0, 180); },
        [&] { return pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1, 1, 0, 45); },
    };
    for (size_t i = 0; i < std::size(calls); i++)
        EXPECT_EQ(calls[i](), PFB_ERROR_ARGUMENT) << "call " << i;
    EXPECT_EQ(pfb_pixels(client), nullptr);
    expect_sent({});
    create(); // none of them counts as the one surface
    EXPECT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1, 1, 0, 0), PFB_ERROR_STATE);
    expect_sent({});
}

TEST_F(Pfb, RefusesWhatTheServerWouldNotTake)
{
    create();
    const std::string long_name(256, 'x');
    const std::function<int()> calls[] = {
        [&] { return pfb_show(nullptr); },
        [&] { return pfb_move(client, FAR, 0); },
        [&] { return pfb_move(client, 0, INT32_MIN); },
        [&] { return pfb_resize(client, 0, 1); },
        [&] { return pfb_resize(client, 1, -1); },
        [&] { return pfb_resize(client, 101, 50); },
        [&] { return pfb_resize(client, 100, 51); },
        [&] { return pfb_set_clip(client, 0, 0, -1, 1); },
        [&] { return pfb_set_clip(client, 0, FAR, 1, 1); },
        [&] { return pfb_set_opaque_area(client, 0, 0, 1, -1); },
        [&] { return pfb_set_color_plane(client, 0x800000ff); },
        [&] { return pfb_set_color_plane(client, 0); },
        [&] { return pfb_dirty(client, 0, 0, FAR, 1); },
        [&] { return pfb_lock(client, 0, 0, -1, 1); },
        [&] { return pfb_set_surface(client, nullptr); },
        [&] { return pfb_set_surface(client, long_name.c_str()); },
        [&] { return pfb_get_color_depth(client, nullptr); },
        [&] { return pfb_set_timeout(client, -2); },
    };
    for (size_t i = 0; i < std::size(calls); i++)
        EXPECT_EQ(calls[i](), PFB_ERROR_ARGUMENT) << "call " << i;
    expect_sent({});
}

TEST_F(Pfb, AClientWithoutSurfaceActsOnTheSelectedOne)
{
    EXPECT_EQ(pfb_move(client, 1, 2), PFB_OK);
    EXPECT_EQ(pfb_resize(client, 5000, 5000), PFB_OK);
    expect_sent({"move ii 1 2", "resize ii 5000 5000"});
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_ERROR_STATE);
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_ERROR_STATE);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 1, 1, 0, 0, 2, 2), PFB_ERROR_STATE);
    expect_sent({});
}

TEST_F(Pfb, LocksArePairs)
{
    create();
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 2, 2), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
    expect_sent({"lock_area iiii 0 0 1 1", "lock_area iiii 0 0 2 2", "unlock ", "unlock "});
}

TEST_F(Pfb, ABlockTakesALockBeforeItsUnlock)
{
    create();
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_OK); // ends the block and one lock
    EXPECT_EQ(pfb_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
}

TEST_F(Pfb, ALockThatIsNotAnsweredIsTakenBack)
{
    create();
    service.answer(false);
    pfb_set_timeout(client, 50);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_ERROR_TIMEOUT);
    EXPECT_THAT(pfb_error_text(), HasSubstr("taken back"));
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
    EXPECT_THAT(service.take(2), ElementsAre("lock_area iiii 0 0 1 1", "unlock "));
}

TEST_F(Pfb, ALockTakenBackEndsABlock)
{
    create();
    service.answer(false);
    pfb_set_timeout(client, 50);
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_ERROR_TIMEOUT);
    pfb_disconnect(client);
    client = nullptr;
    service.wait_for_hangup();
    EXPECT_THAT(service.take(3), ElementsAre("block_until_unlock ", "lock_area iiii 0 0 1 1", "unlock "));
}

TEST_F(Pfb, DisconnectingEndsABlock)
{
    create();
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    pfb_disconnect(client);
    client = nullptr;
    service.wait_for_hangup();
    EXPECT_THAT(service.take(3), ElementsAre("block_until_unlock ", "lock_area iiii 0 0 0 0", "unlock "));
}

TEST_F(Pfb, DisconnectingLeavesLocksToTheServer)
{
    create();
    EXPECT_EQ(pfb_block_until_unlock(client), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_OK);
    service.take(3);
    pfb_disconnect(client);
    client = nullptr;
    service.wait_for_hangup();
    EXPECT_THAT(service.take(1), ElementsAre("unlock "));
}

TEST_F(Pfb, ScalesWithinItsPixels)
{
    create();
    EXPECT_EQ(pfb_set_scale(client, 51, 0, 50, 50, 0, 0, 10, 10), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, 0, 1, 100, 50, 0, 0, 10, 10), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, -1, 0, 10, 10, 0, 0, 10, 10), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 0, 10, 0, 0, 10, 10), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 10, 10, 0, 0, 10, 0), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 10, 10, 0, 0, 32768, 10), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 10, 10, 0, 0, 32767, 32767), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 10, 10, FAR, 0, 10, 20), PFB_ERROR_ARGUMENT);
    expect_sent({});
}

TEST_F(Pfb, WhileScaledTheDestinationLimits)
{
    create();
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 100, 50, 0, 0, 40, 60), PFB_OK);
    EXPECT_EQ(pfb_resize(client, 40, 60), PFB_OK);
    EXPECT_EQ(pfb_resize(client, 41, 60), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 41, 50, 0, 0, 200, 200), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 40, 50, 0, 0, 200, 200), PFB_OK);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 100, 50, 0, 0, 100, 50), PFB_OK); // ends it
    EXPECT_EQ(pfb_resize(client, 101, 50), PFB_ERROR_ARGUMENT);
    EXPECT_EQ(pfb_resize(client, 100, 50), PFB_OK);
}

TEST_F(Pfb, An18BitSurfaceIsNotScaled)
{
    create(PFB_FORMAT_RGB18);
    EXPECT_EQ(pfb_set_scale(client, 0, 0, 10, 10, 0, 0, 20, 20), PFB_ERROR_ARGUMENT);
    expect_sent({});
}

TEST_F(Pfb, ACreateThatIsNotAnsweredLosesTheClient)
{
    service.answer(false);
    pfb_set_timeout(client, 50);
    EXPECT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1, 1, 0, 0), PFB_ERROR_TIMEOUT);
    EXPECT_EQ(pfb_pixels(client), nullptr);
    EXPECT_EQ(pfb_show(client), PFB_ERROR_STATE);
    EXPECT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 1, 1, 0, 0), PFB_ERROR_STATE);
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH));
}

TEST_F(Pfb, ALateServerStillFindsTheMemory)
{
    service.stall();
    pfb_set_timeout(client, 50);
    EXPECT_EQ(pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, 16, 1, 0, 0), PFB_ERROR_TIMEOUT);
    pfb_disconnect(client);
    client = nullptr;
    service.go_on();
    EXPECT_THAT(service.take(2), ElementsAre(StartsWith("create "), DEPTH));
    EXPECT_EQ(service.memory.st_size, 64);
}

TEST_F(Pfb, SendingWaitsNoLongerThanAllowed)
{
    create();
    service.stall();
    pfb_set_timeout(client, 20);
    size_t sent = 0;
    while (pfb_move(client, static_cast<int32_t>(sent), 0) == PFB_OK && sent < 100000)
        sent++;
    EXPECT_EQ(pfb_error(), PFB_ERROR_TIMEOUT);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_ERROR_TIMEOUT);
    EXPECT_EQ(pfb_unlock(client), PFB_ERROR_STATE);
    service.go_on();
    pfb_set_timeout(client, 30000);
    int depth;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    const Strings requests = service.take(sent + 1);
    ASSERT_EQ(requests.size(), sent + 1) << "what failed was sent all the same";
    EXPECT_EQ(requests[sent - 1], "move ii " + std::to_string(sent - 1) + " 0");
}

TEST_F(Pfb, AServerThatGoesIsNoticed)
{
    create();
    EXPECT_EQ(pfb_set_reconnect(client, 0), PFB_OK);
    EXPECT_EQ(pfb_dispatch(client), PFB_OK);
    EXPECT_EQ(pfb_is_connected(client), 1);
    service.close();
    pollfd entry = {pfb_fd(client), 0, 0};
    EXPECT_EQ(poll(&entry, 1, 30000), 1);
    EXPECT_NE(entry.revents & POLLHUP, 0);
    entry = {pfb_poll_fd(client), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 30000), 1);
    EXPECT_EQ(pfb_is_connected(client), 0);
    EXPECT_EQ(pfb_dispatch(client), PFB_ERROR_GONE);
    EXPECT_EQ(pfb_show(client), PFB_ERROR_GONE);
    EXPECT_EQ(pfb_lock(client, 0, 0, 1, 1), PFB_ERROR_GONE);
    int depth = -1;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_ERROR_GONE);
    EXPECT_EQ(depth, -1);
    memset(pfb_pixels(client), 1, static_cast<size_t>(pfb_stride(client)) * 50); // still there
    EXPECT_EQ(pfb_connect("late"), nullptr);
    EXPECT_EQ(pfb_error(), PFB_ERROR_NO_SERVER);
    EXPECT_EQ(pfb_error_text(),
              "pfb_connect: no server listens at " + service.socket_path() + ": is fbserver running?");
}

TEST_F(Pfb, NamesNeedSomethingThatIsNoDot)
{
    const std::string longest(255, 'n');
    for (const std::string &name : {std::string(), std::string("..."), longest + "n"}) {
        EXPECT_EQ(pfb_connect(name.c_str()), nullptr) << name;
        EXPECT_EQ(pfb_error(), PFB_ERROR_ARGUMENT);
    }
    EXPECT_EQ(pfb_connect(nullptr), nullptr);
    pfb_client *other = pfb_connect(longest.c_str());
    ASSERT_NE(other, nullptr) << pfb_error_text();
    ASSERT_EQ(pfb_create(other, PFB_FORMAT_XRGB32, 0, 0, 1, 1, 0, 0), PFB_OK) << pfb_error_text();
    service.take(2);
    EXPECT_EQ(service.client_name, longest);
    pfb_disconnect(other);
}

TEST_F(Pfb, NothingIsDoneWithNull)
{
    pfb_disconnect(nullptr);
    EXPECT_EQ(pfb_fd(nullptr), -1);
    EXPECT_EQ(pfb_poll_fd(nullptr), -1);
    EXPECT_EQ(pfb_pixels(nullptr), nullptr);
    EXPECT_EQ(pfb_stride(nullptr), 0);
    EXPECT_EQ(pfb_width(nullptr), 0);
    EXPECT_EQ(pfb_height(nullptr), 0);
}

TEST_F(Pfb, EachThreadHasItsOwnError)
{
    EXPECT_EQ(pfb_move(client, FAR, 0), PFB_ERROR_ARGUMENT);
    std::thread([] {
        EXPECT_EQ(pfb_error(), PFB_OK);
        EXPECT_STREQ(pfb_error_text(), "");
        EXPECT_EQ(pfb_show(nullptr), PFB_ERROR_ARGUMENT);
    }).join();
    EXPECT_STREQ(pfb_error_text(), "pfb_move: position 1000001, 0 is not within +-1000000");
}

} // namespace
