// SPDX-License-Identifier: MIT
#include "output_watch.h"

#include <glib-unix.h>
#include <unistd.h>

#include "../base/output.h"

namespace {

// One of the two streams. It is polled only while lines wait: a pipe without a reader would otherwise wake the loop for
// ever.
struct WatchedStream {
    int fd;
    bool (*waiting)();
    bool (*flush)();
    bool polled;
};

WatchedStream streams[] = {
    {STDOUT_FILENO, out_waiting, out_flush, false},
    {STDERR_FILENO, err_waiting, err_flush, false},
};

gboolean write_lines(gint, GIOCondition, gpointer data)
{
    auto *stream = static_cast<WatchedStream *>(data);
    stream->flush();
    stream->polled = stream->waiting();
    return stream->polled ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

void poll_stream(WatchedStream *stream)
{
    GSource *source = g_unix_fd_source_new(stream->fd, G_IO_OUT);
    g_source_set_priority(source, G_PRIORITY_DEFAULT_IDLE);
    g_source_set_callback(source, G_SOURCE_FUNC(write_lines), stream, nullptr);
    g_source_attach(source, nullptr);
    g_source_unref(source);
    stream->polled = true;
}

} // namespace

[[gnu::hot]] bool output_watch_begin()
{
    bool added = false;
    for (WatchedStream &stream : streams) {
        if (stream.polled || !stream.waiting())
            continue;
        poll_stream(&stream);
        added = true;
    }
    return added;
}
