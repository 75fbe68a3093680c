// SPDX-License-Identifier: MIT
#include "panel.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>

#include "../../tests/support/fake_device.h"
#include "../../tests/support/history/history.h"

namespace {

struct Panel {
    FakeDevice console, outputs[2];
    bool has_refused = false;
};

std::unique_ptr<Panel> panel;

// Asked by the devices at every opening and request.
bool fails(unsigned long request)
{
    const bool failed = system_strikes(request == 0 ? Trouble::NO_DEVICE : Trouble::NO_CONTROL);
    if (failed && request == 0)
        panel->has_refused = true;
    return failed;
}

void apply(FakeDevice &device, const DeviceForm &form)
{
    device.fix = form.fix;
    device.var = form.var;
    if (ftruncate(device.memfd(), static_cast<off_t>(form.fix.smem_len)) != 0) {
        perror("ftruncate");
        exit(2); // the machine's fault, not a finding
    }
}

// What a device shows before the server opens it.
void draw(const FakeDevice &device, uint32_t seed)
{
    std::vector<uint8_t> bytes(device.fix.smem_len);
    history_draw(bytes.data(), bytes.size(), 0, seed);
    if (pwrite(device.memfd(), bytes.data(), bytes.size(), 0) < 0)
        perror("pwrite");
}

} // namespace

void panel_open(const DeviceForm forms[2], bool other_names)
{
    panel.reset(new Panel{
        FakeDevice(other_names ? "/dev/vc/0" : "/dev/tty0"),
        {FakeDevice(other_names ? "/dev/fb/0" : "/dev/fb0"), FakeDevice(other_names ? "/dev/fb/2" : "/dev/fb2")}});
    fake_device_fails = fails;
    panel->outputs[1].has_layer = true;
    for (int i = 0; i < 2; i++) {
        apply(panel->outputs[i], forms[i]);
        draw(panel->outputs[i], static_cast<uint32_t>(i) + 1);
    }
    take_opened_paths();
}

void panel_close(bool released)
{
    for (const FakeDevice &output : panel->outputs) {
        if (released && system_was_mapped(output.memfd()) && !output.is_filled_with(0))
            fuzz_finding("%s is not black after the server's end", output.path.c_str());
    }
    panel.reset();
}

void panel_toggle(int device)
{
    FakeDevice &output = panel->outputs[device];
    output.failing_request = output.failing_request == 0 ? FBIOGET_VSCREENINFO : 0;
}

void panel_describe(int device, const DeviceForm &form)
{
    // Memory that is mapped does not shrink: only what the next opening is told does.
    FakeDevice &output = panel->outputs[device];
    if (form.fix.smem_len >= output.fix.smem_len)
        apply(output, form);
    output.fix.line_length = form.fix.line_length;
    output.var = form.var;
}

Opening panel_opening()
{
    const auto is_there = [](const std::string &path) {
        return path == panel->console.path || path == panel->outputs[0].path || path == panel->outputs[1].path;
    };
    const std::vector<std::string> paths = take_opened_paths();
    if (panel->has_refused)
        return Opening::REFUSED;
    return std::all_of(paths.begin(), paths.end(), is_there) ? Opening::FINE : Opening::MISSING;
}
