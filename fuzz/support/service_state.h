// SPDX-License-Identifier: MIT
// What the two sides of the service target share.
#pragma once

#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

#include "../../src/libmc/factory.h"

struct Client {
    int fd = -1;         // the client's end
    std::string address; // of that end, by which the service's end knows it
    mc_connection *connection = nullptr;
    bool told = false; // the service knows of it
    bool gone = false; // the service was told that it hung up
};

// A system call that fails, some calls from now.
struct Refusal {
    int calls_left, times, error;
};

struct Service {
    static constexpr int SLOTS = 6;

    mc_factory *factory = nullptr;
    sockaddr_un address{};
    socklen_t address_size = 0;
    std::vector<std::unique_ptr<Client>> clients; // all that have ever connected
    Client *slots[SLOTS] = {};                    // those that are connected now
    Refusal accepting{}, receiving{}, sending{}, opening{};
    gint64 clock_ahead = 0; // microseconds that the service's clock differs from the main loop's
    bool in_handler = false;
};

extern Service *service; // the one that runs

std::string service_address_of(const sockaddr_un &address, socklen_t size);
// For a connection that was handed over: what a new one gets when it is announced.
void service_set_handlers(mc_connection *connection);
void service_note_connection(mc_factory *factory, mc_connection *connection, void *user_data);
void service_note_line(const char *line);
void service_check();
// Turns of the main loop, until it comes to rest.
void service_turn();
[[noreturn]] void service_no_socket(const char *what);
