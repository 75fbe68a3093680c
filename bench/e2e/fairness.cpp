// SPDX-License-Identifier: MIT
// fairness PANEL PID WIDTH HEIGHT FLOOD UPDATES - one client shows 30 updates a second while others flood the server,
// and prints as one line of JSON what became of them:
//
//   sent, seen      updates, and those of them that were on the panel
//   late_ns         of each one seen: from just before it was reported to its pixels on the panel
//   waiting_ns      of each one seen: how long of that the server, or this client, was ready and had no processor;
//                   the longer of both, since they may have waited at the same time
//   requests        of the others, a second
//   cpu             the server's share of one processor
//
// FLOOD: one of flood.cpp, or "none". PANEL is the file of the panel's 32-bit pixels.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "flood.h"
#include "observe.h"
#include "pfb.h"
#include "target.h"

namespace {

constexpr size_t FLOODERS_MOST = 3;
constexpr int64_t INTERVAL = SECOND / 30;
constexpr int64_t LOOK = 100000; // how often the panel is looked at
// Each update has a tile of its own, so that it is seen even when it is late by a second.
constexpr int TILES = 32;
constexpr int32_t TILE_WIDTH = 15, TILE_HEIGHT = 64;

volatile sig_atomic_t stopped;
volatile uint64_t *requests; // shared with the flooders, one each

// ---- flooders ----

void stop(int)
{
    stopped = 1;
}

[[noreturn]] void run_flooder(int number, const Flood *flood, int32_t width, int32_t height)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setsid(); // kernels share the processor out among sessions, and these are programs of their own
    signal(SIGTERM, stop);
    Flooder flooder{width, height, number, nullptr, false, 0};
    while (stopped == 0) {
        if (!flood->stretch(&flooder))
            rest(SECOND / 1000);
        requests[number] = flooder.requests;
    }
    flood_end(&flooder);
    _exit(0);
}

