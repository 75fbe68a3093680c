// SPDX-License-Identifier: MIT
// recovery PANEL SOCKET DEATH PAUSE [NAME=VALUE...] COMMAND... - starts the server, with these additions to its
// environment, and ten clients of libpfb, each a process; ends the server, starts it again, and prints as one line of
// JSON what took how long, in nanoseconds:
//
//   end      from the signal, or from the request that it aborts over, until the system tells of its end
//   start    from its start until its socket is there
//   back     from then until the last client knows that the server has its surface
//   full     all of it: from the signal or request until the last pixel of the full picture
//
// PANEL is the file of the panel's 480 x 272 pixels of 32 bits, SOCKET the server's. DEATH: "kill" (SIGKILL) or "abort"
// (an "unlock" without a lock). PAUSE: how many milliseconds pass from the end of the server to its start, as a service
// manager waits.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "floor.h"
#include "observe.h"
#include "pfb.h"
#include "raw.h"
#include "target.h"

namespace {

constexpr int CLIENTS = 10;
constexpr int64_t LOOK = 50000;
constexpr int64_t LIMIT = 20 * SECOND;
constexpr int32_t PIXELS = FLOOR_WIDTH * FLOOR_HEIGHT;

// One for each client, shared with it.
struct Report {
    volatile bool shown;
    volatile int64_t restored; // when; 0: not yet
};
Report *reports;

void *map_shared(int fd, size_t bytes, int flags)
{
    void *memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | flags, fd, 0);
    if (memory == MAP_FAILED)
        fail("no shared memory");
    return memory;
}

// ---- clients ----

// The first fills the screen, the others lie on it in three rows, translucent and over one another.
Area area_of(int i)
{
    if (i == 0)
        return Area{0, 0, FLOOR_WIDTH, FLOOR_HEIGHT};
    return Area{(i - 1) % 3 * 150, (i - 1) / 3 * 80, 170, 100};
}

uint32_t pixel_of(int i, int32_t x, int32_t y)
{
    const auto grain = static_cast<uint32_t>(x * 31 + y * 57 + i * 101) & 0x3f;
    return 0x80000000 | grain << 16 | grain << 8 | grain;
}

void on_event(pfb_client *, pfb_event event, void *report)
{
    if (event == PFB_EVENT_RESTORED)
        static_cast<Report *>(report)->restored = now();
}

pfb_client *show_client(int i)
{
    const Area a = area_of(i);
    pfb_client *client = pfb_connect(("fb.bench" + std::to_string(i)).c_str());
    if (client == nullptr ||
        pfb_create(client, i == 0 ? PFB_FORMAT_XRGB32 : PFB_FORMAT_ARGB32, a.x, a.y, a.width, a.height, i, 0) != PFB_OK)
        fail("%s", pfb_error_text());
    for (int32_t y = 0; y < a.height; y++) {
        auto *row = reinterpret_cast<uint32_t *>(static_cast<char *>(pfb_pixels(client)) + y * pfb_stride(client));
        for (int32_t x = 0; x < a.width; x++)
            row[x] = pixel_of(i, x, y);
    }
    int depth;
    if (pfb_show(client) != PFB_OK || pfb_get_color_depth(client, &depth) != PFB_OK)
        fail("%s", pfb_error_text());
    return client;
}

volatile sig_atomic_t stopped;

void stop(int)
{
    stopped = 1;
}

[[noreturn]] void run_client(int i)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setsid();
    signal(SIGTERM, stop);
    pfb_client *client = show_client(i);
    pfb_set_event_func(client, on_event, &reports[i]);
    reports[i].shown = true;
    while (stopped == 0) {
        pollfd entry{pfb_poll_fd(client), POLLIN, 0};
        if (poll(&entry, 1, 100) > 0 && pfb_dispatch(client) != PFB_OK)
            fail("%s", pfb_error_text());
    }
    pfb_disconnect(client);
    _exit(0);
}

std::vector<pid_t> start_clients()
{
    std::vector<pid_t> pids;
    for (int i = 0; i < CLIENTS; i++) {
        const pid_t pid = fork();
        if (pid == 0)
            run_client(i);
        pids.push_back(pid);
    }
    return pids;
}

// ---- waiting ----

