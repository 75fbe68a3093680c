// SPDX-License-Identifier: MIT
#include "output_watch.h"

#include <glib.h>
#include <unistd.h>

#include "../base/output.h"

namespace {

struct OutputWatch {
    GSource source;
    gpointer tag; // set while standard output is polled
};

// Polled only while lines wait: a pipe without a reader would otherwise wake the loop for ever.
gboolean prepare(GSource *source, gint *timeout_ms)
{
    auto *watch = reinterpret_cast<OutputWatch *>(source);
    *timeout_ms = -1;
    if (out_waiting() && watch->tag == nullptr) {
        watch->tag = g_source_add_unix_fd(source, STDOUT_FILENO, G_IO_OUT);
    } else if (!out_waiting() && watch->tag != nullptr) {
        g_source_remove_unix_fd(source, watch->tag);
        watch->tag = nullptr;
    }
    return FALSE;
}

gboolean check(GSource *source)
{
    auto *watch = reinterpret_cast<OutputWatch *>(source);
    return watch->tag != nullptr && g_source_query_unix_fd(source, watch->tag) != 0;
}

gboolean dispatch(GSource *, GSourceFunc, gpointer)
{
    out_flush();
    return G_SOURCE_CONTINUE;
}

GSourceFuncs functions{prepare, check, dispatch, nullptr, nullptr, nullptr};

} // namespace

void output_watch_start()
{
    GSource *source = g_source_new(&functions, sizeof(OutputWatch));
    reinterpret_cast<OutputWatch *>(source)->tag = nullptr;
    g_source_set_priority(source, G_PRIORITY_DEFAULT_IDLE);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}
