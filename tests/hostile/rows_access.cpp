// SPDX-License-Identifier: MIT
// Who may connect: the owner, the group and the mode of the socket decide. As root other users are tried; as an
// ordinary user, who cannot become another one, a socket that leaves even its owner out.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "another_user.h"
#include "further_server.h"
#include "misbehaviour.h"

namespace {

mode_t mode_of(const std::string &path)
{
    struct stat file {};
    EXPECT_EQ(stat(path.c_str(), &file), 0) << path << ": " << strerror(errno);
    return file.st_mode & 07777;
}

gid_t group_of(const std::string &path)
{
    struct stat file {};
    EXPECT_EQ(stat(path.c_str(), &file), 0) << path << ": " << strerror(errno);
    return file.st_gid;
}

// In the running process: 0, or what connecting failed with.
int try_to_connect(const std::string &socket_path)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_path.c_str());
    const int result = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    const int error = result == 0 ? 0 : errno;
    close(fd);
    return error;
}

// The same as another user of one group, where this process may become one, else as this user.
int try_as(gid_t group, const std::string &socket_path)
{
    ClientProcess process([&](ClientSteps &) {
        become_stranger(group);
        _exit(try_to_connect(socket_path));
    });
    return process.join();
}

// Whatever lies above the socket lets everybody pass, so that the socket alone decides.
void open_folder(const Stage &stage)
{
    EXPECT_EQ(chmod(stage.folder().c_str(), 0755), 0);
}

// Those whom the mode leaves out: as root a stranger, else the owner of a socket of mode 0.
void expect_left_out(Stage &stage, const std::string &socket_path, mode_t mode)
{
    EXPECT_EQ(chmod(socket_path.c_str(), is_root() ? mode : 0), 0);
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(try_as(STRANGERS, socket_path), EACCES);
        stage.done()++;
    }
    // It was the mode: with another one the same process gets in.
    EXPECT_EQ(chmod(socket_path.c_str(), 0666), 0);
    EXPECT_EQ(try_as(STRANGERS, socket_path), 0);
    EXPECT_EQ(chmod(socket_path.c_str(), mode), 0);
}

void another_user(Stage &stage)
{
    open_folder(stage);
    EXPECT_EQ(mode_of(stage.socket_path()), 0660u);
    EXPECT_EQ(mode_of(stage.socket_path() + ".lock"), 0600u);
    expect_left_out(stage, stage.socket_path(), 0660);
}

// As root the group is one that only the client has; an ordinary user's own group is let in, whatever the socket says
// about the owner.
gid_t client_group()
{
    return is_root() ? DISPLAY_GROUP : getegid();
}

// A server that makes its socket in a folder of a group, as the guide for boards has it.
void the_group(Stage &stage)
{
    open_folder(stage);
    const std::string folder = stage.folder() + "/group";
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    EXPECT_EQ(chown(folder.c_str(), static_cast<uid_t>(-1), client_group()), 0);
    EXPECT_EQ(chmod(folder.c_str(), 02750), 0);
    ProgramStart start = stage.beside({server_program()});
    start.environment.emplace_back("MC_RUNTIME_DIR", folder);
    const pid_t server = program_start(start);
    const std::string socket_path = folder + "/pfb.mc";
    EXPECT_TRUE(wait_until([&] { return is_listened_at(socket_path); }));
    EXPECT_EQ(mode_of(socket_path), 0660u);
    EXPECT_EQ(group_of(socket_path), client_group());
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(try_as(client_group(), socket_path), 0);
        stage.done()++;
    }
    if (is_root()) {
        EXPECT_EQ(try_as(STRANGERS, socket_path), EACCES);
    }
    kill(server, SIGKILL);
    program_wait(server);
}

