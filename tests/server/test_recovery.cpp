// SPDX-License-Identifier: MIT
// The server ends and is started again on the same panel; its clients, ten of all kinds, get over it by themselves.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <poll.h>
#include <regex>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "../support/composer.h"
#include "../support/lasting_panel.h"
#include "pfb.h"

namespace {

constexpr int WIDTH = 160;
constexpr int HEIGHT = 120;
// More than the server handles of one connection in one turn of its main loop: what was due before is drawn then.
constexpr int QUESTIONS_TO_SETTLE = 80;

// What the server prints about its surfaces, when it is asked; but for what is still to be drawn.
std::string status_of(const LastingPanel &panel, pfb_client *client)
{
    const size_t before = panel.out().size();
    EXPECT_EQ(pfb_status(client), PFB_OK);
    int depth;
    EXPECT_EQ(pfb_get_color_depth(client, &depth), PFB_OK);
    return std::regex_replace(panel.out().substr(before), std::regex("dirty=."), "");
}

// A client of the library, with its picture.
class Client {
public:
    Client(const char *name, const Pixels &pixels, int x, int y, int level, int rotation = 0)
    {
        EXPECT_TRUE(wait_until([&] { return (client = pfb_connect(name)) != nullptr; })) << pfb_error_text();
        pfb_set_timeout(client, WAIT_SECONDS * 1000);
        static constexpr pfb_format formats[] = {PFB_FORMAT_ARGB32, PFB_FORMAT_XRGB32, PFB_FORMAT_RGB16,
                                                 PFB_FORMAT_RGB18};
        EXPECT_EQ(pfb_create(client, formats[static_cast<int>(pixels.format)], x, y, pixels.width, pixels.height, level,
                             rotation),
                  PFB_OK)
            << pfb_error_text();
        address = pfb_pixels(client);
        draw(pixels);
        pfb_set_event_func(
            client,
            [](pfb_client *, pfb_event event, void *self) {
                static_cast<Client *>(self)->events[static_cast<int>(event)]++;
            },
            this);
    }
    ~Client() { pfb_disconnect(client); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void draw(const Pixels &pixels)
    {
        for (int y = 0; y < pixels.height; y++)
            memcpy(static_cast<char *>(pfb_pixels(client)) + ptrdiff_t{y} * pfb_stride(client),
                   pixels.bytes.data() + ptrdiff_t{y} * pixels.stride, static_cast<size_t>(pixels.stride));
    }
    // Waits until what is due is drawn.
    void settle()
    {
        int depth;
        for (int i = 0; i < QUESTIONS_TO_SETTLE; i++)
            ASSERT_EQ(pfb_get_color_depth(client, &depth), PFB_OK) << pfb_error_text();
    }

    pfb_client *client = nullptr;
    void *address = nullptr;
    int events[4] = {};
};

using Clients = std::vector<std::unique_ptr<Client>>;

// The main loop of an application that holds all of them.
bool dispatch_until(const Clients &clients, const std::function<bool()> &done)
{
    return wait_until([&] {
        std::vector<pollfd> entries;
        for (const auto &c : clients)
            entries.push_back({pfb_poll_fd(c->client), POLLIN, 0});
        poll(entries.data(), entries.size(), 1);
        for (size_t i = 0; i < entries.size(); i++) {
            if (entries[i].revents != 0) {
                EXPECT_EQ(pfb_dispatch(clients[i]->client), PFB_OK);
            }
        }
        return done();
    });
}

bool all_connected(const Clients &clients)
{
    for (const auto &c : clients) {
        if (pfb_is_connected(c->client) == 0)
            return false;
    }
    return true;
}

Pixels photograph(PixelFormat format, int width, int height, uint32_t seed)
{
    return pixels_photograph(format, width, height, seed);
}

// One of each kind of state, each on a level of its own.
Clients ten_clients(int rotation = 0)
{
    Clients all;
    const auto add = [&](const char *name, const Pixels &pixels, int x, int y) {
        all.push_back(std::make_unique<Client>(name, pixels, x, y, static_cast<int>(all.size()), rotation));
        return all.back()->client;
    };
    pfb_client *c = add("fb.background", photograph(PixelFormat::XRGB, WIDTH, WIDTH, 1), 0, 0);
    pfb_show(c);
    c = add("fb.moved", pixels_random(PixelFormat::RGB565, 71, 53, 2), 0, 0);
    pfb_show(c);
    pfb_move(c, 20, 15);
    c = add("fb.wide", pixels_random(PixelFormat::RGB666, 40, 33, 3), 75, 50);
    pfb_show(c);
    c = add("fb.opaque", photograph(PixelFormat::ARGB, 60, 40, 4), 10, 60);
    pfb_set_opaque_area(c, 5, 5, 20, 20);
    pfb_set_sync(c, 1);
    pfb_show(c);
    c = add("fb.glass", pixels_random(PixelFormat::ARGB, 97, 64, 5), 40, 30);
    pfb_show(c);
    c = add("fb.scaled", photograph(PixelFormat::XRGB, 30, 20, 6), 0, 0);
    pfb_show(c);
    pfb_set_scale(c, 2, 3, 25, 15, 90, 5, 55, 41);
    pfb_move(c, 88, 7);
    pfb_resize(c, 50, 30);
    c = add("fb.clipped", photograph(PixelFormat::XRGB, 60, 60, 7), 60, 60);
    pfb_set_clip(c, 70, 80, 30, 100);
    pfb_show(c);
    c = add("fb.colour", pixels_new(PixelFormat::ARGB, 30, 30), 5, 5);
    pfb_set_color_plane(c, PFB_PLANE_COLOR(0x204080));
    pfb_show(c);
    c = add("fb.veil", pixels_new(PixelFormat::ARGB, 80, 20), 30, 20);
    pfb_set_color_plane(c, PFB_PLANE_VEIL(100));
    pfb_show(c);
    c = add("fb.hidden", pixels_random(PixelFormat::RGB565, 50, 50, 8), 50, 50);
    pfb_show(c);
    pfb_resize(c, 40, 45);
    pfb_set_layer(c, 30);
    pfb_hide(c);
    return all;
}

// Everything is drawn in one pass, whatever was drawn before.
Picture picture_of(const LastingPanel &panel, const Clients &clients)
{
    pfb_hide(clients[0]->client);
    pfb_show(clients[0]->client);
    clients[0]->settle();
    return panel.view().picture();
}

void expect_same_pixels(const Clients &clients)
{
    for (const auto &c : clients)
        EXPECT_EQ(pfb_pixels(c->client), c->address);
}

std::string own_prefix()
{
    return "pfb." + std::to_string(getpid()) + ".";
}

// Names of shared memory that no server has taken yet.
size_t own_objects()
{
    size_t n = 0;
    for (const std::string &name : folder_entries("/dev/shm"))
        n += name.rfind(own_prefix(), 0) == 0 ? 1 : 0;
    return n;
}

void survive(int signal_number, const ServerOptions &options, int rotation)
{
    LastingPanel panel(options);
    panel.start_server();
    const Clients clients = ten_clients(rotation);
    const Picture before = picture_of(panel, clients);
    const std::string status = status_of(panel, clients[0]->client);
    EXPECT_NE(status.find("fb.hidden"), std::string::npos) << status;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(panel.stop_server(signal_number), 128 + signal_number);
    panel.erase();
    panel.start_server();
    EXPECT_TRUE(dispatch_until(clients, [&] { return panel.view().picture() == before; }));
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    printf("from the signal to the full picture: %.0f ms\n", took.count());
    EXPECT_TRUE(dispatch_until(clients, [&] { return all_connected(clients); }));
    EXPECT_EQ(picture_difference(picture_of(panel, clients), before), "");
    EXPECT_EQ(status_of(panel, clients[0]->client), status);
    expect_same_pixels(clients);
    for (const auto &c : clients) {
        EXPECT_EQ(c->events[PFB_EVENT_LOST], 1);
        EXPECT_EQ(c->events[PFB_EVENT_RESTORED], 1);
        EXPECT_EQ(c->events[PFB_EVENT_REDUCED], 0);
    }
    // The hidden one is there too, in its place and size, and its memory is the new server's.
    Client &hidden = *clients.back();
    hidden.draw(pixels_filled(PixelFormat::RGB565, 50, 50, 0xF81F));
    pfb_show(hidden.client);
    hidden.settle();
    const Picture after = panel.view().picture();
    if (rotation == 0) {
        EXPECT_EQ(after.at(50, 50), 0xF800F8u);
        EXPECT_EQ(after.at(89, 94), 0xF800F8u);
        EXPECT_NE(after.at(90, 94), 0xF800F8u);
    } else {
        EXPECT_NE(after, before);
    }
}

} // namespace

TEST(Recovery, TenClientsSurviveTheServersAbort)
{
    survive(SIGABRT, {}, 0);
}

TEST(Recovery, TenClientsSurviveAKilledServer)
{
    survive(SIGKILL, {}, 0);
}

TEST(Recovery, TenClientsSurviveOnATurnedDisplay)
{
    survive(SIGKILL, {}, 270);
}

TEST(Recovery, AClientThatOnlyDrawsComesBack)
{
    LastingPanel panel;
    panel.start_server();
    Client client("fb.drawing", pixels_new(PixelFormat::XRGB, WIDTH, HEIGHT), 0, 0, 0);
    pfb_show(client.client);
    panel.stop_server(SIGKILL);
    panel.erase();
    uint32_t shade = 0;
    const auto draw_frame = [&] {
        shade = (shade + 1) & 0xFF;
        EXPECT_EQ(pfb_lock(client.client, 0, 0, WIDTH, HEIGHT), PFB_OK);
        client.draw(pixels_filled(PixelFormat::XRGB, WIDTH, HEIGHT, 0xFF000000 | shade * 0x10101));
        EXPECT_EQ(pfb_unlock(client.client), PFB_OK);
    };
    for (int i = 0; i < 20; i++)
        draw_frame();
    panel.start_server();
    EXPECT_TRUE(wait_until([&] {
        draw_frame();
        return client.events[PFB_EVENT_RESTORED] == 1;
    }));
    draw_frame();
    client.settle();
    EXPECT_EQ(panel.view().picture().at(0, 0), shade * 0x10101);
    EXPECT_EQ(panel.view().picture().at(WIDTH - 1, HEIGHT - 1), shade * 0x10101);
}

// The server ends in the midst of a drawing under two locks: nothing is drawn until both are given back.
TEST(Recovery, OutstandingLocksComeBack)
{
    LastingPanel panel;
    panel.start_server();
    Clients clients;
    clients.push_back(
        std::make_unique<Client>("fb.locked", pixels_filled(PixelFormat::XRGB, WIDTH, HEIGHT, 0xFF00FF00), 0, 0, 0));
    clients.push_back(
        std::make_unique<Client>("fb.other", pixels_filled(PixelFormat::XRGB, 20, 20, 0xFFFF0000), 0, 0, 1));
    pfb_client *locked = clients[0]->client;
    for (const auto &c : clients)
        pfb_show(c->client);
    pfb_lock(locked, 0, 0, WIDTH, HEIGHT);
    pfb_lock(locked, 0, 0, 1, 1);
    panel.stop_server(SIGKILL);
    panel.erase();
    panel.start_server();
    EXPECT_TRUE(dispatch_until(clients, [&] { return pfb_is_connected(locked) == 1; }));
    EXPECT_TRUE(dispatch_until(clients, [&] { return all_connected(clients); }));
    const auto blue = [&] { return panel.view().picture().at(80, 60); };
    clients[0]->settle();
    EXPECT_EQ(blue(), 0u) << "drawn in spite of the locks";
    clients[0]->draw(pixels_filled(PixelFormat::XRGB, WIDTH, HEIGHT, 0xFF0000FF));
    EXPECT_EQ(pfb_unlock(locked), PFB_OK);
    clients[0]->settle();
    EXPECT_EQ(blue(), 0u) << "one lock has got lost";
    EXPECT_EQ(pfb_unlock(locked), PFB_OK);
    clients[0]->settle();
    EXPECT_EQ(blue(), 0x0000FFu);
    EXPECT_EQ(panel.view().picture().at(10, 10), 0xFF0000u);
    EXPECT_EQ(pfb_unlock(locked), PFB_ERROR_STATE);
}

// A block comes back as well: without it the server would end over the unlock, or over the end of the connection.
TEST(Recovery, AnOutstandingBlockComesBack)
{
    LastingPanel panel;
    panel.start_server();
    Client client("fb.blocking", pixels_filled(PixelFormat::XRGB, WIDTH, HEIGHT, 0xFF00FF00), 0, 0, 0);
    pfb_show(client.client);
    pfb_block_until_unlock(client.client);
    panel.stop_server(SIGABRT);
    panel.erase();
    panel.start_server();
    client.settle();
    EXPECT_EQ(client.events[PFB_EVENT_RESTORED], 1);
    EXPECT_TRUE(panel.view().is_black());
    EXPECT_EQ(pfb_lock(client.client, 0, 0, 1, 1), PFB_OK);
    EXPECT_EQ(pfb_unlock(client.client), PFB_OK);
    client.settle();
    EXPECT_EQ(panel.view().picture().at(80, 60), 0x00FF00u);
    EXPECT_EQ(pfb_block_until_unlock(client.client), PFB_OK);
    panel.stop_server(SIGKILL);
    panel.start_server();
    EXPECT_EQ(pfb_get_color_depth(client.client, &client.events[0]), PFB_OK);
}

// The display is turned as the last one back expects it. When that is another turn than the shown one's, the picture
// stands still until a surface of the right turn comes and goes, as pfb.h says.
TEST(Recovery, TheLastOneBackTurnsTheDisplay)
{
    LastingPanel panel;
    panel.start_server();
    Client hidden("fb.hidden", pixels_new(PixelFormat::XRGB, 10, 10), 0, 0, 0, 0);
    Client shown("fb.shown", pixels_new(PixelFormat::XRGB, HEIGHT, WIDTH), 0, 0, 1, 90);
    pfb_show(shown.client);
    const auto colour_after_drawing = [&](uint32_t colour) {
        shown.draw(pixels_filled(PixelFormat::XRGB, HEIGHT, WIDTH, 0xFF000000 | colour));
        pfb_dirty(shown.client, 0, 0, HEIGHT, WIDTH);
        shown.settle();
        return panel.view().picture().at(80, 60);
    };
    const auto come_back = [&](Client &first, Client &second) {
        panel.stop_server(SIGKILL);
        panel.start_server();
        first.settle();
        second.settle();
    };
    come_back(hidden, shown);
    EXPECT_EQ(colour_after_drawing(0x0000FF), 0x0000FFu) << "in the order in which they were made";
    come_back(shown, hidden);
    EXPECT_EQ(colour_after_drawing(0x00FF00), 0x0000FFu) << "the display is not turned as the last one back expects it";
    {
        const Client remedy("fb.remedy", pixels_new(PixelFormat::XRGB, 1, 1), 0, 0, 2, 90);
    }
    EXPECT_EQ(colour_after_drawing(0x00FF00), 0x00FF00u);
}

TEST(Recovery, ServersThatComeAndGoLeaveNothingBehind)
{
    LastingPanel panel;
    panel.start_server();
    const Clients clients = ten_clients();
    const Picture before = picture_of(panel, clients);
    const size_t descriptors = process_descriptors(getpid());
    const auto mappings = [&] { return count_of(file_text("/proc/self/maps"), "/dev/shm/" + own_prefix()); };
    EXPECT_EQ(mappings(), clients.size());
    for (int i = 0; i < 3; i++) {
        panel.stop_server(SIGKILL);
        panel.erase();
        panel.start_server();
        EXPECT_TRUE(dispatch_until(clients, [&] { return all_connected(clients); }));
    }
    EXPECT_EQ(picture_difference(picture_of(panel, clients), before), "");
    EXPECT_EQ(process_descriptors(getpid()), descriptors);
    EXPECT_EQ(mappings(), clients.size()) << "the old memory is still mapped";
    EXPECT_EQ(own_objects(), 0u);
    expect_same_pixels(clients);
}

// As a service manager holds it. Clients connect again before there is a server, and the next one finds them waiting.
TEST(Recovery, TheSocketOutlivesTheServer)
{
    LastingPanel panel;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s/pfb.mc", panel.folder().c_str());
    const int held = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(held, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    ASSERT_EQ(listen(held, SOMAXCONN), 0) << strerror(errno);
    panel.start_server(held);
    {
        const Clients clients = ten_clients();
        const Picture before = picture_of(panel, clients);
        panel.stop_server(SIGABRT);
        panel.erase();
        EXPECT_TRUE(dispatch_until(clients, [&] { return own_objects() == clients.size(); })) << "not on their way";
        EXPECT_FALSE(all_connected(clients));
        panel.start_server(held);
        EXPECT_TRUE(dispatch_until(clients, [&] { return all_connected(clients); }));
        EXPECT_EQ(picture_difference(picture_of(panel, clients), before), "");
        EXPECT_EQ(own_objects(), 0u);
        expect_same_pixels(clients);
    }
    close(held);
}
