// SPDX-License-Identifier: MIT
#include "output_watch.h"

#include <glib.h>
#include <unistd.h>

#include "../base/output.h"

namespace {

// One of the two streams. It is polled only while lines wait: a pipe without a reader would otherwise wake the loop for
// ever.
struct WatchedStream {
    int fd;
    bool (*waiting)();
    bool (*flush)();
    gpointer tag; // set while it is polled
};

WatchedStream streams[] = {
    {STDOUT_FILENO, out_waiting, out_flush, nullptr},
    {STDERR_FILENO, err_waiting, err_flush, nullptr},
};

gboolean prepare(GSource *source, gint *timeout_ms)
{
    *timeout_ms = -1;
    for (WatchedStream &stream : streams) {
        if (stream.waiting() && stream.tag == nullptr) {
            stream.tag = g_source_add_unix_fd(source, stream.fd, G_IO_OUT);
        } else if (!stream.waiting() && stream.tag != nullptr) {
            g_source_remove_unix_fd(source, stream.tag);
            stream.tag = nullptr;
        }
    }
    return FALSE;
}

gboolean check(GSource *source)
{
    for (const WatchedStream &stream : streams) {
        if (stream.tag != nullptr && g_source_query_unix_fd(source, stream.tag) != 0)
            return TRUE;
    }
    return FALSE;
}

gboolean dispatch(GSource *, GSourceFunc, gpointer)
{
    for (const WatchedStream &stream : streams)
        stream.flush();
    return G_SOURCE_CONTINUE;
}

GSourceFuncs functions{prepare, check, dispatch, nullptr, nullptr, nullptr};

} // namespace

void output_watch_start()
{
    GSource *source = g_source_new(&functions, sizeof(GSource));
    g_source_set_priority(source, G_PRIORITY_DEFAULT_IDLE);
    g_source_attach(source, nullptr);
    g_source_unref(source);
}
