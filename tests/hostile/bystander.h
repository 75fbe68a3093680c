// SPDX-License-Identifier: MIT
// A program that means well, in a process of its own: it shows a background that fills the screen and a small window
// above everything, draws the window anew 30 times a second, and looks for each update on the panel. It uses libpfb and
// so comes back after the end of the server.
#pragma once

#include <memory>

#include "../support/panel_view.h"
#include "../support/test_client.h"
#include "shared.h"

// Where its window is, whose colour changes all the time.
inline constexpr int WINDOW_X = 100, WINDOW_Y = 20, WINDOW_SIZE = 24;

class Bystander {
public:
    // Starts it on the server that this process's clients are pointed at.
    explicit Bystander(const PanelView &panel);
    ~Bystander() = default; // kills it

    // How many updates it has seen on the panel.
    unsigned updates() const { return board_->updates; }
    // The last one that it has reported to the server, and whether the panel shows one.
    unsigned reported() const { return board_->reported; }
    bool is_shown(unsigned update) const;
    // Waits for so many further ones. A test failure, with what it says, when they do not come.
    void expect_progress(unsigned updates);
    // The longest that an update took to reach the panel, in milliseconds.
    unsigned worst_ms() const { return (board_->worst_us + 999) / 1000; }
    // How often both of its connections have lost the server and come back with everything.
    unsigned returns() const;
    void expect_whole_returns(unsigned n);

    // Lets it bring its last update to the panel, and no further one.
    void rest();
    // What the panel shows then when nobody else has anything on it.
    Picture picture() const;
    // The words of the panel's memory that are not the bystander's, of 32 bits: the byte that no colour is in counts
    // too.
    size_t foreign_words() const;

private:
    struct Board {
        std::atomic<unsigned> updates, reported, worst_us;
        std::atomic<unsigned> lost, restored, reduced;
        std::atomic<bool> rest, resting, failed;
        char fault[256];
    };
    struct Work;

    const PanelView &panel_;
    Shared<Board> board_;
    std::unique_ptr<ClientProcess> process_;
};
