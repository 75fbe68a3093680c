// SPDX-License-Identifier: MIT
// measure TARGET PLACE PID PROCESSORS WORK [NUMBER...] - lets one server do some work and prints what it took as one
// line of JSON. PROCESSORS: one (this client and the server on the same), two (each on its own) or any.
//
//   cpu MODE N                  N updates of 64 x 64 pixels; MODE: one (at a time), burst (16, the next when all are
//                               shown), window (the next one when the 16th before it is shown), paced (60/s)
//   latency CLIENTS N           N rounds in which each client asks for one update; nanoseconds from asking to pixel
//   size WIDTH HEIGHT N         N updates of that size, one at a time
//   surfaces WHERE COUNT N      N updates of which 8 x 8 pixels are seen, with COUNT opaque surfaces of others (this
//                               server only); WHERE: top (above all), bottom (of a surface as large as the screen,
//                               below all), covered (below all, and each covers the other half of the update)
//   clients COUNT N             N updates of one client while COUNT others are connected and quiet
//   reports COUNT               COUNT reports of one pixel each in one pass (this server only)
//   picture                     one full screen, until standard input ends; for measures of memory
//
// The server's time is read from the kernel's scheduler statistics, in nanoseconds, for all its threads.
#include "updates.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "floor.h"
#include "mc.h"
#include "observe.h"
#include "pfb.h"

namespace {

constexpr int IN_FLIGHT = 16;

int server;

Use server_use()
{
    rest(3000000); // until it sleeps: a running thread's time is not up to date
    return process_use(server);
}

void print_use(const Use &before, long long n)
{
    const Use after = server_use();
    printf("{\"cpu_ns\": %.1f, \"waits\": %.3f, \"updates\": %lld}\n",
           static_cast<double>(after.cpu_ns - before.cpu_ns) / static_cast<double>(n),
           static_cast<double>(after.waits - before.waits) / static_cast<double>(n), n);
}

// All are drawn before the first one is reported, so that the reports follow one another as fast as they can. On one
// processor the server could come in between any two of them, when the kernel likes; so it waits for its turn.
void send_bursts(Client *client, int n)
{
    for (int first = 0; first < n; first += IN_FLIGHT) {
        for (int i = first; i < first + IN_FLIGHT; i++)
            paint(client, tile(i), i);
        for (int i = first; i < first + IN_FLIGHT; i++)
            target->update(client, tile(i));
        for (int i = first; i < first + IN_FLIGHT; i++)
            wait_shown(client, tile(i), i);
    }
}

// A window of updates is on its way all the time; a client of a compositor that says when it has drawn waits for all of
// them together.
void keep_in_flight(Client *client, int n, int window)
{
    if (target->pixel == nullptr) {
        for (int i = 0; i < n; i++) {
            draw(client, tile(i), i);
            if (i % window == window - 1)
                target->finish(client);
        }
        return;
    }
    for (int i = 0; i < n + window; i++) {
        if (i >= window)
            wait_shown(client, tile(i - window), i - window);
        if (i < n)
            draw(client, tile(i), i);
    }
}

void keep_pace(Client *client, int n)
{
    int64_t next = now();
    for (int i = 0; i < n; i++) {
        next += SECOND / 60;
        const timespec t{next / SECOND, next % SECOND};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr);
        draw(client, tile(i), i);
        wait_shown(client, tile(i), i);
    }
}

void run_cpu(const char *mode, int n)
{
    Client client = connect_screen();
    const bool burst = strcmp(mode, "burst") == 0;
    let_interrupt(server, !burst);
    const Use before = server_use();
    if (strcmp(mode, "paced") == 0)
        keep_pace(&client, n);
    else if (burst)
        send_bursts(&client, n);
    else if (strcmp(mode, "window") == 0)
        keep_in_flight(&client, n, IN_FLIGHT);
    else if (strcmp(mode, "one") == 0)
        keep_in_flight(&client, n, 1);
    else
        fail("there is no mode %s", mode);
    print_use(before, n);
    let_interrupt(server, true);
    target->disconnect(&client);
}