std::vector<pid_t> start_flooders(const Flood *flood, int32_t width, int32_t height)
{
    void *shared =
        mmap(nullptr, FLOODERS_MOST * sizeof *requests, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        fail("no shared memory");
    requests = static_cast<uint64_t *>(shared);
    std::vector<pid_t> pids;
    for (int i = 0; flood != nullptr && i < flood->count; i++) {
        const pid_t pid = fork();
        if (pid == 0)
            run_flooder(i, flood, width, height);
        pids.push_back(pid);
    }
    for (size_t i = 0; i < pids.size(); i++) {
        while (requests[i] == 0)
            rest(SECOND / 1000);
    }
    return pids;
}

void stop_flooders(const std::vector<pid_t> &pids)
{
    for (const pid_t pid : pids)
        kill(pid, SIGTERM);
    for (const pid_t pid : pids)
        waitpid(pid, nullptr, 0);
}

uint64_t requests_so_far()
{
    uint64_t sum = 0;
    for (size_t i = 0; i < FLOODERS_MOST; i++)
        sum += requests[i];
    return sum;
}

// ---- waiting for a processor ----

// How long a process's first thread has been ready to run without running, up to the last time that it ran again.
class WaitClock {
public:
    explicit WaitClock(pid_t pid)
        : fd_(open(("/proc/" + std::to_string(pid) + "/schedstat").c_str(), O_RDONLY | O_CLOEXEC))
    {
    }
    ~WaitClock() { close(fd_); }
    WaitClock(const WaitClock &) = delete;
    WaitClock &operator=(const WaitClock &) = delete;

    int64_t read() const
    {
        char text[128] = "";
        long long waited = 0;
        if (pread(fd_, text, sizeof text - 1, 0) <= 0 || sscanf(text, "%*s %lld", &waited) != 1)
            fail("the kernel does not tell how long a process waits");
        return waited;
    }

private:
    int fd_;
};

// ---- updates ----

struct Update {
    bool under_way;
    int64_t asked;
    int64_t server_waited, own_waited; // before
    uint32_t colour;
};

struct Watch {
    const volatile uint32_t *panel;
    int32_t panel_width;
    pfb_client *client;
    uint32_t *pixels;
    int32_t pitch;
    const WaitClock *server, *own;
    Update updates[TILES];
    int sent;
    std::vector<int64_t> late, waiting;
};

// Never one that was there before, nor 0.
uint32_t colour(int i)
{
    return (static_cast<uint32_t>(i) * 2654435761u >> 8 & 0xfffffe) | 0xff000001;
}

void send_update(Watch *watch)
{
    const int tile = watch->sent % TILES;
    const uint32_t c = colour(watch->sent);
    for (int32_t y = 0; y < TILE_HEIGHT; y++) {
        for (int32_t x = 0; x < TILE_WIDTH; x++)
            watch->pixels[y * watch->pitch + tile * TILE_WIDTH + x] = c;
    }
    watch->updates[tile] = Update{true, now(), watch->server->read(), watch->own->read(), c};
    if (pfb_dirty(watch->client, tile * TILE_WIDTH, 0, TILE_WIDTH, TILE_HEIGHT) != PFB_OK)
        fail("%s", pfb_error_text());
    watch->sent++;
}

bool is_shown(const Watch &watch, int tile)
{
    const uint32_t c = watch.updates[tile].colour;
    const volatile uint32_t *first = watch.panel + tile * TILE_WIDTH;
    const volatile uint32_t *last = first + (TILE_HEIGHT - 1) * watch.panel_width + TILE_WIDTH - 1;
    return ((*first ^ c) & 0xffffff) == 0 && ((*last ^ c) & 0xffffff) == 0;
}

void look(Watch *watch)
{
    for (int tile = 0; tile < TILES; tile++) {
        Update &update = watch->updates[tile];
        if (!update.under_way || !is_shown(*watch, tile))
            continue;
        watch->late.push_back(now() - update.asked);
        watch->waiting.push_back(
            std::max(watch->server->read() - update.server_waited, watch->own->read() - update.own_waited));
        update.under_way = false;
    }
}

bool is_waiting(const Watch &watch)
{
    return std::any_of(watch.updates, watch.updates + TILES, [](const Update &update) { return update.under_way; });
}

void look_until(Watch *watch, int64_t until)
{
    do {
        look(watch);
        rest(LOOK);
    } while (now() < until);
}

void send_updates(Watch *watch, int n)
{
    int64_t next = now();
    for (int i = 0; i < n; i++) {
        send_update(watch);
        next += INTERVAL;
        look_until(watch, next);
    }
    for (const int64_t until = next + TILES * INTERVAL; is_waiting(*watch) && now() < until;) // as the others had
        look_until(watch, now());
}

pfb_client *connect_client()
{
    pfb_client *client = pfb_connect("fb.fair");
    if (client == nullptr ||
        pfb_create(client, PFB_FORMAT_XRGB32, 0, 0, TILES * TILE_WIDTH, TILE_HEIGHT, 100, 0) != PFB_OK ||
        pfb_show(client) != PFB_OK)
        fail("%s", pfb_error_text());
    return client;
}

void print_list(const char *name, const std::vector<int64_t> &values)
{
    printf("\"%s\": [", name);
    for (size_t i = 0; i < values.size(); i++)
        printf("%s%lld", i > 0 ? ", " : "", static_cast<long long>(values[i]));
    printf("], ");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7)
        fail("see the head of fairness.cpp");
    const int32_t width = atoi(argv[3]);
    const int32_t height = atoi(argv[4]);
    const Flood *flood = flood_find(argv[5]);
    if (flood == nullptr && strcmp(argv[5], "none") != 0)
        fail("there is no flood %s", argv[5]);
    const pid_t server = atoi(argv[2]);
    const WaitClock server_clock(server), own_clock(getpid());
    Watch watch{map_panel(argv[1], width, height),
                width,
                connect_client(),
                nullptr,
                0,
                &server_clock,
                &own_clock,
                {},
                0,
                {},
                {}};
    watch.pixels = static_cast<uint32_t *>(pfb_pixels(watch.client));
    watch.pitch = pfb_stride(watch.client) / 4;
    const std::vector<pid_t> flooders = start_flooders(flood, width, height);
    const int64_t start = now();
    const Use before = process_use(server);
    const uint64_t asked = requests_so_far();
    send_updates(&watch, atoi(argv[6]));
    const double took = static_cast<double>(now() - start);
    const double used = static_cast<double>(process_use(server).cpu_ns - before.cpu_ns);
    const double flooded = static_cast<double>(requests_so_far() - asked);
    stop_flooders(flooders);
    printf("{\"sent\": %d, \"seen\": %zu, ", watch.sent, watch.late.size());
    print_list("late_ns", watch.late);
    print_list("waiting_ns", watch.waiting);
    printf("\"requests\": %.0f, \"cpu\": %.3f}\n", flooded * static_cast<double>(SECOND) / took, used / took);
    pfb_disconnect(watch.client);
}
