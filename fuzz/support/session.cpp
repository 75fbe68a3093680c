// SPDX-License-Identifier: MIT
#include "session.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <map>
#include <optional>
#include <sys/mman.h>
#include <unistd.h>

#include "../../src/base/output.h"
#include "../../src/composite/client_memory.h"
#include "../../src/fbserver/command.h"
#include "../../src/fbserver/connection.h"
#include "../../tests/support/history/outputs.h"
#include "../../tests/support/history/play.h"
#include "../../tests/support/history/server_side.h"
#include "decode.h"

namespace {

constexpr int MOST_ACTIONS = 300;
constexpr int STATUS_EVERY = 8;
constexpr int LEAKING_RUNS = 4; // a session that takes memory in so many runs one after another leaks

struct SharedObject {
    int fd;
    uint8_t *data;
    size_t mapped;
    bool has_name;
    model::ClientMemory memory; // what the model reads
};

struct Session {
    std::optional<model::Model> m;
    std::map<int, mc_connection *> connections;
    std::map<std::string, SharedObject> objects;
    std::vector<void *> mapped; // by the server, for clients
    int opened = -1;            // the last descriptor that the server was given for an object
};

Session *session; // the one that is played

} // namespace

// ---- put between the server and the system by the linker ----

// Shared memory without names in the file system.
int fuzz_shm_open(const char *name, int flags, mode_t mode) asm("__wrap_shm_open");
int fuzz_shm_unlink(const char *name) asm("__wrap_shm_unlink");
// What is mapped has to be unmapped also where the server lost it.
void *fuzz_client_memory_map(int fd, size_t bytes) asm("__wrap_" CLIENT_MEMORY_MAP);
void *real_client_memory_map(int fd, size_t bytes) asm("__real_" CLIENT_MEMORY_MAP);

int fuzz_shm_open(const char *name, int, mode_t)
{
    const auto found = session->objects.find(name);
    if (found == session->objects.end() || !found->second.has_name) {
        errno = *name ? ENOENT : EINVAL;
        return -1;
    }
    session->opened = fcntl(found->second.fd, F_DUPFD_CLOEXEC, 0);
    return session->opened;
}

int fuzz_shm_unlink(const char *name)
{
    session->objects.at(name).has_name = false;
    return 0;
}

void *fuzz_client_memory_map(int fd, size_t bytes)
{
    void *pixels = real_client_memory_map(fd, bytes);
    if (pixels == MAP_FAILED)
        return pixels;
    session->mapped.push_back(pixels);
    session->opened = -1; // the server closes it now
    return pixels;
}

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

// What an assertion leaves behind when it fails is lost with the process, so the leak sanitizer has nothing to say
// about sessions that end so; all others are measured, see session_play.
extern "C" const char *__asan_default_options()
{
    return "detect_leaks=0";
}

