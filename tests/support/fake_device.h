// SPDX-License-Identifier: MIT
// Framebuffer and console devices inside the process: programs that link fake_device.cpp wrap open and ioctl in
// the linker (--wrap), and every "/dev/..." that they open is one of these or does not exist.
#pragma once

#include <cstdint>
#include <linux/fb.h>
#include <string>
#include <vector>

struct FakeDevice {
    std::string path;
    fb_fix_screeninfo fix{};
    fb_var_screeninfo var{};
    uint32_t layer[48] = {}; // the second layer's driver-private control block
    bool has_layer = false;
    unsigned long failing_request = 0;           // this ioctl answers EIO
    int open_error = 0;                          // opening it fails with this
    std::vector<unsigned long> requests;         // in the order in which they came
    std::vector<std::vector<uint32_t>> controls; // the blocks of request 0x46FF as they came in
    uint32_t console_mode = 0;                   // of KDSETMODE

    explicit FakeDevice(const char *path);
    ~FakeDevice();
    FakeDevice(const FakeDevice &) = delete;
    FakeDevice &operator=(const FakeDevice &) = delete;

    // 16 bits 5-6-5 or 32 bits; `stride` bytes per row, memory for `rows` rows.
    void describe(uint32_t w, uint32_t h, uint32_t bits, uint32_t stride, uint32_t rows);
    std::vector<uint8_t> memory() const;
    void fill(uint8_t byte) const;
    bool is_filled_with(uint8_t byte) const;
    int memfd() const { return fd; }

private:
    int fd;
};

// The next munmap of the process fails with EINVAL, and unmaps nothing. Programs that link this wrap munmap too.
extern bool next_munmap_fails;

// Asked at each opening (0) and each ioctl (its request) whether it fails, whatever the device says.
extern bool (*fake_device_fails)(unsigned long request);

// The paths under /dev that were opened, found or not, since the last call.
std::vector<std::string> take_opened_paths();
