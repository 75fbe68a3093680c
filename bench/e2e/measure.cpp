// SPDX-License-Identifier: MIT
// measure TARGET PLACE PID WORK [NUMBER...] - lets one server do some work and prints what it took as one line of JSON.
//
//   cpu MODE N                  N updates of 64 x 64 pixels; MODE: one (at a time), flight (16 in flight), paced (60/s)
//   latency CLIENTS N           N rounds in which each client asks for one update; nanoseconds from asking to pixel
//   size WIDTH HEIGHT N         N updates of that size, one at a time
//   surfaces COUNT N            N updates of a surface above COUNT others (this server only)
//   clients COUNT N             N updates of one client while COUNT others are connected and quiet
//   reports COUNT               COUNT reports of one pixel each in one pass (this server only)
//   picture N                   one full screen, and then nothing for N milliseconds; for measures of memory
//
// The server's time is read from the kernel's scheduler statistics, in nanoseconds, for all its threads.
#include "target.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <string>
#include <time.h>
#include <vector>

#include "floor.h"
#include "mc.h"
#include "observe.h"
#include "pfb.h"

namespace {

constexpr int32_t TILE = 64;
constexpr int IN_FLIGHT = 16;

const Target *target;
int server;

// ---- what the server has used ----

Use server_use()
{
    rest(3000000); // until it sleeps: a running thread's time is not up to date
    return process_use(server);
}

// ---- updates ----

Area tile(int i)
{
    constexpr int columns = FLOOR_WIDTH / TILE;
    constexpr int rows = FLOOR_HEIGHT / TILE;
    const int n = i % (columns * rows);
    return Area{n % columns * TILE, n / columns * TILE, TILE, TILE};
}

// Never twice the same in a row on one place, and no colour that was there before.
uint32_t colour(int i)
{
    return (static_cast<uint32_t>(i) * 2654435761u >> 8 & 0xfffffe) | 0xff000001;
}

void draw(Client *client, const Area &part, int i)
{
    const uint32_t c = colour(i);
    for (int32_t y = part.y; y < part.y + part.height; y++) {
        uint32_t *row = client->pixels + y * client->pitch + part.x;
        for (int32_t x = 0; x < part.width; x++)
            row[x] = c;
    }
    target->update(client, part);
}

bool is_shown(const Client *client, const Area &part, int i)
{
    const volatile uint32_t *last =
        target->pixel(client->area.x + part.x + part.width - 1, client->area.y + part.y + part.height - 1);
    return ((*last ^ colour(i)) & 0xffffff) == 0;
}

void wait_shown(Client *client, const Area &part, int i)
{
    if (target->pixel == nullptr) {
        target->finish(client);
        return;
    }
    for (int64_t until = 0; !is_shown(client, part, i); sched_yield()) {
        if (until == 0)
            until = now() + 10 * SECOND;
        else if (now() > until)
            fail("%s does not show update %d", target->name, i);
    }
}

Client connect_surface(const Area &area)
{
    Client client{area, nullptr, 0, nullptr};
    target->connect(&client);
    // All of it once: what is touched for the first time is no part of a measure.
    const Area whole{0, 0, area.width, area.height};
    draw(&client, whole, -1);
    wait_shown(&client, whole, -1);
    return client;
}

Client connect_screen()
{
    return connect_surface(Area{0, 0, FLOOR_WIDTH, FLOOR_HEIGHT});
}

void print_use(const Use &before, long long n)
{
    const Use after = server_use();
    printf("{\"cpu_ns\": %.1f, \"waits\": %.3f, \"updates\": %lld}\n",
           static_cast<double>(after.cpu_ns - before.cpu_ns) / static_cast<double>(n),
           static_cast<double>(after.waits - before.waits) / static_cast<double>(n), n);
}

// ---- works ----

// A window of updates is on its way all the time; a client of a compositor that says when it has drawn asks for one
// frame for all of them.
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
    const Use before = server_use();
    if (strcmp(mode, "paced") == 0)
        keep_pace(&client, n);
    else
        keep_in_flight(&client, n, strcmp(mode, "flight") == 0 ? IN_FLIGHT : 1);
    print_use(before, n);
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
    for (int i = 0; i < n; i++) {
        Client client{Area{i % 8 * width, i / 8 * TILE, width, TILE}, nullptr, 0, nullptr};
        target->connect(&client);
        clients.push_back(client);
    }
    return clients;
}

// Each client asks once, and then all wait: what one client waits for the others is part of its time.
void latency_round(std::vector<Client> &clients, int round, std::vector<long long> *times)
{
    const size_t n = clients.size();
    std::vector<int64_t> asked(n);
    std::vector<bool> shown(n);
    const Area part{0, 0, clients[0].area.width, TILE};
    for (size_t i = 0; i < n; i++) {
        asked[i] = now();
        draw(&clients[i], part, round);
    }
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

void run_surfaces(int count, int n)
{
    mc_connection *crowd = crowd_connect(count, 16);
    Client client = connect_surface(Area{0, 0, 16, 16});
    update_again_and_again(&client, Area{0, 0, 8, 8}, n);
    target->disconnect(&client);
    mc_close(crowd);
}

void run_clients(int count, int n)
{
    std::vector<Client> quiet;
    for (int i = 0; i < count; i++)
        quiet.push_back(connect_surface(Area{i * 16 % FLOOR_WIDTH, 64 + i * 16 / FLOOR_WIDTH * 16, 16, 16}));
    Client client = connect_surface(Area{0, 0, TILE, TILE});
    update_again_and_again(&client, Area{0, 0, TILE, TILE}, n);
    target->disconnect(&client);
    for (Client &other : quiet)
        target->disconnect(&other);
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

void run_picture(int milliseconds)
{
    Client client = connect_screen();
    printf("{\"ready\": true}\n");
    fflush(stdout);
    rest(milliseconds * (SECOND / 1000));
    target->disconnect(&client);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 6)
        fail("see the head of measure.cpp");
    target = find_target(argv[1]);
    target->start(argv[2]);
    server = atoi(argv[3]);
    const std::string work = argv[4];
    if (work == "cpu" && argc == 7)
        run_cpu(argv[5], atoi(argv[6]));
    else if (work == "latency" && argc == 7)
        run_latency(atoi(argv[5]), atoi(argv[6]));
    else if (work == "size" && argc == 8)
        run_size(atoi(argv[5]), atoi(argv[6]), atoi(argv[7]));
    else if (work == "surfaces" && argc == 7)
        run_surfaces(atoi(argv[5]), atoi(argv[6]));
    else if (work == "clients" && argc == 7)
        run_clients(atoi(argv[5]), atoi(argv[6]));
    else if (work == "reports" && argc == 6)
        run_reports(atoi(argv[5]));
    else if (work == "picture" && argc == 6)
        run_picture(atoi(argv[5]));
    else
        fail("there is no work %s", argv[4]);
}
