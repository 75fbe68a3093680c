// SPDX-License-Identifier: MIT
// The listening socket of a service: made here with its lock file, or handed over by the service manager.
#pragma once

#include <sys/types.h>
#include <sys/un.h>

namespace libmc {

// Clients that wait to be accepted. More of them would hold up those behind them for seconds, and there are no more
// connections than this anyway; the next one waits in its connect.
inline constexpr int QUEUE_MAX = 256;

struct Listener {
    int fd;          // listening, non-blocking; -1: closed
    bool refuses;    // its connections carry no descriptors, and never did; see descriptors.h
    int folder_fd;   // the folder of both files, wherever it is moved to
    int lock_fd;     // holds the lock; -1 for a socket of the service manager, which is neither locked nor removed
    bool found_lock; // its file was there before
    dev_t device;    // what was bound, so that nothing else is ever removed
    ino_t inode;
    sockaddr_un address;
};

// Opens the socket of `service`. False after one line in the log; there is then nothing to close.
bool listener_open(Listener *listener, const char *service);
// Closes it and removes the files that are ours.
void listener_close(Listener *listener);

// True when the service manager started this process with sockets; *fd is then the first listening SOCK_SEQPACKET
// Unix socket among them, or -1. The hand-over is used up: the environment no longer shows it.
bool listener_take_activated(int *fd);

} // namespace libmc