// A server that gives its socket to a group, as the start-up script has it from the options of packaging.
void the_set_group(Stage &stage)
{
    open_folder(stage);
    const std::string folder = stage.folder() + "/set";
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    const std::string socket_path = folder + "/pfb.mc";
    for (const mode_t mode : {0660, 0600, 0666}) {
        char mode_text[8];
        snprintf(mode_text, sizeof mode_text, "%04o", mode);
        const FurtherServer server(
            folder, {{"MC_SOCKET_GROUP", std::to_string(client_group())}, {"MC_SOCKET_MODE", mode_text}});
        EXPECT_TRUE(server.listens());
        EXPECT_EQ(mode_of(socket_path), mode);
        EXPECT_EQ(group_of(socket_path), client_group());
        for (int i = 0; i < 10; i++) { // an ordinary user tries as the owner
            EXPECT_EQ(try_as(client_group(), socket_path), mode & 0060 || !is_root() ? 0 : EACCES) << mode_text;
            EXPECT_EQ(try_as(STRANGERS, socket_path), mode & 0006 || !is_root() ? 0 : EACCES) << mode_text;
        }
        stage.add_done(20);
    }
}

// "KEY=VALUE" of packaging/fbserver.socket, an octal number.
mode_t unit_mode(const std::string &key)
{
    for (const std::string &line : lines_of(file_text(from_build("PFB_TEST_SOCKET_UNIT")))) {
        if (line.rfind(key + "=", 0) == 0)
            return static_cast<mode_t>(std::stoul(line.substr(key.size() + 1), nullptr, 8));
    }
    ADD_FAILURE() << "the unit has no " << key;
    return 0;
}

int listening_socket(const std::string &socket_path, mode_t mode, gid_t group)
{
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", socket_path.c_str());
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    EXPECT_EQ(chown(socket_path.c_str(), static_cast<uid_t>(-1), group), 0);
    EXPECT_EQ(chmod(socket_path.c_str(), mode), 0);
    EXPECT_EQ(listen(fd, 10), 0);
    return fd;
}

// A server that is handed this socket, as the service manager does it.
pid_t start_with_socket(const std::string &folder, int fd)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    for (const auto &[name, value] : server_environment(folder))
        setenv(name.c_str(), value.c_str(), 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", "1", 1);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    dup2(fd, 3);
    close_range(4, ~0U, 0);
    execl(server_program().c_str(), server_program().c_str(), nullptr);
    _exit(127);
}

void service_managers_socket(Stage &stage)
{
    open_folder(stage);
    const std::string folder = stage.folder() + "/handed";
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    EXPECT_EQ(chmod(folder.c_str(), unit_mode("DirectoryMode")), 0);
    const std::string socket_path = folder + "/pfb.mc";
    const mode_t mode = unit_mode("SocketMode");
    const int fd = listening_socket(socket_path, mode, client_group());
    const pid_t server = start_with_socket(folder, fd);
    close(fd);
    EXPECT_EQ(try_as(client_group(), socket_path), 0);
    expect_left_out(stage, socket_path, mode);
    EXPECT_EQ(mode_of(socket_path), mode) << "the server leaves the manager's socket as it is";
    EXPECT_FALSE(file_exists(socket_path + ".lock"));
    kill(server, SIGKILL);
    program_wait(server);
}

} // namespace

std::vector<Misbehaviour> access_rows()
{
    return {
        {"AnotherUser",
         "another user connects, of another group",
         "refused by the kernel: the socket has mode 0660",
         "attempts",
         {times(1, "hung up without a greeting")},
         another_user},
        {"TheGroup",
         "another user connects, of the group of a folder with the setgid bit",
         "let in: the socket has that group",
         "attempts",
         {},
         the_group},
        {"TheSetGroup",
         "others connect, of the group that `MC_SOCKET_GROUP` names and of another one, under each of three "
         "`MC_SOCKET_MODE`",
         "the mode decides for the one and for the other",
         "attempts",
         {},
         the_set_group},
        {"ServiceManagersSocket",
         "another user connects to the socket of `fbserver.socket`",
         "its `SocketMode` and `SocketGroup` decide",
         "attempts",
         {},
         service_managers_socket},
    };
}
