// SPDX-License-Identifier: MIT
#include "mc_support.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

std::vector<std::string> events;
std::vector<std::string> log_lines;
std::vector<mc_connection *> connections;

Fd &Fd::operator=(Fd &&other) noexcept
{
    reset(other.release());
    return *this;
}

int Fd::release()
{
    return std::exchange(fd_, -1);
}

void Fd::reset(int fd)
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

mc_packet *note_request(mc_connection *connection, mc_packet *request)
{
    const std::string word = mc_packet_command(request);
    events.push_back(std::string(mc_connection_name(connection)) + ": " + word + " " + mc_packet_signature(request));
    mc_packet *reply = nullptr;
    int32_t a, b;
    const char *text;
    if (word == "add" && mc_packet_parse_args(request, "ii", &a, &b) == 2) {
        reply = mc_packet_new(0);
        mc_packet_build_args(reply, "i", a + b);
    } else if (word == "echo" && mc_packet_parse_args(request, "s", &text) == 1) {
        reply = mc_packet_new(0);
        mc_packet_build_args(reply, "s", text);
    }
    return reply;
}

int note_hangup(mc_connection *connection)
{
    events.push_back(std::string("hup ") + mc_connection_name(connection));
    std::erase(connections, connection);
    return mc_close(connection);
}

void note_connection(mc_factory *, mc_connection *connection, void *)
{
    events.push_back(std::string("connect ") + mc_connection_name(connection));
    connections.push_back(connection);
    EXPECT_EQ(mc_glib_init(connection), 0);
    EXPECT_EQ(mc_set_handler(connection, "", note_request, nullptr), 0);
    EXPECT_EQ(mc_set_hup_handler(connection, note_hangup, nullptr), 0);
}

mc_factory *open_noting(const char *service)
{
    return mc_factory_open(service, note_connection, nullptr, nullptr);
}

void McTest::SetUp()
{
    std::string name = (std::filesystem::temp_directory_path() / "mc-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder = name;
    setenv("MC_RUNTIME_DIR", folder.c_str(), 1);
    events.clear();
    log_lines.clear();
    connections.clear();
    mc_set_log([](const char *line) { log_lines.push_back(line); });
    g_main_context_default();
    settle();
    open_at_start = open_descriptors();
}

void McTest::TearDown()
{
    EXPECT_EQ(open_descriptors(), open_at_start) << "descriptors were left open";
    mc_set_log(nullptr);
    unsetenv("MC_RUNTIME_DIR");
    std::filesystem::remove_all(folder);
}

mc_factory *factory;

void McServiceTest::SetUp()
{
    McTest::SetUp();
    factory = open_noting("svc");
    ASSERT_NE(factory, nullptr);
}

void McServiceTest::TearDown()
{
    mc_factory_close(factory);
    factory = nullptr;
    McTest::TearDown();
}

bool turn()
{
    return g_main_context_iteration(nullptr, FALSE);
}

void settle()
{
    while (turn())
        continue;
}

bool turn_until(const std::function<bool()> &done)
{
    const guint alarm = g_timeout_add_seconds(
        30, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    const gint64 end = g_get_monotonic_time() + 30 * G_USEC_PER_SEC;
    bool is_done = done();
    while (!is_done && g_get_monotonic_time() < end) {
        g_main_context_iteration(nullptr, TRUE);
        is_done = done();
    }
    g_source_remove(alarm);
    return is_done;
}

namespace {

Wait seen_wait;

gint look_without_waiting(GPollFD *fds, guint n, gint timeout_ms)
{
    const int ready = poll(reinterpret_cast<pollfd *>(fds), n, 0);
    seen_wait = {timeout_ms, ready > 0};
    for (guint i = 0; i < n; i++)
        fds[i].revents = 0;
    return 0;
}

int connect_to(const std::string &socket_path, int fd)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
    return connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
}

} // namespace

Wait next_wait()
{
    const GPollFunc usual = g_main_context_get_poll_func(nullptr);
    g_main_context_set_poll_func(nullptr, look_without_waiting);
    g_main_context_iteration(nullptr, TRUE);
    g_main_context_set_poll_func(nullptr, usual);
    return seen_wait;
}

std::string u32(uint32_t value)
{
    return {reinterpret_cast<char *>(&value), sizeof value};
}

std::string padded_text(const std::string &text)
{
    std::string bytes = text + '\0';
    bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
    return bytes;
}

std::string header(uint32_t serial, const std::string &word, const std::string &signature)
{
    return u32(serial) + padded_text(word + '\0' + signature);
}

std::string greeting(const std::string &name, uint32_t version)
{
    return header(0, "connect", "is") + u32(version) + padded_text(name);
}

Fd raw_connect(const std::string &service)
{
    Fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect_to(std::string(getenv("MC_RUNTIME_DIR")) + "/" + service + ".mc", fd.get()), 0)
        << strerror(errno);
    return fd;
}

Fd raw_client(const std::string &service, const std::string &name)
{
    Fd fd = raw_connect(service);
    EXPECT_TRUE(raw_send(fd, greeting(name)));
    return fd;
}

bool raw_send(const Fd &fd, const std::string &bytes)
{
    return send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string raw_receive(const Fd &fd)
{
    std::string bytes(65536, '\0');
    ssize_t n = recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (n < 0 && errno == ECONNRESET)
        n = recv(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return bytes;
}

bool raw_at_end(const Fd &fd)
{
    pollfd entry = {fd.get(), POLLRDHUP, 0};
    return poll(&entry, 1, 0) > 0;
}

Fd raw_listen(const std::string &socket_path)
{
    Fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
    EXPECT_EQ(listen(fd.get(), 8), 0);
    return fd;
}

size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

NoDescriptors::NoDescriptors()
{
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit low = before;
    low.rlim_cur = open_descriptors() + 16; // few to fill, whatever the limit was
    setrlimit(RLIMIT_NOFILE, &low);
    for (int fd = open("/dev/null", O_CLOEXEC); fd >= 0; fd = open("/dev/null", O_CLOEXEC))
        filler.emplace_back(fd);
    EXPECT_EQ(errno, EMFILE);
}

NoDescriptors::~NoDescriptors()
{
    setrlimit(RLIMIT_NOFILE, &before);
}

pid_t in_child(const std::function<int()> &body)
{
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(getppid() == parent ? body() : 99);
    }
    return child;
}

int wait_for(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run_activated(const std::vector<int> &fds, pid_t pid, const std::function<int()> &body)
{
    return wait_for(in_child([&] {
        std::vector<int> copies;
        for (const int fd : fds)
            copies.push_back(fcntl(fd, F_DUPFD, 100));
        for (size_t i = 0; i < copies.size(); i++)
            dup2(copies[i], 3 + static_cast<int>(i));
        setenv("LISTEN_PID", std::to_string(pid ? pid : getpid()).c_str(), 1);
        setenv("LISTEN_FDS", std::to_string(fds.size()).c_str(), 1);
        setenv("LISTEN_FDNAMES", "svc", 1);
        return body();
    }));
}

pid_t start(const std::vector<std::string> &words)
{
    return in_child([&] {
        std::vector<char *> arguments;
        for (const std::string &word : words)
            arguments.push_back(const_cast<char *>(word.c_str()));
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        perror(arguments[0]);
        return 127;
    });
}

int reap_in_loop(pid_t child)
{
    int status = -1;
    const guint tick = g_timeout_add(
        5, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    const bool ended = turn_until([&] { return waitpid(child, &status, WNOHANG) == child; });
    g_source_remove(tick);
    if (!ended) {
        kill(child, SIGKILL);
        wait_for(child);
    }
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
