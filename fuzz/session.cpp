// SPDX-License-Identifier: MIT
// Whole sessions of several clients on the server alone, over devices of any description, in a system where anything
// may fail: no sanitizer report, no unexpected assertion, no leak, no hang.
#include <cstdio>
#include <cstring>

#include "../src/backend/backend.h"
#include "../src/base/output.h"
#include "../src/fbserver/command.h"
#include "../src/fbserver/options.h"
#include "support/panel.h"
#include "support/play.h"

namespace {

bool troubled; // something has failed that the server cannot undo

// As main() does, from the command line to the server object.
bool start_server(const Decoder &d)
{
    console_device = fb_device = remote_addr = nullptr;
    use_input = send_event_remote = use_x = 0;
    output_scale = 1;
    std::vector<char *> argv = {const_cast<char *>("fbserver")};
    for (const std::string &word : d.words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    Options options;
    if (options_parse(static_cast<int>(argv.size()) - 1, argv.data(), &options) < 0)
        return false;
    options_print(&options);
    if (output_scale < 1)
        return false;
    system_trouble(d.other_trouble);
    fs = fs_new(options.w, options.h);
    system_settle();
    return fs != nullptr;
}

void print_surroundings(const Decoder &d)
{
    fprintf(stderr, "fbserver");
    for (const std::string &word : d.words)
        fprintf(stderr, " '%s'", word.c_str());
    fprintf(stderr, "%s\n", d.other_names ? ", devices by their other names" : "");
    for (const DeviceForm &form : d.forms)
        fprintf(stderr, "device of %u x %u, depth %u, stride %u, memory %u\n", form.var.xres, form.var.yres,
                form.var.bits_per_pixel, form.fix.line_length, form.fix.smem_len);
}

bool start(const Decoder &d)
{
    troubled = false;
    if (fuzz_prints())
        print_surroundings(d);
    panel_open(d.forms, d.other_names);
    return start_server(d);
}

void end(bool whole)
{
    panel_close(whole && !troubled);
}

void expect(const Action &, const std::string &) {}

void compare(const Action &, const model::Reply &)
{
    troubled = troubled || fuzz_system.struck;
    if (panel_opening() == Opening::REFUSED)
        fuzz_finding("the server goes on without a device");
}

bool is_no_device(const char *path)
{
    return path != nullptr && strncmp(path, "/dev/", 5) != 0;
}

// Outputs end the server where a device cannot be opened, and nowhere else.
bool has_device_cause(const FailedAssertion &failed)
{
    if (failed.file.find("src/backend/") == std::string::npos)
        return true;
    return is_no_device(console_device) || is_no_device(fb_device) || panel_opening() != Opening::FINE;
}

void judge(const Action &a, const FailedAssertion &failed)
{
    if (!may_abort(a, failed) || !has_device_cause(failed))
        fuzz_finding("%s: %s: assertion `%s' failed", failed.file.c_str(), failed.function.c_str(),
                     failed.expression.c_str());
}

void nothing() {}

constexpr Stage ALONE = {true, start, end, panel_toggle, panel_describe, expect, compare, judge, nothing, nothing};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    session_play(data, size, ALONE);
    return 0;
}
