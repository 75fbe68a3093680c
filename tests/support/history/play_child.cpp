// SPDX-License-Identifier: MIT
// One history, told to the model and to the server, and everything that can be seen compared after every action.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <map>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "../../../src/base/output.h"
#include "../../../src/fbserver/command.h"
#include "../../../src/fbserver/connection.h"
#include "outputs.h"
#include "play.h"
#include "server_side.h"

namespace {

constexpr unsigned CHILD_SECONDS = 240; // a child that takes longer hangs
constexpr int STATUS_EVERY = 5;

struct SharedObject {
    std::string name;
    uint8_t *data;
    int fd;
    model::ClientMemory memory; // what the model reads
};

struct Player {
    Channel channel;
    model::Model m;
    std::map<int, mc_connection *> connections;
    std::map<int, SharedObject> objects;
    off_t out_at = 0, err_at = 0;
};

std::string joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

// ---- the server's side ----

void make_object(Player &p, const Action &a)
{
    SharedObject &o = p.objects[a.object];
    o.name = object_name(getppid(), a.object);
    o.fd = shm_open(o.name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    size_t mapped = a.size ? a.size : 1;
    if (o.fd < 0 || ftruncate(o.fd, a.size) != 0) {
        perror("shm_open");
        _exit(2);
    }
    void *data = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_SHARED, o.fd, 0);
    if (data == MAP_FAILED) {
        perror("mmap");
        _exit(2);
    }
    o.data = static_cast<uint8_t *>(data);
    o.memory = {o.data, a.size};
    history_draw(o.data, o.memory.size, a.style, a.seed);
}

void object_action(Player &p, const Action &a)
{
    auto found = p.objects.find(a.object);
    if (found == p.objects.end())
        return;
    SharedObject &o = found->second;
    if (a.kind == Action::DRAW) {
        history_draw(o.data, o.memory.size, a.style, a.seed);
    } else if (a.size < o.memory.size) {
        if (ftruncate(o.fd, a.size) != 0)
            _exit(2);
        o.memory.size = a.size;
    }
}

model::Reply server_do(Player &p, const Action &a, const std::string &object)
{
    auto connection = p.connections.find(a.client);
    bool there = connection != p.connections.end();
    switch (a.kind) {
    case Action::CONNECT:
        p.connections[a.client] = mc_connection_new(-1, a.word.c_str());
        break;
    case Action::REQUEST:
        if (there)
            return history_ask(connection->second, a, object);
        break;
    case Action::HANG_UP:
        if (there) {
            handle_hangup(connection->second);
            p.connections.erase(connection);
        }
        break;
    case Action::RENDER:
        for (int i = 0; i < 10 && g_main_context_iteration(nullptr, FALSE); i++) {
        }
        break;
    case Action::TOGGLE_DEVICE:
        memory_outputs[a.device].broken = !memory_outputs[a.device].broken;
        break;
    case Action::DRAW:
    case Action::TRUNCATE:
        break;
    }
    return {};
}

// ---- the comparison ----

std::string compare_texts(Player &p)
{
    std::string out = file_from(p.channel.out, p.out_at), err = file_from(p.channel.err, p.err_at);
    std::string wrong;
    if (!text_matches(p.m.out, out))
        wrong += different("standard output", p.m.out, out);
    if (sorted_notices(p.m.err) != sorted_notices(err))
        wrong += different("standard error", p.m.err, err);
    p.m.out.clear();
    p.m.err.clear();
    return wrong;
}

std::string compare(Player &p, const model::Reply &expected_reply, const model::Reply &reply)
{
    out_flush();
    std::string wrong = compare_texts(p);
    if (reply != expected_reply)
        wrong += "the reply differs\n";
    std::string expected_calls = joined(p.m.calls), calls = joined(memory_output_calls);
    if (expected_calls != calls)
        wrong += different("calls of the outputs", expected_calls, calls);
    p.m.calls.clear();
    memory_output_calls.clear();
    wrong += history_compare_records(p.m);
    wrong += history_compare_memory(p.m, model::PRIMARY);
    wrong += history_compare_memory(p.m, model::SECOND);
    if (!memory_outputs_unharmed())
        wrong += "a byte before an output's memory was written\n";
    return wrong;
}

// A name that the server has taken is gone at once; one that it has refused stays.
std::string compare_name(const Player &p, const std::string &object)
{
    int fd = shm_open(object.c_str(), O_RDONLY | O_CLOEXEC, 0);
    bool found = fd >= 0, expected = p.m.shared_memory.count(object) != 0;
    if (found)
        close(fd);
    return found == expected ? ""
                             : "the name of the shared memory is " + std::string(found ? "still there\n" : "gone\n");
}

std::string compare_status(Player &p)
{
    fs_dump_status(fs);
    out_flush();
    p.m.out = model_status(p.m);
    return compare_texts(p);
}

// ---- the child ----

[[noreturn]] void child_report(Player &p, const std::string &text)
{
    if (write(p.channel.report, text.data(), text.size()) < 0)
        _exit(2);
    _exit(1);
}

std::string action_text(size_t index, const Action &a)
{
    return "at action " + std::to_string(index) + ":" + history_text({a});
}

// Where the model aborts: leaves what is expected, then lets the server go on.
[[noreturn]] void child_abort(Player &p, const Action &a, const std::string &object, const model::Aborted &aborted)
{
    std::string head = "ABORT\n" + aborted.function + "\n" + aborted.expression + "\n" + std::to_string(p.out_at) +
                       "\n" + std::to_string(p.err_at) + "\n" + std::to_string(p.m.out.size()) + "\n" + p.m.out +
                       p.m.err;
    if (write(p.channel.report, head.data(), head.size()) < 0)
        _exit(2);
    server_do(p, a, object);
    out_flush();
    _exit(0);
}

void child_step(Player &p, size_t index, const Action &a)
{
    if (a.makes)
        make_object(p, a);
    if (a.kind == Action::DRAW || a.kind == Action::TRUNCATE)
        object_action(p, a);
    std::string object = a.object ? object_name(getppid(), a.object) : "";
    model::Reply expected;
    try {
        expected = history_tell(p.m, a, object, a.makes ? &p.objects[a.object].memory : nullptr);
    } catch (const model::Aborted &aborted) {
        child_abort(p, a, object, aborted);
    }
    model::Reply reply = server_do(p, a, object);
    std::string wrong = compare(p, expected, reply) + (a.makes ? compare_name(p, object) : "");
    if (wrong.empty() && index % STATUS_EVERY == 0)
        wrong = compare_status(p);
    if (!wrong.empty())
        child_report(p, action_text(index, a) + wrong);
}

} // namespace

void history_play_child(const Channel &channel, const Config &config, const History &history)
{
    rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    alarm(CHILD_SECONDS);
    dup2(channel.out, STDOUT_FILENO);
    dup2(channel.err, STDERR_FILENO);
    Player p = {channel, history_model(config), {}, {}};
    for (int which : {model::PRIMARY, model::SECOND})
        memory_output_set(which, p.m.outputs[which].device, p.m.outputs[which].frame.bytes.data());
    fs = fs_new(config.requested_w, config.requested_h);
    image_band_bytes = 600; // a few rows, since the screens are small
    for (size_t i = 0; i < history.size(); i++)
        child_step(p, i, history[i]);
    if (fs->idle_source)
        g_source_remove(fs->idle_source);
    fs_destroy(fs);
    for (int which : p.m.in_use)
        p.m.outputs[which].frame.bytes.assign(p.m.outputs[which].frame.bytes.size(), 0);
    std::string wrong =
        history_compare_memory(p.m, model::PRIMARY) + history_compare_memory(p.m, model::SECOND) + compare_texts(p);
    if (!wrong.empty())
        child_report(p, "after the end: " + wrong);
    _exit(0);
}
