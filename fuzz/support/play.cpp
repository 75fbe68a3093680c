// SPDX-License-Identifier: MIT
#include "play.h"

#include <cstdio>
#include <cstdlib>
#include <glib.h>
#include <memory>

#include "../../src/base/output.h"
#include "../../src/fbserver/command.h"
#include "../../src/fbserver/connection.h"
#include "../../src/kernels/kernels.h"
#include "../../tests/support/history/ask.h"
#include "outputs.h"
#include "system.h"

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

// What an assertion leaves behind when it fails is lost with the process, so the leak sanitizer has nothing to say
// about sessions that end so; all others are measured, see session_play.
extern "C" const char *__asan_default_options()
{
    return "detect_leaks=0";
}

namespace {

constexpr int MOST_ACTIONS = 300;
constexpr int STATUS_EVERY = 8;
constexpr int LEAKING_RUNS = 4; // a session that takes memory in so many runs one after another leaks

std::map<int, mc_connection *> connections; // of the session that is played

// ---- the actions ----

// While it lives the server is at work, and troubles strike.
struct ServerAtWork {
    explicit ServerAtWork(const Trouble &trouble) { system_trouble(trouble); }
    ~ServerAtWork() { system_settle(); }
    ServerAtWork(const ServerAtWork &) = delete;
    ServerAtWork &operator=(const ServerAtWork &) = delete;
};

// The idle render, without the main loop around it: an assertion leaves by an exception, and GLib has no place for one.
void render_if_pending()
{
    if (fs->idle_source == 0)
        return;
    g_source_remove(fs->idle_source);
    fs_render(fs);
}

void connect_client(const Action &a, const Trouble &trouble)
{
    const ServerAtWork at_work(trouble);
    mc_connection *connection = mc_connection_new(-1, a.word.c_str());
    if (connection == nullptr)
        return;
    on_new_connection(nullptr, connection, nullptr);
    connections[a.client] = connection;
}

model::Reply ask(mc_connection *connection, const Action &a, const std::string &object, const Trouble &trouble)
{
    // Freed also where a failed assertion leaves by an exception.
    const std::unique_ptr<mc_packet, decltype(&mc_packet_free)> packet{history_packet(a, object), mc_packet_free};
    const ServerAtWork at_work(trouble);
    return history_reply(handle_command(connection, packet.get()));
}

model::Reply server_do(const Action &a, const std::string &object, const Trouble &trouble)
{
    const auto found = connections.find(a.client);
    mc_connection *connection = found != connections.end() ? found->second : nullptr;
    if (a.kind == Action::CONNECT) {
        connect_client(a, trouble);
    } else if (a.kind == Action::REQUEST && connection != nullptr) {
        return ask(connection, a, object, trouble);
    } else if (a.kind == Action::HANG_UP && connection != nullptr) {
        const ServerAtWork at_work(trouble);
        handle_hangup(connection);
        connections.erase(found);
    } else if (a.kind == Action::RENDER) {
        const ServerAtWork at_work(trouble);
        render_if_pending();
    }
    return {};
}

// Memory that grows again is for the hostile alone: what the server has seen missing stays zero, and the model does not
// know what it has seen.
void client_do(const Action &a, const std::string &name, bool hostile)
{
    if (a.makes)
        system_make_object(name, a.size, a.style, a.seed);
    const auto object = fuzz_system.objects.find(name);
    if (object == fuzz_system.objects.end())
        return;
    if (a.kind == Action::DRAW)
        system_draw(object->second, a.style, a.seed);
    else if (a.kind == Action::TRUNCATE && (hostile || a.size < object->second.memory.size))
        system_resize(object->second, a.size);
}

// ---- what must hold ----

void check_backend(const Backend *backend)
{
    int users = 0, synchronised = 0;
    for (int32_t i = 0; i < fs->n_surface; i++) {
        const ImageSurface *surface = fs->surfaces[i];
        const bool is_user = surface->backend == backend;
        users += is_user;
        synchronised += is_user && surface_has(surface, SURFACE_SHOWN) && surface_has(surface, SURFACE_SYNC);
    }
    if (backend->use_count != users || backend->sync_count != synchronised)
        fuzz_finding("%s counts %d users, %d of them synchronised; there are %d and %d", backend->name,
                     backend->use_count, backend->sync_count, users, synchronised);
}

void check_locks()
{
    int locks = fs->rotation_lock;
    for (int32_t i = 0; i < fs->n_surface; i++)
        locks += fs->surfaces[i]->lock_counter != 0;
    if (fs->lock_count != locks)
        fuzz_finding("the render lock counts %d, and %d hold it", fs->lock_count, locks);
}

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
    if (fuzz_system.memory_refused)
        return; // lists may be lost
    check_locks();
    for (int32_t i = 0; i < fs->n_backend; i++)
        check_backend(fs->backends[i]);
}

// ---- one session ----

