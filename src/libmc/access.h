// SPDX-License-Identifier: MIT
// Who may connect, and who may change what in the folder of the socket.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace libmc {

inline constexpr uid_t NO_USER = static_cast<uid_t>(-1);
inline constexpr gid_t NO_GROUP = static_cast<gid_t>(-1);

// The socket's owner, group and mode, as whoever packages the server sets them in its environment.
struct Access {
    uid_t user;  // $MC_SOCKET_USER, a name or a number; NO_USER: the server's
    gid_t group; // $MC_SOCKET_GROUP; NO_GROUP: the server's, or the folder's where that has the setgid bit
    mode_t mode; // $MC_SOCKET_MODE, octal; 0660 when it is not set
};

// False after one line in the log: what stands there is no user, no group or no mode.
bool access_read(Access *access);

// Why a server of the user `user` must not use a folder, or null. Whoever may take files away there can put his own
// socket in the place of the server's: only root, the server's user and members of `group`, who may connect, may do
// that. Others may write where the sticky bit keeps them from what is not theirs.
const char *folder_fault(const struct stat &folder, uid_t user, gid_t group);

// Opens the folder for the calls that take one, so that they all meet the same one. -1 after one line in the log.
int folder_open(const char *folder, const Access &access);

// Makes the folder that only ever belongs to this library. An existing one is left as it is. Returns 0, or -1 with
// errno set.
int folder_make(const char *folder);

// While it lives, what this process makes gets no other bits than `mode` has. The process has a single thread then.
class ModeAtMost {
public:
    explicit ModeAtMost(mode_t mode) : before_(umask(0777 & ~mode)) {}
    ~ModeAtMost() { umask(before_); }
    ModeAtMost(const ModeAtMost &) = delete;
    ModeAtMost &operator=(const ModeAtMost &) = delete;

private:
    mode_t before_;
};

} // namespace libmc
