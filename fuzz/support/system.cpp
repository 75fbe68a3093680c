// SPDX-License-Identifier: MIT
#include "system.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "../../src/composite/client_memory.h"
#include "../../src/composite/composite.h"
#include "../../src/render/render.h"
#include "../../tests/support/failing_memory.h"
#include "../../tests/support/history/history.h"
#include "fuzz.h"
#include "poison.h"

System fuzz_system;

// The names that the linker looks for (--wrap). Which of mmap's two a program calls depends on how it was compiled.
void *fuzz_mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset) asm("__wrap_mmap");
void *fuzz_mmap64(void *address, size_t size, int protection, int flags, int fd, off64_t offset) asm("__wrap_mmap64");
void *real_mmap(void *address, size_t size, int protection, int flags, int fd, off64_t offset) asm("__real_mmap64");
int fuzz_munmap(void *start, size_t size) asm("__wrap_munmap");
int real_munmap(void *start, size_t size) asm("__real_munmap");
int fuzz_shm_open(const char *name, int flags, mode_t mode) asm("__wrap_shm_open");
int fuzz_shm_unlink(const char *name) asm("__wrap_shm_unlink");
// Where a pass is in the middle of something.
const ConverterChoice *fuzz_find_converter(const xc_image *src, const xc_image *dst,
                                           int32_t rotation) asm("__wrap__Z14find_converterPK8xc_imageS1_i");
const ConverterChoice *real_find_converter(const xc_image *src, const xc_image *dst,
                                           int32_t rotation) asm("__real__Z14find_converterPK8xc_imageS1_i");
void fuzz_scale_refresh(ImageSurface *surface) asm("__wrap__Z13scale_refreshP12ImageSurface");
void real_scale_refresh(ImageSurface *surface) asm("__real__Z13scale_refreshP12ImageSurface");

namespace {

constexpr int MORE_DESCRIPTORS = 30; // than after the first session are never open between two unless they leak
constexpr int ALL_DESCRIPTORS = 300; // of which those are looked for

// Shared memory, or a device's, as the server has it mapped.
struct Mapping {
    uint8_t *start;
    size_t bytes; // asked for; from there to the end of the last page nothing may be touched
    bool is_client;
    bool has_guards; // an inaccessible page on either side came with it
};

std::vector<Mapping> mappings;
int opened = -1; // the descriptor of the object that the server has opened and not mapped yet
bool armed;
int calls_left;

size_t page_size()
{
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t whole_pages(size_t bytes)
{
    return (bytes + page_size() - 1) / page_size() * page_size();
}

[[noreturn]] void no_memory(const char *what)
{
    perror(what);
    exit(2); // the machine's fault, not a finding
}

ino_t inode_of(int fd)
{
    struct stat file {};
    fstat(fd, &file);
    return file.st_ino;
}

std::vector<Mapping>::iterator find_mapping(const void *start)
{
    return std::find_if(mappings.begin(), mappings.end(), [=](const Mapping &m) { return m.start == start; });
}

void forget(std::vector<Mapping>::iterator mapping)
{
    const size_t whole = whole_pages(mapping->bytes);
    poison_remove(mapping->start + whole - page_size(), page_size());
    mappings.erase(mapping);
}

void note_mapping(void *start, size_t bytes, bool is_client, bool has_guards)
{
    auto *first = static_cast<uint8_t *>(start);
    poison_add(first + bytes, whole_pages(bytes) - bytes);
    mappings.push_back({first, bytes, is_client, has_guards});
}

// Between two inaccessible pages.
void *map_guarded(size_t bytes, int protection, int flags, int fd, off64_t offset)
{
    const size_t page = page_size();
    const size_t whole = whole_pages(bytes);
    if (bytes == 0 || whole < bytes || whole + 2 * page < whole)
        return real_mmap(nullptr, bytes, protection, flags, fd, offset); // the system says what is wrong
    constexpr int RESERVED = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    void *around = real_mmap(nullptr, whole + 2 * page, PROT_NONE, RESERVED, -1, 0);
    if (around == MAP_FAILED)
        return MAP_FAILED;
    void *start = real_mmap(static_cast<uint8_t *>(around) + page, bytes, protection, flags | MAP_FIXED, fd, offset);
    if (start == MAP_FAILED) {
        const int error = errno;
        real_munmap(around, whole + 2 * page);
        errno = error;
    }
    return start;
}

void *map_shared(void *address, size_t bytes, int protection, int flags, int fd, off64_t offset)
{
    const bool is_client = fd == opened;
    const bool fresh = (flags & MAP_FIXED) == 0;
    void *start = MAP_FAILED;
    errno = ENOMEM;
    if (!system_strikes(Trouble::NO_MAPPING))
        start = fresh ? map_guarded(bytes, protection, flags, fd, offset)
                      : real_mmap(address, bytes, protection, flags, fd, offset);
    if (start != MAP_FAILED) {
        note_mapping(start, bytes, is_client, fresh);
        fuzz_system.mapped.insert(inode_of(fd));
    }
    if (start == MAP_FAILED && is_client) {
        fuzz_system.mapping_refused = true;
        fuzz_system.refused_bytes = bytes;
    } else if (is_client)
        opened = -1; // the server closes it now
    return start;
}

// The clients' memory becomes a reservation of the server's, devices' is unmapped: what is left was lost on the way.
void give_back(const Mapping &mapping)
{
    if (mapping.is_client)
        client_memory_retire(mapping.start);
    const auto left = find_mapping(mapping.start);
    if (left == mappings.end())
        return;
    const size_t guard = mapping.has_guards ? page_size() : 0;
    real_munmap(mapping.start - guard, whole_pages(mapping.bytes) + 2 * guard);
    forget(left);
}

int count_descriptors()
{
    int open = 0;
    for (int fd = 0; fd < ALL_DESCRIPTORS; fd++)
        open += fcntl(fd, F_GETFD) >= 0;
    return open;
}

void strike_object()
{
    const auto found = fuzz_system.objects.find("/" + std::to_string(fuzz_system.trouble.object));
    if (found != fuzz_system.objects.end())
        system_resize(found->second, fuzz_system.trouble.size);
}

} // namespace

void system_trouble(const Trouble &trouble)
{
    fuzz_system.trouble = trouble;
    fuzz_system.struck = fuzz_system.object_refused = fuzz_system.mapping_refused = false;
    armed = true;
    calls_left = trouble.nth;
    if (trouble.kind == Trouble::NO_MEMORY)
        fail_allocation(ANY_ALLOCATION, trouble.nth);
}

void system_settle()
{
    armed = false;
    if (fuzz_system.trouble.kind == Trouble::NO_MEMORY && allocation_failed())
        fuzz_system.struck = fuzz_system.memory_refused = true;
}

bool system_was_mapped(int fd)
{
    return fuzz_system.mapped.count(inode_of(fd)) != 0;
}

bool system_strikes(Trouble::Kind kind)
{
    if (!armed || fuzz_system.struck || fuzz_system.trouble.kind != kind || --calls_left > 0)
        return false;
    fuzz_system.struck = true;
    return true;
}

void *fuzz_mmap64(void *address, size_t size, int protection, int flags, int fd, off64_t offset)
{
    if (fd >= 0 && (flags & MAP_SHARED) != 0)
        return map_shared(address, size, protection, flags, fd, offset);
    // In a signal handler pages that are readable take the place of missing ones: that never fails here.
    if (protection == PROT_NONE && (flags & MAP_FIXED) != 0) {
        if (system_strikes(Trouble::NO_MAPPING)) {
            errno = ENOMEM;
            return MAP_FAILED;
        }
        if (const auto mapping = find_mapping(address); mapping != mappings.end())
            forget(mapping);
    }
    return real_mmap(address, size, protection, flags, fd, offset);
}

void *fuzz_mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset)
{
    return fuzz_mmap64(address, size, protection, flags, fd, offset);
}