template <typename Condition> int64_t wait_for(const char *what, Condition holds)
{
    const int64_t until = now() + LIMIT;
    while (!holds()) {
        if (now() > until)
            fail("%s: not after 20 s", what);
        rest(LOOK);
    }
    return now();
}

bool all_shown()
{
    for (int i = 0; i < CLIENTS; i++) {
        if (!reports[i].shown)
            return false;
    }
    return true;
}

// When the last client was back; 0 before.
int64_t last_restored()
{
    int64_t last = 0;
    for (int i = 0; i < CLIENTS; i++) {
        if (reports[i].restored == 0)
            return 0;
        last = reports[i].restored > last ? reports[i].restored : last;
    }
    return last;
}

// The last pixels first: as long as they are wrong the others need not be looked at.
bool is_full(const uint32_t *panel, const std::vector<uint32_t> &picture)
{
    const volatile uint32_t *last = panel + PIXELS - 1;
    return *last == picture.back() && memcmp(panel, picture.data(), picture.size() * sizeof *panel) == 0;
}

// What the panel shows once everything has been drawn: it stays.
std::vector<uint32_t> settled_picture(const uint32_t *panel)
{
    for (;;) {
        std::vector<uint32_t> picture(panel, panel + PIXELS);
        rest(SECOND / 20);
        if (is_full(panel, picture))
            return picture;
    }
}

// ---- the server's end and return ----

// Of the socket's file; zeros while there is none. A dead server's stays until the next one removes it.
timespec time_of(const char *path)
{
    struct stat file {};
    return stat(path, &file) == 0 ? file.st_ctim : timespec{};
}

bool is_new(const char *path, const timespec &old)
{
    const timespec found = time_of(path);
    return found.tv_sec != 0 && (found.tv_sec != old.tv_sec || found.tv_nsec != old.tv_nsec);
}

int64_t end_server(pid_t server, bool by_abort)
{
    const int64_t start = now();
    if (!by_abort) {
        kill(server, SIGKILL);
    } else {
        mc_connection *connection = mc_connect("pfb", "bench.abort");
        if (connection == nullptr || !raw_request(connection, "unlock")) // of the lowest surface, which holds none
            fail("no server to abort");
        mc_close(connection);
    }
    int status;
    waitpid(server, &status, 0);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != (by_abort ? SIGABRT : SIGKILL))
        fail("the server has ended in another way");
    return start;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 6)
        fail("see the head of recovery.cpp");
    const int fd = open(argv[1], O_RDWR | O_CLOEXEC);
    auto *panel = static_cast<uint32_t *>(map_shared(fd, PIXELS * sizeof(uint32_t), 0));
    reports = static_cast<Report *>(map_shared(-1, CLIENTS * sizeof *reports, MAP_ANONYMOUS));
    const char *path = argv[2];
    const bool by_abort = strcmp(argv[3], "abort") == 0;
    const int64_t pause = atoll(argv[4]) * (SECOND / 1000);
    char **words = argv + 5;

    pid_t server = program_start(words);
    wait_for("the server", [&] { return target_pfb.accepts(path); });
    const std::vector<pid_t> clients = start_clients();
    wait_for("the clients", all_shown);
    const std::vector<uint32_t> picture = settled_picture(panel);
    memset(panel, 0, PIXELS * sizeof *panel); // a quiet server writes nothing: what is seen then is the next one's

    const timespec old_socket = time_of(path);
    const int64_t death = end_server(server, by_abort);
    const int64_t ended = now();
    if (pause > 0)
        rest(pause);
    const int64_t started = now();
    server = program_start(words);
    const int64_t listens = wait_for("the socket", [&] { return is_new(path, old_socket); });
    const int64_t full = wait_for("the picture", [&] { return is_full(panel, picture); });
    wait_for("the clients", [] { return last_restored() != 0; });
    printf("{\"end\": %lld, \"start\": %lld, \"back\": %lld, \"full\": %lld}\n", static_cast<long long>(ended - death),
           static_cast<long long>(listens - started), static_cast<long long>(last_restored() - listens),
           static_cast<long long>(full - death));
    for (const pid_t pid : clients)
        kill(pid, SIGTERM);
    for (const pid_t pid : clients)
        waitpid(pid, nullptr, 0);
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
}
