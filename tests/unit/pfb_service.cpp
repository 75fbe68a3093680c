// SPDX-License-Identifier: MIT
#include "pfb_service.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr auto LONG = std::chrono::seconds(30);

std::string make_folder()
{
    char path[] = "/tmp/pfb-client-test-XXXXXX";
    if (mkdtemp(path) == nullptr)
        abort();
    return path;
}

// The arguments one by one, whatever they are.
std::string text_of(const mc_packet *request)
{
    const std::string signature = mc_packet_signature(request);
    std::string text = std::string(mc_packet_command(request)) + " " + signature;
    int32_t v[10] = {};
    const char *s = nullptr;
    size_t integers = signature.find('s');
    if (integers == 0)
        mc_packet_parse_args(request, "s", &s);
    else
        mc_packet_parse_args(request, signature.c_str(), &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &v[8],
                             &s);
    integers = std::min(integers, signature.size());
    for (size_t i = 0; i < integers; i++)
        text += " " + std::to_string(v[i]);
    if (s != nullptr)
        text += std::string(" ") + (integers > 0 ? "NAME" : s);
    return text;
}

} // namespace

PfbService::PfbService() : folder_(make_folder()), loop_(g_main_loop_new(nullptr, FALSE))
{
    setenv("MC_RUNTIME_DIR", folder_.c_str(), 1);
    open();
}

void PfbService::open()
{
    dead_ = listening_ = false;
    thread_ = std::thread([this] { run(); });
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, LONG, [this] { return listening_; }));
}

void PfbService::die_of(const std::string &request)
{
    std::lock_guard lock(mutex_);
    deadly_ = request;
}

PfbService::~PfbService()
{
    close();
    unlink((socket_path() + ".lock").c_str());
    EXPECT_EQ(rmdir(folder_.c_str()), 0) << folder_;
    g_main_loop_unref(loop_);
}

bool PfbService::is_dead()
{
    std::lock_guard lock(mutex_);
    return dead_;
}

void PfbService::close()
{
    if (!thread_.joinable())
        return;
    if (!is_dead())
        g_idle_add(
            [](void *loop) -> gboolean {
                g_main_loop_quit(static_cast<GMainLoop *>(loop));
                return FALSE;
            },
            loop_);
    thread_.join();
}

void PfbService::run()
{
    mc_factory *factory = mc_factory_open("pfb", on_connection, this, nullptr);
    ASSERT_NE(factory, nullptr);
    {
        std::lock_guard lock(mutex_);
        listening_ = true;
    }
    changed_.notify_all();
    g_main_loop_run(loop_);
    mc_factory_close(factory);
}

void PfbService::on_connection(mc_factory *, mc_connection *connection, void *user_data)
{
    auto *self = static_cast<PfbService *>(user_data);
    if (self->turns_away_) {
        self->turned_away_++;
        mc_close(connection);
        return;
    }
    mc_set_user_data(connection, user_data, 0);
    mc_glib_init(connection);
    mc_set_handler(connection, "", on_request, nullptr);
    mc_set_hup_handler(connection, on_hangup, nullptr);
}

mc_packet *PfbService::on_request(mc_connection *connection, mc_packet *request)
{
    auto *self = static_cast<PfbService *>(mc_user_data(connection));
    std::lock_guard stall(self->stall_);
    const std::string text = text_of(request);
    self->note(connection, request, text);
    if (self->is_dead())
        return nullptr;
    mc_packet *reply = nullptr;
    if (self->answers_ && text.starts_with("lock_area"))
        reply = mc_packet_new(0);
    if (self->answers_ && text.starts_with("get_native_color_depth")) {
        reply = mc_packet_new(0);
        mc_packet_build_args(reply, "i", 18);
    }
    return reply;
}

void PfbService::note(mc_connection *connection, const mc_packet *request, const std::string &text)
{
    std::lock_guard lock(mutex_);
    if (dead_)
        return;
    if (!deadly_.empty() && text.starts_with(deadly_)) {
        dead_ = true;
        deadly_.clear();
        g_main_loop_quit(loop_);
    } else if (text.starts_with("create ")) {
        int32_t i = 0;
        const char *name = "";
        mc_packet_parse_args(request, "iiiiiiiiis", &i, &i, &i, &i, &i, &i, &i, &i, &i, &name);
        client_name = mc_connection_name(connection);
        open_memory(name);
    }
    requests_.push_back(text);
    changed_.notify_all();
}

int PfbService::on_hangup(mc_connection *connection)
{
    auto *self = static_cast<PfbService *>(mc_user_data(connection));
    {
        std::lock_guard lock(self->mutex_);
        self->hangups_++;
    }
    self->changed_.notify_all();
    return mc_close(connection);
}

// What the server does with it.
void PfbService::open_memory(const char *name)
{
    memory_name = name;
    const int fd = shm_open(name, O_RDWR, 0);
    ASSERT_GE(fd, 0) << name;
    EXPECT_EQ(fstat(fd, &memory), 0);
    EXPECT_EQ(pread(fd, &first_word, sizeof first_word, 0), static_cast<ssize_t>(sizeof first_word));
    const uint32_t mark = 0x12345678;
    EXPECT_EQ(pwrite(fd, &mark, sizeof mark, 4), static_cast<ssize_t>(sizeof mark));
    ::close(fd);
    if (!leaves_names_)
        shm_unlink(name);
}

std::vector<std::string> PfbService::take(size_t n)
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, LONG, [&] { return requests_.size() >= n; });
    std::vector<std::string> taken;
    taken.swap(requests_);
    return taken;
}

void PfbService::wait_for_hangup()
{
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, LONG, [&] { return hangups_ > 0; }));
    hangups_ = 0;
}
