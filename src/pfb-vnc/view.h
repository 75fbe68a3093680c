// SPDX-License-Identifier: MIT
// The viewers' side: libvncserver, and the loop that feeds it.
#pragma once

#include <netinet/in.h>
#include <string>

#include "../panelimage/screen.h"

struct ViewPlan {
    in_addr_t address;    // to listen at, in network order
    int port;             // 0: the first free one from 5900 on
    std::string password; // empty: none is asked for
    int rate;             // looks at the panel per second while somebody views it
};

// Serves viewers until SIGINT or SIGTERM. Sleeps while nobody views. Returns the exit status.
int view_run(Screen *screen, const ViewPlan &plan);
