// SPDX-License-Identifier: MIT
#include "fake_device.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/kd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

bool next_munmap_fails;

bool (*fake_device_fails)(unsigned long request) = [](unsigned long) { return false; };

namespace {

constexpr unsigned long LAYER_CONTROL = 0x46FF;
constexpr uint32_t LAYER_APPLY = 3, LAYER_READ = 4;

std::vector<FakeDevice *> devices;
std::vector<std::string> opened;

FakeDevice *device_of(int fd)
{
    struct stat wanted, have;
    if (fstat(fd, &wanted) != 0)
        return nullptr;
    for (FakeDevice *device : devices) {
        if (fstat(device->memfd(), &have) == 0 && have.st_dev == wanted.st_dev && have.st_ino == wanted.st_ino)
            return device;
    }
    return nullptr;
}

int control_layer(FakeDevice &device, void *block)
{
    auto *words = static_cast<uint32_t *>(block);
    device.controls.emplace_back(words, words + 48);
    if (words[0] == LAYER_READ)
        memcpy(block, device.layer, sizeof device.layer);
    else if (words[0] == LAYER_APPLY)
        memcpy(device.layer, block, sizeof device.layer);
    return 0;
}

int answer(FakeDevice &device, unsigned long request, void *argument)
{
    device.requests.push_back(request);
    if (request == device.failing_request || fake_device_fails(request)) {
        errno = EIO;
        return -1;
    }
    switch (request) {
    case FBIOGET_FSCREENINFO:
        memcpy(argument, &device.fix, sizeof device.fix);
        return 0;
    case FBIOGET_VSCREENINFO:
        memcpy(argument, &device.var, sizeof device.var);
        return 0;
    case FBIOPUT_VSCREENINFO:
        memcpy(&device.var, argument, sizeof device.var);
        return 0;
    case KDSETMODE:
        device.console_mode = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
        return 0;
    case LAYER_CONTROL:
        if (device.has_layer)
            return control_layer(device, argument);
        [[fallthrough]];
    default:
        errno = ENOTTY;
        return -1;
    }
}

int open_device(const char *path, int flags)
{
    opened.emplace_back(path);
    for (const FakeDevice *device : devices) {
        if (device->path != path || (flags & O_ACCMODE) != O_RDWR)
            continue;
        errno = fake_device_fails(0) ? EBUSY : device->open_error;
        return errno == 0 ? dup(device->memfd()) : -1;
    }
    errno = ENOENT;
    return -1;
}

} // namespace

FakeDevice::FakeDevice(const char *path) : path(path), fd(memfd_create("device", MFD_CLOEXEC))
{
    if (fd < 0) {
        perror("fake device");
        abort();
    }
    devices.push_back(this);
}

FakeDevice::~FakeDevice()
{
    std::erase(devices, this);
    close(fd);
}

void FakeDevice::describe(uint32_t w, uint32_t h, uint32_t bits, uint32_t stride, uint32_t rows)
{
    var.xres = w;
    var.yres = h;
    var.bits_per_pixel = bits;
    const bool is_16 = bits == 16;
    var.red = {is_16 ? 11u : 16u, is_16 ? 5u : 8u, 0};
    var.green = {is_16 ? 5u : 8u, is_16 ? 6u : 8u, 0};
    var.blue = {0, is_16 ? 5u : 8u, 0};
    fix.line_length = stride;
    fix.smem_len = stride * rows;
    if (ftruncate(fd, static_cast<off_t>(fix.smem_len)) != 0) {
        perror("fake device");
        abort();
    }
}

std::vector<uint8_t> FakeDevice::memory() const
{
    std::vector<uint8_t> bytes(fix.smem_len);
    const ssize_t n = pread(fd, bytes.data(), bytes.size(), 0);
    bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return bytes;
}

void FakeDevice::fill(uint8_t byte) const
{
    const std::vector<uint8_t> bytes(fix.smem_len, byte);
    if (pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        perror("fake device");
        abort();
    }
}

bool FakeDevice::is_filled_with(uint8_t byte) const
{
    return memory() == std::vector<uint8_t>(fix.smem_len, byte);
}

std::vector<std::string> take_opened_paths()
{
    return std::exchange(opened, {});
}

extern "C" {
int __real_open64(const char *path, int flags, ...);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_munmap(void *start, size_t size);

// A program with its own way of unmapping brings its own.
[[gnu::weak]] int __wrap_munmap(void *start, size_t size)
{
    if (!std::exchange(next_munmap_fails, false))
        return __real_munmap(start, size);
    errno = EINVAL;
    return -1;
}

// Which of the two names a program calls depends on how it was compiled.
int __wrap_open64(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(args, unsigned) : 0;
    va_end(args);
    return strncmp(path, "/dev/", 5) == 0 ? open_device(path, flags) : __real_open64(path, flags, mode);
}

int __wrap_open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(args, unsigned) : 0;
    va_end(args);
    return __wrap_open64(path, flags, mode);
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    FakeDevice *device = device_of(fd);
    return device != nullptr ? answer(*device, request, argument) : __real_ioctl(fd, request, argument);
}
}
