// SPDX-License-Identifier: MIT
#include "bystander.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <stdexcept>

#include "../support/composer.h"
#include "../support/process.h"
#include "pfb.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int WINDOW_LEVEL = 1000, BACKGROUND_LEVEL = -1000;
constexpr auto FRAME = std::chrono::microseconds(1000000 / 30);

// No two updates in a row have the same colour, on 16 bits neither.
uint32_t colour_of(unsigned update)
{
    return (update * 0x3B5D97u + 0x102030u) & 0xF8FCF8u;
}

uint32_t word_on(const PanelView &panel, uint32_t colour)
{
    if (panel.depth() != 16)
        return colour;
    return (colour >> 8 & 0xF800) | (colour >> 5 & 0x07E0) | (colour >> 3 & 0x001F);
}

bool window_shows(const PanelView &panel, uint32_t colour)
{
    const uint32_t word = word_on(panel, colour);
    for (int y = WINDOW_SIZE - 1; y >= 0; y--) {
        for (int x = 0; x < WINDOW_SIZE; x++) {
            if ((panel.raw(WINDOW_X + x, WINDOW_Y + y) & 0xFFFFFF) != word)
                return false;
        }
    }
    return true;
}

Pixels background_pixels(const PanelView &panel)
{
    return pixels_photograph(PixelFormat::XRGB, panel.width(), panel.height(), 1);
}

[[noreturn]] void give_up(const std::string &what)
{
    throw std::runtime_error(what);
}

void require(int result, const char *what)
{
    if (result != PFB_OK)
        give_up(std::string(what) + ": " + pfb_error_text());
}

} // namespace

// What runs in its process.
struct Bystander::Work {
    const PanelView &panel;
    Board &board;
    pfb_client *background = nullptr;
    pfb_client *window = nullptr;

    pfb_client *connect(const char *name, int x, int y, int width, int height, int level)
    {
        pfb_client *client = pfb_connect(name);
        if (client == nullptr)
            give_up(pfb_error_text());
        pfb_set_timeout(client, WAIT_SECONDS * 1000);
        require(pfb_create(client, PFB_FORMAT_XRGB32, x, y, width, height, level, 0), "create");
        pfb_set_event_func(
            client,
            [](pfb_client *, pfb_event event, void *board) {
                auto *counts = static_cast<Board *>(board);
                (event == PFB_EVENT_LOST       ? counts->lost
                 : event == PFB_EVENT_RESTORED ? counts->restored
                                               : counts->reduced)++;
            },
            &board);
        return client;
    }
    void open()
    {
        const Pixels pixels = background_pixels(panel);
        background = connect("fb.background", 0, 0, pixels.width, pixels.height, BACKGROUND_LEVEL);
        for (int y = 0; y < pixels.height; y++)
            memcpy(static_cast<char *>(pfb_pixels(background)) + ptrdiff_t{y} * pfb_stride(background),
                   pixels.bytes.data() + ptrdiff_t{y} * pixels.stride, static_cast<size_t>(pixels.stride));
        require(pfb_show(background), "show");
        window = connect("fb.window", WINDOW_X, WINDOW_Y, WINDOW_SIZE, WINDOW_SIZE, WINDOW_LEVEL);
        require(pfb_show(window), "show");
    }
    // Waits, and does meanwhile what there is to do about the server's end.
    void wait(Clock::duration time)
    {
        pollfd entries[] = {{pfb_poll_fd(background), POLLIN, 0}, {pfb_poll_fd(window), POLLIN, 0}};
        const auto ns = std::max<long long>(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count(), 0);
        const timespec timeout{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        ppoll(entries, 2, &timeout, nullptr);
        require(pfb_dispatch(background), "dispatch");
        require(pfb_dispatch(window), "dispatch");
    }
    void update(uint32_t colour)
    {
        for (int y = 0; y < WINDOW_SIZE; y++) {
            auto *row = static_cast<char *>(pfb_pixels(window)) + ptrdiff_t{y} * pfb_stride(window);
            std::fill_n(reinterpret_cast<uint32_t *>(row), WINDOW_SIZE, 0xFF000000 | colour);
        }
        require(pfb_dirty(window, 0, 0, WINDOW_SIZE, WINDOW_SIZE), "dirty");
    }
    void expect_on_panel(uint32_t colour, Clock::time_point start)
    {
        while (!window_shows(panel, colour)) {
            wait(std::chrono::microseconds(200));
            if (Clock::now() - start > std::chrono::seconds(WAIT_SECONDS))
                give_up("an update does not reach the panel");
        }
        const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
        board.worst_us = std::max(board.worst_us.load(), static_cast<unsigned>(took.count()));
    }
    void run()
    {
        open();
        while (!board.rest) {
            const Clock::time_point start = Clock::now();
            const uint32_t colour = colour_of(board.updates + 1);
            update(colour);
            board.reported = board.updates + 1;
            expect_on_panel(colour, start);
            board.updates++;
            while (Clock::now() < start + FRAME)
                wait(start + FRAME - Clock::now());
        }
        board.resting = true;
        for (;;)
            wait(std::chrono::seconds(1));
    }
};

Bystander::Bystander(const PanelView &panel) : panel_(panel)
{
    process_ = std::make_unique<ClientProcess>([this](ClientSteps &) {
        try {
            Work{panel_, *board_}.run();
        } catch (const std::exception &error) {
            snprintf(board_->fault, sizeof board_->fault, "%s", error.what());
            board_->failed = true;
        }
    });
}

void Bystander::expect_progress(unsigned updates)
{
    const unsigned wanted = board_->updates + updates;
    EXPECT_TRUE(wait_until([&] { return board_->updates >= wanted || board_->failed; })) << "no update gets through";
    EXPECT_FALSE(board_->failed) << board_->fault;
}

bool Bystander::is_shown(unsigned update) const
{
    return window_shows(panel_, colour_of(update));
}

unsigned Bystander::returns() const
{
    return std::min(board_->lost, board_->restored) / 2;
}

void Bystander::expect_whole_returns(unsigned n)
{
    EXPECT_EQ(board_->lost, 2 * n) << "connections that the bystander lost";
    EXPECT_EQ(board_->restored, 2 * n);
    EXPECT_EQ(board_->reduced, 0u) << "something of the bystander's was left out";
}

void Bystander::rest()
{
    board_->rest = true;
    EXPECT_TRUE(wait_until([&] { return board_->resting || board_->failed; }));
    EXPECT_FALSE(board_->failed) << board_->fault;
}

Picture Bystander::picture() const
{
    PictureComposer composer(panel_.width(), panel_.height());
    composer.draw(background_pixels(panel_), 0, 0);
    composer.draw(pixels_filled(PixelFormat::XRGB, WINDOW_SIZE, WINDOW_SIZE, 0xFF000000 | colour_of(board_->updates)),
                  WINDOW_X, WINDOW_Y);
    return composer.picture(panel_.depth());
}

size_t Bystander::foreign_words() const
{
    Pixels expected = background_pixels(panel_);
    for (int y = 0; y < WINDOW_SIZE; y++) {
        for (int x = 0; x < WINDOW_SIZE; x++)
            expected.set(WINDOW_X + x, WINDOW_Y + y, 0xFF000000 | colour_of(board_->updates));
    }
    size_t n = 0;
    for (int y = 0; y < panel_.height(); y++) {
        for (int x = 0; x < panel_.width(); x++)
            n += panel_.raw(x, y) != expected.at(x, y) ? 1 : 0;
    }
    return n;
}
