// SPDX-License-Identifier: MIT
// A soak: the real server on a virtual panel, clients of every kind that come and go, and a look at what the server
// holds every few seconds.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "../support/panel_view.h"
#include "../support/random_cases.h"
#include "../support/process.h"

using random_cases::between;
using random_cases::Random;

inline bool chance(Random &random, int percent)
{
    return between(random, 1, 100) <= percent;
}

inline constexpr int PANEL_WIDTH = 320;
inline constexpr int PANEL_HEIGHT = 240;

// ---- what all processes of a soak share (shared.cpp) ----

// Zeroed memory that the forked clients write into as well.
struct Shared {
    std::atomic<uint64_t> requests;
    std::atomic<uint64_t> frames;     // of the bystander, seen on the panel
    std::atomic<int32_t> rotation;    // that the bystander is to have
    std::atomic<int32_t> bystanders;  // the one that it has
    std::atomic<bool> bystander_ends; // asks it to
    std::atomic<uint32_t> n_faults;
    char fault[512]; // what the first one was
};
Shared *shared_new();
void shared_delete(Shared *shared);
void shared_fault(Shared *shared, const std::string &text);
// Runs `body` in a process of its own, which is killed when this one ends, and whose first failure is a fault. Returns
// its id, or -1.
pid_t process_fork(Shared *shared, const std::string &who, const std::function<void()> &body);

// ---- clients (plan.cpp, library_client.cpp, word_client.cpp, odd_clients.cpp, nonsense_client.cpp) ----

enum class Kind {
    LIBRARY,    // libpfb, each format
    WORDS,      // all words, with plausible and odd arguments
    SELECTING,  // has no surface and speaks for others'
    TRUNCATING, // cuts its memory
    LOCKING,    // goes with the lock held
    DEAF,       // does not read its answers
    STOPPED,    // stops in the middle, sometimes with the lock
    NONSENSE,   // packets that are none
    TURNING,    // turns the display
    LEAVING,    // leaves something behind for good: a second surface, the mapping of a depth that no surface has
};

// Everything about a client that does not depend on the others. It follows from the seed and the client's number.
struct Plan {
    uint32_t number;
    Kind kind;
    std::string name;
    int32_t x, y, width, height; // screen
    int32_t depth;
    bool alpha;
    int32_t level;
    int32_t rotation;        // what the clients of its time expect
    int32_t steps;           // requests or groups of such, at most
    int32_t pause_ms;        // between two of them, at most
    int32_t dies_at;         // the step before which it kills itself, -1: does not
    int32_t killed_after_ms; // by its parent, -1: not
    Random random;           // what it goes on with
};
Plan plan_client(uint32_t seed, uint32_t number);
const char *kind_name(Kind kind);
// So many clients of a run leave something behind for good; all of them are among the first.
inline constexpr uint32_t LEAVING_CLIENTS = 10;
// Requests must not add up to a rectangle that wraps, and levels stay between the keeper's surfaces and the bystander.
inline constexpr int32_t FAR = 1 << 30;
inline constexpr int32_t HIGHEST = 1000000;

// Runs in a process of its own, to the end of the plan.
void client_run(Plan &plan, Shared *shared, const std::string &socket_path);
// The same, of each kind.
void client_library(Plan &plan, Shared *shared);
void client_words(Plan &plan, Shared *shared);
void client_selecting(Plan &plan, Shared *shared);
void client_truncating(Plan &plan, Shared *shared);
void client_locking(Plan &plan, Shared *shared);
void client_deaf(Plan &plan, Shared *shared, const std::string &socket_path);
void client_stopped(Plan &plan, Shared *shared);
void client_nonsense(Plan &plan, Shared *shared, const std::string &socket_path);
void client_turning(Plan &plan, Shared *shared);
void client_leaving(Plan &plan, Shared *shared);
// Between two steps: waits a little; or kills the process, when the plan says so. Throws after a failure.
void client_pause(Plan &plan, int32_t step);

// ---- those that stay (stayers.cpp) ----

// Draws frame after frame, on top of everything, and sees each of them on the panel.
void bystander_run(Shared *shared, const PanelView &panel);
// The surfaces at the bottom, which clients without one of their own may select.
inline constexpr int TARGETS = 4;
std::string target_name(int number);

// ---- measures (measure.cpp) ----

struct Sample {
    double seconds;
    uint64_t served; // clients that have gone
    uint64_t requests;
    uint64_t frames;
    long resident_kb;
    long anonymous_kb;
    long mappings;
    long descriptors;
    long threads;
    long runtime_names; // in the runtime folder
    long memory_names;  // of this soak's clients, in /dev/shm
};
// Fills in what the system knows about the process.
void sample_measure(Sample *sample, pid_t pid);
std::string sample_heading();
std::string sample_text(const Sample &sample);

// How much the median of the last quarter may exceed that of the second. A surface of 100 bytes that is lost for each
// client is seen after some ten thousand.
struct Bounds {
    long resident_kb = 4096; // clients' own pages among them, of which there are now more, now fewer
    long anonymous_kb = 1024;
    long mappings = 16;
    long descriptors = 4; // as many connections more may just be there
    long threads = 0;
    long runtime_names = 0;
    long memory_names = 4;
};
// Earlier the allocators' stores still fill: what grows in a shorter run says nothing.
inline constexpr double GROWTH_SECONDS = 600;
// The medians in words, for each of what is watched.
std::string medians_text(const std::vector<Sample> &samples, const Bounds &bounds);
// What has grown, in words, or "".
std::string verdict_growth(const std::vector<Sample> &samples, const Bounds &bounds);
// What has been added between two moments in which nobody but the keeper was there, or "": no descriptor may be, and no
// name; of mappings some, the edges of ranges that are kept for later clients and the allocators' stores.
inline constexpr long MAPPINGS_LEFT = 60;
std::string verdict_left(const Sample &before, const Sample &after);