void update_again_and_again(Client *client, const Area &part, int n)
{
    const Use before = server_use();
    for (int i = 0; i < n; i++) {
        draw(client, part, i);
        wait_shown(client, part, i);
    }
    print_use(before, n);
}

void run_size(int32_t width, int32_t height, int n)
{
    Client client = connect_screen();
    update_again_and_again(&client, Area{0, 0, width, height}, n);
    target->disconnect(&client);
}

// Many clients side by side, eight in a row.
std::vector<Client> connect_many(int n)
{
    std::vector<Client> clients;
    const int32_t width = n == 1 ? TILE : FLOOR_WIDTH / 8;
    for (int i = 0; i < n; i++)
        clients.push_back(connect_at(Area{i % 8 * width, i / 8 * TILE, width, TILE}));
    return clients;
}

// A compositor tells all of them when it has drawn, in the order in which they have asked.
void wait_for_words(std::vector<Client> &clients, const std::vector<int64_t> &asked, std::vector<long long> *times)
{
    for (size_t i = 0; i < clients.size(); i++) {
        target->finish(&clients[i]);
        times->push_back(now() - asked[i]);
    }
}

void wait_for_pixels(std::vector<Client> &clients, const Area &part, int round, const std::vector<int64_t> &asked,
                     std::vector<long long> *times)
{
    const size_t n = clients.size();
    std::vector<bool> shown(n);
    const int64_t until = now() + 10 * SECOND;
    for (size_t left = n; left > 0; sched_yield()) {
        for (size_t i = 0; i < n; i++) {
            if (shown[i] || !is_shown(&clients[i], part, round))
                continue;
            times->push_back(now() - asked[i]);
            shown[i] = true;
            left--;
        }
        if (now() > until)
            fail("%s does not show round %d", target->name, round);
    }
}

// Each client asks once, and then all wait: what one client waits for the others is part of its time.
void latency_round(std::vector<Client> &clients, int round, std::vector<long long> *times)
{
    std::vector<int64_t> asked(clients.size());
    const Area part{0, 0, clients[0].area.width, TILE};
    for (size_t i = 0; i < clients.size(); i++) {
        asked[i] = now();
        draw(&clients[i], part, round);
    }
    if (target->pixel == nullptr)
        wait_for_words(clients, asked, times);
    else
        wait_for_pixels(clients, part, round, asked, times);
}

void run_latency(int n, int rounds)
{
    std::vector<Client> clients = connect_many(n);
    std::vector<long long> times;
    latency_round(clients, rounds, &times); // not counted
    times.clear();
    for (int round = 0; round < rounds; round++) {
        latency_round(clients, round, &times);
        rest(200000);
    }
    printf("{\"ns\": [");
    for (size_t i = 0; i < times.size(); i++)
        printf("%s%lld", i > 0 ? ", " : "", times[i]);
    printf("]}\n");
    for (Client &client : clients)
        target->disconnect(&client);
}

void run_surfaces(const std::string &where, int count, int n)
{
    constexpr int32_t size = 16;
    const Area screen{0, 0, FLOOR_WIDTH, FLOOR_HEIGHT};
    mc_connection *crowd;
    Client client;
    Area part{0, 0, size / 2, size / 2};
    if (where == "top") {
        crowd = crowd_connect(count, size, screen);
        client = connect_surface(Area{0, 0, size, size});
    } else if (where == "bottom") {
        client = connect_surface(screen);
        crowd = crowd_connect(count, size, Area{size, 0, FLOOR_WIDTH - size, FLOOR_HEIGHT}); // beside the update
    } else if (where == "covered") {
        part.width = size;
        client = connect_surface(Area{size, 0, size, size});
        crowd =
            crowd_connect(count, size, Area{size / 2, 0, size, size}); // its left half, so that its last pixel is seen
    } else {
        fail("surfaces are not updated at the %s", where.c_str());
    }
    update_again_and_again(&client, part, n);
    target->disconnect(&client);
    mc_close(crowd);
}

// A server may let one process have only so many connections.
constexpr int PROCESS_CLIENTS = 50;