namespace {

// ---- the actions ----

[[noreturn]] void no_memory(const char *what)
{
    perror(what);
    exit(2); // the machine's fault, not a finding
}

void make_object(const Action &a, const std::string &name)
{
    SharedObject o{};
    o.fd = memfd_create("fuzz", MFD_CLOEXEC);
    o.mapped = a.size ? a.size : 1;
    if (o.fd < 0 || ftruncate(o.fd, a.size) != 0)
        no_memory("memfd_create");
    void *data = mmap(nullptr, o.mapped, PROT_READ | PROT_WRITE, MAP_SHARED, o.fd, 0);
    if (data == MAP_FAILED)
        no_memory("mmap");
    o.data = static_cast<uint8_t *>(data);
    o.has_name = true;
    o.memory = {o.data, a.size};
    history_draw(o.data, a.size, a.style, a.seed);
    session->objects[name] = o;
}

void change_object(const Action &a, const std::string &name)
{
    const auto found = session->objects.find(name);
    if (found == session->objects.end())
        return;
    SharedObject &o = found->second;
    if (a.kind == Action::DRAW) {
        history_draw(o.data, o.memory.size, a.style, a.seed);
    } else if (a.size < o.memory.size) {
        if (ftruncate(o.fd, a.size) != 0)
            no_memory("ftruncate");
        o.memory.size = a.size;
    }
}

// The idle render, without the main loop around it: an assertion leaves by an exception, and GLib has no place for one.
void render_if_pending()
{
    if (fs->idle_source == 0)
        return;
    g_source_remove(fs->idle_source);
    fs_render(fs);
}

model::Reply server_do(const Action &a, const std::string &object)
{
    const auto found = session->connections.find(a.client);
    mc_connection *connection = found != session->connections.end() ? found->second : nullptr;
    if (a.kind == Action::CONNECT) {
        session->connections[a.client] = mc_connection_new(-1, a.word.c_str());
    } else if (a.kind == Action::REQUEST && connection != nullptr) {
        return history_ask(connection, a, object);
    } else if (a.kind == Action::HANG_UP && connection != nullptr) {
        handle_hangup(connection);
        session->connections.erase(found);
    } else if (a.kind == Action::RENDER) {
        render_if_pending();
    } else if (a.kind == Action::TOGGLE_DEVICE) {
        memory_outputs[a.device].broken = !memory_outputs[a.device].broken;
    }
    return {};
}

bool prints()
{
    static const bool wanted = getenv("PFB_FUZZ_PRINT") != nullptr;
    return wanted;
}

// ---- what must hold ----

void check_list()
{
    for (int32_t i = 1; i < fs->n_surface; i++) {
        if (fs->surfaces[i - 1]->level > fs->surfaces[i]->level)
            fuzz_finding("surfaces are not in the order of their levels");
    }
    if (fs->lock_count != 0 && fs->idle_source != 0)
        fuzz_finding("a render waits although the render lock is held");
    if (fs->idle_source != 0 && g_main_context_find_source_by_id(nullptr, fs->idle_source) == nullptr)
        fuzz_finding("the pending render is none of the main loop's");
    if (!memory_outputs_unharmed())
        fuzz_finding("a byte beside an output's memory was written");
}

std::string joined(const std::vector<std::string> &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

std::string compare_texts(model::Model &m)
{
    out_flush();
    std::string wrong;
    if (!text_matches(m.out, fuzz_printed.out))
        wrong += different("standard output", m.out, fuzz_printed.out);
    if (sorted_notices(m.err) != sorted_notices(fuzz_printed.err))
        wrong += different("standard error", m.err, fuzz_printed.err);
    m.out.clear();
    m.err.clear();
    return wrong;
}

std::string compare_names(const model::Model &m)
{
    for (const auto &[name, object] : session->objects) {
        if (object.has_name != (m.shared_memory.count(name) != 0))
            return "the name of shared memory " + name + (object.has_name ? " is still there\n" : " is gone\n");
    }
    return {};
}

std::string compare_calls(model::Model &m)
{
    const std::string expected = joined(m.calls), found = joined(memory_output_calls);
    m.calls.clear();
    return expected == found ? "" : different("calls of the outputs", expected, found);
}

void compare(model::Model &m, const Action &a)
{
    const std::string wrong = compare_texts(m) + compare_calls(m) + compare_names(m) + history_compare_records(m) +
                              history_compare_memory(m, model::PRIMARY) + history_compare_memory(m, model::SECOND);
    if (!wrong.empty())
        fuzz_finding("at\n%s%s", history_text({a}).c_str(), wrong.c_str());
}

// The assertions that a client can make fail; each of them ends the server, and a supervisor starts it again.
constexpr struct {
    const char *function, *expression;
} CAUSED_BY_CLIENTS[] = {
    {"create", "0"}, // no such object, or nothing can be mapped
    {"fs_rotate_display", "0"},
    {"fs_crop_area", "rect->x2 >= rect->x1"},
    {"fs_crop_area", "rect->y2 >= rect->y1"},
    {"fs_resize_surface", "w > 0"},
    {"fs_resize_surface", "h > 0"},
    {"fs_set_unlock", "surface->lock_counter >= 0"},
    {"image_render", "0"}, // no converter for a turn by 180 degrees
};

bool is_caused_by_clients(const FailedAssertion &failed)
{
    for (const auto &entry : CAUSED_BY_CLIENTS) {
        if (failed.function == entry.function && failed.expression == entry.expression)
            return true;
    }
    return false;
}

void check_failure(const FailedAssertion &failed, const std::optional<model::Aborted> &expected)
{
    if (prints())
        fprintf(stderr, "  the server ends: %s: `%s'\n", failed.function.c_str(), failed.expression.c_str());
    if (!session->m) {
        if (!is_caused_by_clients(failed))
            fuzz_finding("%s: assertion `%s' failed", failed.function.c_str(), failed.expression.c_str());
        return;
    }
    if (!expected)
        fuzz_finding("%s: assertion `%s' failed, and should not", failed.function.c_str(), failed.expression.c_str());
    if (failed.function != expected->function || failed.expression != expected->expression)
        fuzz_finding("%s: assertion `%s' failed instead of %s: `%s'", failed.function.c_str(),
                     failed.expression.c_str(), expected->function.c_str(), expected->expression.c_str());
    const std::string wrong = compare_texts(*session->m);
    if (!wrong.empty())
        fuzz_finding("before the assertion %s", wrong.c_str());
}

// ---- one session ----

// What the model says: its reply, or the assertion that has to fail.
struct Expected {
    model::Reply reply;
    std::optional<model::Aborted> aborted;
};

Expected tell_model(const Action &a, const std::string &object)
{
    Expected expected;
    if (!session->m)
        return expected;
    try {
        expected.reply = history_tell(*session->m, a, object, a.makes ? &session->objects.at(object).memory : nullptr);
    } catch (const model::Aborted &aborted) {
        expected.aborted = aborted;
    }
    return expected;
}

// False when the server has failed an assertion.
bool play_action(const Action &a)
{
    const std::string object = a.object != 0 ? "/" + std::to_string(a.object) : "";
    if (a.makes)
        make_object(a, object);
    if (a.kind == Action::DRAW || a.kind == Action::TRUNCATE)
        change_object(a, object);
    const Expected expected = tell_model(a, object);
    fuzz_printed = {};
    memory_output_calls.clear();
    try {
        const model::Reply reply = server_do(a, object);
        if (expected.aborted)
            fuzz_finding("%s: assertion `%s' did not fail", expected.aborted->function.c_str(),
                         expected.aborted->expression.c_str());
        if (session->m && reply != expected.reply)
            fuzz_finding("the reply differs\n%s", history_text({a}).c_str());
    } catch (const FailedAssertion &failed) {
        check_failure(failed, expected.aborted);
        return false;
    }
    check_list();
    if (session->m)
        compare(*session->m, a);
    return true;
}

void play_status()
{
    fuzz_printed = {};
    fs_dump_status(fs);
    if (!session->m)
        return;
    session->m->out = model_status(*session->m);
    const std::string wrong = compare_texts(*session->m);
    if (!wrong.empty())
        fuzz_finding("status: %s", wrong.c_str());
}

bool play_actions(Decoder &d)
{
    for (int i = 0; i < MOST_ACTIONS && (!d.in.empty() || d.burst.left > 0); i++) {
        const Action a = decode_action(d);
        if (prints())
            fprintf(stderr, "%s", history_text({a}).c_str());
        if (!play_action(a))
            return false;
        if (i % STATUS_EVERY == 0)
            play_status();
    }
    return play_action({}); // a last render
}

// The clients leave one after another. An assertion may fail even then (a lock that holds back its own release).
bool hang_up_all()
{
    while (!session->connections.empty()) {
        Action a;
        a.kind = Action::HANG_UP;
        a.client = session->connections.begin()->first;
        if (!play_action(a))
            return false;
    }
    return play_action({});
}

void print_config(const Config &c)
{
    if (!prints())
        return;
    fprintf(stderr, "server of %d x %d\n", c.requested_w, c.requested_h);
    for (const model::Device *d : {&c.primary, &c.second})
        fprintf(stderr, "device of %d x %d, depth %u, stride %u, memory %u\n", d->width, d->height, d->depth, d->stride,
                d->memory);
}

void start(const Decoder &d, bool with_model)
{
    print_config(d.config);
    model::Model m = history_model(d.config);
    for (int which : {model::PRIMARY, model::SECOND})
        memory_output_set(which, m.outputs[which].device, m.outputs[which].frame.bytes.data());
    if (with_model)
        session->m = std::move(m);
    selected_surface_index = 0;
    fs = fs_new(d.config.requested_w, d.config.requested_h);
}

void end()
{
    if (fs->idle_source != 0)
        g_source_remove(fs->idle_source);
    fs_destroy(fs);
    fs = nullptr;
    for (auto &[client, connection] : session->connections)
        mc_close(connection);
    for (void *pixels : session->mapped)
        client_memory_retire(pixels); // nothing happens where the server has done so
    if (session->opened >= 0)
        close(session->opened);
    for (auto &[name, object] : session->objects) {
        munmap(object.data, object.mapped);
        close(object.fd);
    }
    memory_output_drop(model::PRIMARY);
    memory_output_drop(model::SECOND);
    out_flush(); // what waits would be the next session's
    fuzz_printed = {};
    memory_output_calls = {};
}

// False when the server has failed an assertion.
bool play_once(const uint8_t *data, size_t size, bool with_model)
{
    Session s;
    session = &s;
    Decoder d = decode_start({data, data + size});
    start(d, with_model);
    bool whole;
    try {
        whole = play_actions(d) && hang_up_all();
    } catch (const FailedAssertion &failed) {
        fuzz_finding("%s: assertion `%s' failed outside a request", failed.function.c_str(), failed.expression.c_str());
    }
    end();
    session = nullptr;
    return whole;
}

size_t allocated()
{
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes() : 0;
}

} // namespace

void session_play(const uint8_t *data, size_t size, bool with_model)
{
    // What the server keeps for good (a list that has grown) is taken once, a leak each time.
    for (int run = 0; run < LEAKING_RUNS; run++) {
        const size_t before = allocated();
        if (!play_once(data, size, with_model) || allocated() <= before)
            return;
    }
    fuzz_finding("memory is left over after the session, each time that it is played");
}