// The connection's own surface; for a request of one without, the selected one. Null for none.
const ImageSurface *surface_of(const Action &a)
{
    const auto found = connections.find(a.client);
    if (found == connections.end() || (a.kind != Action::REQUEST && a.kind != Action::HANG_UP))
        return nullptr;
    const auto *own = static_cast<const ImageSurface *>(mc_user_data(found->second));
    const bool selects = a.kind == Action::REQUEST && selected_surface_index >= 0 && fs->surfaces != nullptr;
    return own == nullptr && selects && selected_surface_index < fs->n_surface ? fs->surfaces[selected_surface_index]
                                                                               : own;
}

// False when the server has failed an assertion.
bool play_action(const Action &a, const Trouble &trouble, const Stage &stage)
{
    const std::string object = a.object != 0 ? "/" + std::to_string(a.object) : "";
    client_do(a, object, stage.hostile);
    if (a.kind == Action::TOGGLE_DEVICE)
        stage.toggle(a.device);
    stage.expect(a, object);
    abort_before(surface_of(a));
    fuzz_printed = {};
    try {
        const model::Reply reply = server_do(a, object, trouble);
        if (fuzz_system.object_refused || fuzz_system.mapping_refused)
            fuzz_finding("the server goes on without a client's memory");
        stage.compare(a, reply);
    } catch (const FailedAssertion &failed) {
        if (fuzz_prints())
            fprintf(stderr, "  the server ends: %s: %s: `%s'\n", failed.file.c_str(), failed.function.c_str(),
                    failed.expression.c_str());
        stage.judge(a, failed);
        return false;
    }
    check_list();
    stage.check();
    return true;
}

void play_status(const Stage &stage)
{
    fuzz_printed = {};
    fs_dump_status(fs);
    stage.compare_status();
}

void print_step(const Decoder &d, const Action &a)
{
    if (d.trouble.kind != Trouble::NONE)
        fprintf(stderr, "  trouble %d at call %d (object #%d, %u bytes)\n", d.trouble.kind, d.trouble.nth,
                d.trouble.object, d.trouble.size);
    if (fuzz_readers != Readers::READ)
        fprintf(stderr, "  the log is %s\n", fuzz_readers == Readers::STUCK ? "stuck" : "gone");
    fprintf(stderr, "%s", history_text({a}).c_str());
}

bool play_actions(Decoder &d, const Stage &stage)
{
    for (int i = 0; i < MOST_ACTIONS && (!d.in.empty() || d.burst.left > 0); i++) {
        const Action a = decode_action(d);
        fuzz_readers = d.readers;
        if (d.described >= 0)
            stage.describe(d.described, d.forms[d.described]);
        if (fuzz_prints())
            print_step(d, a);
        if (!play_action(a, d.trouble, stage))
            return false;
        if (i % STATUS_EVERY == 0)
            play_status(stage);
    }
    return play_action({}, {}, stage); // a last render
}

// The clients leave one after another. An assertion may fail even then (a lock that holds back its own release).
bool hang_up_all(const Trouble &trouble, const Stage &stage)
{
    while (!connections.empty()) {
        Action a;
        a.kind = Action::HANG_UP;
        a.client = connections.begin()->first;
        if (!play_action(a, trouble, stage))
            return false;
    }
    return play_action({}, {}, stage);
}

void end(const Stage &stage, bool whole)
{
    if (fs != nullptr && fs->idle_source != 0)
        g_source_remove(fs->idle_source);
    fs_destroy(fs);
    fs = nullptr;
    outputs_forget();
    stage.end(whole);
    for (auto &[client, connection] : connections)
        mc_close(connection);
    connections.clear();
    fuzz_readers = Readers::READ;
    out_flush(); // what waits would be the next session's
    err_flush();
    system_clean_up();
    fuzz_printed = {};
}

enum class Ending { WHOLE, ABORTED };

Ending play_once(const uint8_t *data, size_t size, const Stage &stage)
{
    Decoder d = decode_start({data, data + size}, stage.hostile);
    selected_surface_index = 0;
    bool whole = true;
    try {
        if (stage.start(d))
            whole = play_actions(d, stage) && hang_up_all(d.other_trouble, stage);
    } catch (const FailedAssertion &failed) {
        fuzz_finding("%s: %s: assertion `%s' failed outside a request", failed.file.c_str(), failed.function.c_str(),
                     failed.expression.c_str());
    }
    const bool lost_memory = fuzz_system.memory_refused;
    end(stage, whole);
    return whole && !lost_memory ? Ending::WHOLE : Ending::ABORTED;
}

size_t allocated()
{
    return __sanitizer_get_current_allocated_bytes ? __sanitizer_get_current_allocated_bytes() : 0;
}

} // namespace

bool fuzz_prints()
{
    static const bool wanted = getenv("PFB_FUZZ_PRINT") != nullptr;
    return wanted;
}

void session_play(const uint8_t *data, size_t size, const Stage &stage)
{
    const KernelList sets = kernels_available();
    kernels = sets.sets[size % static_cast<size_t>(sets.count)]; // any, but the same each time
    // What the server keeps for good (a list that has grown) is taken once, a leak each time.
    for (int run = 0; run < LEAKING_RUNS; run++) {
        const size_t before = allocated();
        if (play_once(data, size, stage) == Ending::ABORTED || allocated() <= before)
            return;
    }
    fuzz_finding("memory is left over after the session, each time that it is played");
}