int fuzz_munmap(void *start, size_t size)
{
    const auto mapping = find_mapping(start);
    if (mapping == mappings.end())
        return real_munmap(start, size);
    if (system_strikes(Trouble::NO_UNMAPPING)) {
        errno = EINVAL;
        return -1;
    }
    const size_t guard = mapping->has_guards ? page_size() : 0;
    forget(mapping);
    return real_munmap(static_cast<uint8_t *>(start) - guard, whole_pages(size) + 2 * guard);
}

int fuzz_shm_open(const char *name, int, mode_t)
{
    const auto found = fuzz_system.objects.find(name);
    const bool is_there = found != fuzz_system.objects.end() && found->second.has_name;
    const bool fails = system_strikes(Trouble::NO_OBJECT);
    if (!is_there || fails) {
        errno = fails ? EMFILE : *name ? ENOENT : EINVAL;
        fuzz_system.object_refused = true;
        return -1;
    }
    opened = fcntl(found->second.fd, F_DUPFD_CLOEXEC, 0);
    return opened;
}

int fuzz_shm_unlink(const char *name)
{
    fuzz_system.objects.at(name).has_name = false;
    return 0;
}

const ConverterChoice *fuzz_find_converter(const xc_image *src, const xc_image *dst, int32_t rotation)
{
    if (system_strikes(Trouble::SHORTER))
        strike_object();
    return real_find_converter(src, dst, rotation);
}

void fuzz_scale_refresh(ImageSurface *surface)
{
    if (system_strikes(Trouble::SHORTER))
        strike_object();
    real_scale_refresh(surface);
}

void system_make_object(const std::string &name, size_t size, int style, uint32_t seed)
{
    SharedObject o{};
    o.fd = memfd_create("fuzz", MFD_CLOEXEC);
    o.mapped = size ? size : 1;
    if (o.fd < 0 || ftruncate(o.fd, static_cast<off_t>(size)) != 0)
        no_memory("memfd_create");
    void *data = real_mmap(nullptr, o.mapped, PROT_READ | PROT_WRITE, MAP_SHARED, o.fd, 0);
    if (data == MAP_FAILED)
        no_memory("mmap");
    o.data = static_cast<uint8_t *>(data);
    o.has_name = true;
    o.memory = {o.data, size};
    system_draw(o, style, seed);
    fuzz_system.objects[name] = o;
}

void system_draw(SharedObject &object, int style, uint32_t seed)
{
    history_draw(object.data, std::min(object.memory.size, object.mapped), style, seed);
}

void system_resize(SharedObject &object, uint32_t size)
{
    if (ftruncate(object.fd, size) != 0)
        no_memory("ftruncate");
    object.memory.size = size;
}

void system_clean_up()
{
    for (const Mapping &mapping : std::vector(mappings))
        give_back(mapping);
    if (opened >= 0)
        close(opened);
    opened = -1;
    for (auto &[name, object] : fuzz_system.objects) {
        real_munmap(object.data, object.mapped);
        close(object.fd);
    }
    fuzz_system = {};
    static const int open_at_first = count_descriptors();
    const int open = count_descriptors();
    if (open > open_at_first + MORE_DESCRIPTORS)
        fuzz_finding("%d descriptors are left open", open);
}
