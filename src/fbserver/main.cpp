// SPDX-License-Identifier: MIT
// fbserver: shows the shared-memory surfaces of many processes on one framebuffer.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include "../base/output.h"
#include "command.h"
#include "connection.h"
#include "main_loop.h"
#include "options.h"

namespace {

// What is left of the log when a reader is slow at the end.
constexpr int LAST_LINES_MS = 50;

// A service manager may start the server without them. The next descriptor to be opened would take their place, and
// the log would go to a client, into the lock file or onto the screen.
void open_missing_standard_streams()
{
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

// Images are mapped each for itself and go back to the system when they are freed. glibc would take the next ones from
// its heap once it has seen one freed, and keep them there.
void map_large_blocks()
{
#ifdef M_MMAP_THRESHOLD
    constexpr int LARGE_BYTES = 128 * 1024;
    mallopt(M_MMAP_THRESHOLD, LARGE_BYTES);
#endif
}

// The message channel's lines go where the rest of the log goes.
void log_line(const char *line)
{
    err_printf("%s\n", line);
}

void write_last_lines()
{
    output_drain(LAST_LINES_MS);
}

int start_up_error()
{
    write_last_lines();
    return -1;
}

} // namespace

int main(int argc, char **argv)
{
    open_missing_standard_streams();
    map_large_blocks();
    signals_install();
    Options options;
    if (options_parse(argc, argv, &options) < 0)
        return start_up_error();
    options_print(&options);
    if (output_scale < 1) {
        out_puts("output scale must be bigger than 1"); // 1 itself is accepted
        return start_up_error();
    }
    fs = fs_new(options.w, options.h);
    if (fs == nullptr)
        return start_up_error();
    if (options.benchmark != 0) {
        write_last_lines();
        return 0; // measures start-up alone: nothing is opened, nothing is taken down
    }
    out_flush();
    mc_set_log(log_line);
    mc_factory *factory = mc_factory_open("pfb", on_new_connection, nullptr, nullptr);
    main_loop_run();

    mc_factory_close(factory);
    fs_destroy(fs);
    fs = nullptr;
    write_last_lines();
    return 0;
}
