// SPDX-License-Identifier: MIT
// Devices that do not work, while the bystander's does; and the screen's own, from the start.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../../src/panelimage/panel_state.h"
#include "misbehaviour.h"

namespace {

constexpr unsigned ATTEMPTS = 10;

// Surfaces for the second layer, one after the other.
void second_layer(Stage &stage)
{
    stage.in_process([&] {
        for (unsigned i = 0; i < ATTEMPTS; i++) {
            TestClient client("fb2.client");
            client.create({.x = 0, .y = 0, .width = 50, .height = 50});
            client.send("show");
            EXPECT_TRUE(client.is_connected());
            stage.done()++;
        }
    });
}

void repair(const Stage &stage)
{
    const int fd = open((stage.panel_folder() + PANEL_STATE).c_str(), O_RDWR | O_CLOEXEC);
    void *memory = mmap(nullptr, sizeof(PanelState), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    ASSERT_NE(memory, MAP_FAILED);
    static_cast<PanelState *>(memory)->device[PANEL_FB0].faults = 0;
    munmap(memory, sizeof(PanelState));
}

// Nothing can be shown until the device is mended; then the next surface is.
void screen_mended(Stage &stage, const std::string &line)
{
    size_t descriptors = 0; // with the first client, and the device that it has opened
    for (unsigned i = 0; i < ATTEMPTS; i++) {
        TestClient client("fb.client");
        client.create({.x = 0, .y = 0, .width = 50, .height = 50});
        client.send("show");
        EXPECT_EQ(client.native_depth(), 0);
        if (i == 0)
            descriptors = process_descriptors(stage.server());
        stage.done()++;
    }
    EXPECT_EQ(count_of(stage.err(), line), ATTEMPTS) << stage.err();
    EXPECT_TRUE(wait_until([&] { return process_descriptors(stage.server()) < descriptors; }))
        << process_descriptors(stage.server()) << " descriptors, and " << descriptors << " with one client";
    repair(stage);
    TestClient client("fb.client");
    client.create(pixels_filled(PixelFormat::XRGB, 50, 50, 0xFF123456), 0, 0, 0);
    client.send("show");
    EXPECT_TRUE(wait_until([&] { return (stage.panel().raw(49, 49) & 0xFFFFFF) == 0x123456; }));
    stage.stop_server();
}

void screen_ioctl(Stage &stage)
{
    screen_mended(stage, "FBIOGET_FSCREENINFO: Input/output error");
}

void screen_mmap(Stage &stage)
{
    screen_mended(stage, "mmap: No such device");
}

// The device of an output stays open until the next surface opens it again.
StageOptions layer_fault(const char *fault)
{
    return {.panel = {"--layer2", "160x120:argb8888", "--fault", fault}, .kept = 1};
}

StageOptions screen_fault(const char *fault)
{
    return {.panel = {"--fault", fault}, .bystander = false};
}

} // namespace

std::vector<Misbehaviour> device_rows()
{
    return {
        {"LayerIoctlFails",
         "the second layer's requests (ioctl) fail",
         "a message each time, and the next surface tries again; the main screen goes on",
         "surfaces",
         {times(ATTEMPTS, "FBIOGET_FSCREENINFO: Input/output error"), times(ATTEMPTS, "init failed")},
         second_layer,
         layer_fault("fb2-fix")},
        {"LayerMmapFails",
         "the second layer cannot be mapped",
         "a message each time, and the next surface tries again; the main screen goes on",
         "surfaces",
         {times(ATTEMPTS, "mmap: No such device"), times(ATTEMPTS, "init failed")},
         second_layer,
         layer_fault("fb2-mmap")},
        {"LayerControlFails",
         "the second layer refuses to be switched on",
         "nothing",
         "surfaces",
         {},
         second_layer,
         layer_fault("fb2-control")},
        {"ScreenIoctlFails",
         "the screen's requests (ioctl) fail",
         "a message each time, and the next surface tries again: it is shown once the screen works",
         "surfaces",
         {},
         screen_ioctl,
         screen_fault("fb0-fix")},
        {"ScreenMmapFails",
         "the screen cannot be mapped",
         "a message each time, and the next surface tries again: it is shown once the screen works",
         "surfaces",
         {},
         screen_mmap,
         screen_fault("fb0-mmap")},
    };
}