// Clients `first` to `last`, quiet once they are shown: a byte to `shown` tells that they are. Until `end` ends.
[[noreturn]] void be_quiet(int first, int last, int shown, int end)
{
    std::vector<Client> clients;
    for (int i = first; i < last; i++)
        clients.push_back(connect_at(Area{i * 16 % FLOOR_WIDTH, TILE + i * 16 / FLOOR_WIDTH * 16, 16, 16}));
    show_all(clients);
    char byte = 0;
    if (write(shown, &byte, 1) != 1 || read(end, &byte, 1) != 0)
        fail("quiet clients are not heard");
    for (Client &client : clients)
        target->disconnect(&client);
    exit(0);
}

void run_clients(int count, int n)
{
    int shown[2];
    int end[2];
    if (pipe(shown) != 0 || pipe(end) != 0)
        fail("no pipe");
    for (int first = 0; first < count; first += PROCESS_CLIENTS) {
        const pid_t quiet = fork();
        if (quiet < 0)
            fail("no process for quiet clients");
        if (quiet > 0)
            continue;
        close(end[1]);
        be_quiet(first, std::min(first + PROCESS_CLIENTS, count), shown[1], end[0]);
    }
    close(shown[1]); // so that the end of one that fails is seen
    for (int first = 0; first < count; first += PROCESS_CLIENTS) {
        char byte;
        if (read(shown[0], &byte, 1) != 1)
            fail("quiet clients are not shown");
    }
    Client client = connect_surface(Area{0, 0, TILE, TILE});
    update_again_and_again(&client, Area{0, 0, TILE, TILE}, n);
    target->disconnect(&client);
    close(end[1]);
    for (int status; wait(&status) > 0;)
        if (status != 0)
            fail("quiet clients have failed");
}

// All reports wait for one pass: the client holds the lock meanwhile.
void run_reports(int count)
{
    Client client = connect_screen();
    auto *own = static_cast<pfb_client *>(client.own);
    const Use before = server_use();
    if (pfb_lock(own, 0, 0, 0, 0) != PFB_OK)
        fail("%s", pfb_error_text());
    const int64_t pixels = FLOOR_WIDTH * FLOOR_HEIGHT;
    for (int i = 0; i < count; i++) {
        const auto at = static_cast<int32_t>(i * int64_t{7919} % pixels);
        const Area pixel{at % FLOOR_WIDTH, at / FLOOR_WIDTH, 1, 1};
        draw(&client, pixel, 1);
    }
    const Area corner{FLOOR_WIDTH - 1, FLOOR_HEIGHT - 1, 1, 1};
    draw(&client, corner, 2);
    if (pfb_unlock(own) != PFB_OK)
        fail("%s", pfb_error_text());
    wait_shown(&client, corner, 2);
    print_use(before, count);
    target->disconnect(&client);
}

void run_picture()
{
    Client client = connect_screen();
    printf("{\"ready\": true}\n");
    fflush(stdout);
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0)
        ;
    target->disconnect(&client);
}

struct Work {
    const char *name;
    int words; // after the name
    void (*run)(char **words);
};

const Work WORKS[] = {
    {"cpu", 2, [](char **w) { run_cpu(w[0], atoi(w[1])); }},
    {"latency", 2, [](char **w) { run_latency(atoi(w[0]), atoi(w[1])); }},
    {"size", 3, [](char **w) { run_size(atoi(w[0]), atoi(w[1]), atoi(w[2])); }},
    {"surfaces", 3, [](char **w) { run_surfaces(w[0], atoi(w[1]), atoi(w[2])); }},
    {"clients", 2, [](char **w) { run_clients(atoi(w[0]), atoi(w[1])); }},
    {"reports", 1, [](char **w) { run_reports(atoi(w[0])); }},
    {"picture", 0, [](char **) { run_picture(); }},
};

} // namespace

int main(int argc, char **argv)
{
    constexpr int before = 6; // words up to the work's name
    if (argc < before)
        fail("see the head of measure.cpp");
    target = find_target(argv[1]);
    target->start(argv[2]);
    server = atoi(argv[3]);
    place_beside(server, argv[4]);
    for (const Work &work : WORKS) {
        if (strcmp(work.name, argv[5]) != 0 || work.words != argc - before)
            continue;
        work.run(argv + before);
        return 0;
    }
    fail("there is no work %s of %d words", argv[5], argc - before);
}
