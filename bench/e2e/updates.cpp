// SPDX-License-Identifier: MIT
#include "updates.h"

#include <sched.h>
#include <unistd.h>

#include "floor.h"
#include "observe.h"

const Target *target;

namespace {

// Never twice the same in a row on one place, and neither what was there before nor what an earlier client has left.
uint32_t colour(int i)
{
    static const uint32_t first = static_cast<uint32_t>(getpid()) << 16;
    return ((first + static_cast<uint32_t>(i)) * 2654435761u >> 8 & 0xfffffe) | 0xff000001;
}

} // namespace

Area tile(int i)
{
    constexpr int columns = FLOOR_WIDTH / TILE;
    constexpr int rows = FLOOR_HEIGHT / TILE;
    const int n = i % (columns * rows);
    return Area{n % columns * TILE, n / columns * TILE, TILE, TILE};
}

void paint(Client *client, const Area &part, int i)
{
    const uint32_t c = colour(i);
    for (int32_t y = part.y; y < part.y + part.height; y++) {
        uint32_t *row = client->pixels + y * client->pitch + part.x;
        for (int32_t x = 0; x < part.width; x++)
            row[x] = c;
    }
}

void draw(Client *client, const Area &part, int i)
{
    paint(client, part, i);
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

Client connect_at(const Area &area)
{
    Client client{area, nullptr, 0, nullptr};
    target->connect(&client);
    return client;
}

void show_all(std::vector<Client> &clients)
{
    for (Client &client : clients)
        draw(&client, Area{0, 0, client.area.width, client.area.height}, -1);
    for (Client &client : clients)
        wait_shown(&client, Area{0, 0, client.area.width, client.area.height}, -1);
}

Client connect_surface(const Area &area)
{
    std::vector<Client> clients{connect_at(area)};
    show_all(clients);
    return clients[0];
}

Client connect_screen()
{
    return connect_surface(Area{0, 0, FLOOR_WIDTH, FLOOR_HEIGHT});
}
