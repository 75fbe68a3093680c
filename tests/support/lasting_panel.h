// SPDX-License-Identifier: MIT
// A virtual panel that stays while servers come and go on it.
#pragma once

#include <string>
#include <sys/types.h>

#include "running_server.h"

class LastingPanel {
public:
    // Points this process's clients at its servers. No server runs yet.
    explicit LastingPanel(const ServerOptions &options = {});
    ~LastingPanel(); // ends the server that runs
    LastingPanel(const LastingPanel &) = delete;
    LastingPanel &operator=(const LastingPanel &) = delete;

    // Does not wait until it listens: clients find out themselves. A listening socket is handed over as a service
    // manager does it, and stays the caller's.
    void start_server(int socket = -1);
    // Sends the server a signal, waits for its end and returns what a shell would call its status.
    int stop_server(int signal_number);
    // Blackens the panel: a server that left the old picture alone would be found out.
    void erase();

    const PanelView &view() const { return view_; }
    const std::string &folder() const { return folder_.path(); }
    std::string out() const { return file_text(out_path()); } // what the present server has printed

private:
    bool find_panel();
    std::string out_path() const { return folder() + "/out"; }

    TemporaryFolder folder_;
    std::string panel_;
    PanelView view_;
    pid_t pfbpanel_ = -1;
    pid_t server_ = -1;
};
