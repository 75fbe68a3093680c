// SPDX-License-Identifier: MIT
#include "client_memory.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace {

enum class Fault : uint8_t { NONE, SEEN, TOLD };

struct Range {
    uintptr_t start;
    size_t size; // whole pages
    // Of a live one:
    Fault fault = Fault::NONE; // whether pages of it were missing
    bool left = false;         // nobody will give it back
    uint32_t covered = 0;      // missing pages that were covered one by one
};

// Ranges in no particular order. There are about as many as clients at the same time.
struct RangeList {
    Range *entries;
    size_t n;
    size_t capacity;
};

RangeList live;     // mapped for a client
RangeList reserved; // inaccessible, free for the next client
volatile sig_atomic_t fault_seen;

size_t page_size()
{
    return static_cast<size_t>(sysconf(_SC_PAGESIZE)); // a signal handler may ask
}

bool make_room(RangeList &list)
{
    if (list.n < list.capacity)
        return true;
    const size_t capacity = list.capacity == 0 ? 16 : 2 * list.capacity;
    auto *entries = static_cast<Range *>(realloc(list.entries, capacity * sizeof(Range)));
    if (entries == nullptr)
        return false;
    list.entries = entries;
    list.capacity = capacity;
    return true;
}

void range_add(RangeList &list, Range range) // after make_room
{
    list.entries[list.n++] = range;
}

// The live range that begins at `pixels`, or null.
Range *live_at(const void *pixels)
{
    for (size_t i = 0; i < live.n; i++) {
        if (live.entries[i].start == reinterpret_cast<uintptr_t>(pixels))
            return &live.entries[i];
    }
    return nullptr;
}

void range_drop(RangeList &list, size_t index)
{
    list.entries[index] = list.entries[--list.n];
}

size_t whole_pages(size_t bytes)
{
    return (bytes + page_size() - 1) / page_size() * page_size();
}

// The smallest reservation that holds `size` bytes, or reserved.n.
size_t best_reservation(size_t size)
{
    size_t best = reserved.n;
    for (size_t i = 0; i < reserved.n; i++) {
        const bool fits = reserved.entries[i].size >= size;
        if (fits && (best == reserved.n || reserved.entries[i].size < reserved.entries[best].size))
            best = i;
    }
    return best;
}

// Neighbouring reservations become one, so that a large client fits where several small ones were.
void reserve(Range range)
{
    for (size_t i = 0; i < reserved.n;) {
        const Range other = reserved.entries[i];
        if (other.start + other.size == range.start)
            range = Range{other.start, other.size + range.size};
        else if (range.start + range.size == other.start)
            range.size += other.size;
        else {
            i++;
            continue;
        }
        range_drop(reserved, i);
        i = 0;
    }
    if (make_room(reserved)) // without memory for the note the range merely stays unused
        range_add(reserved, range);
}

void *map_into(size_t index, int fd, size_t bytes, size_t size)
{
    const Range range = reserved.entries[index];
    void *pixels =
        mmap(reinterpret_cast<void *>(range.start), bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
    if (pixels == MAP_FAILED || range.size == size) // after a failure the range may be a hole that others fill
        range_drop(reserved, index);
    else
        reserved.entries[index] = Range{range.start + size, range.size - size};
    return pixels;
}

// Missing pages are covered one by one, so that those behind them which exist are still seen. Each costs the process a
// mapping or two of the 65530 that it may have; when so many are covered, all that follows a missing page goes with it.
constexpr uint32_t COVERED_MOST = 4096;
uint32_t covered; // in all live ranges

bool cover(uintptr_t start, uintptr_t end)
{
    return mmap(reinterpret_cast<void *>(start), end - start, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
                0) != MAP_FAILED;
}

// Runs inside the signal handler: the lists do not change while pixels are read.
bool cover_missing_pages(uintptr_t address)
{
    for (size_t i = 0; i < live.n; i++) {
        Range &range = live.entries[i];
        if (address < range.start || address - range.start >= range.size)
            continue;
        const uintptr_t page = address / page_size() * page_size();
        const bool alone = covered < COVERED_MOST;
        if (alone) {
            covered++;
            range.covered++;
        }
        // The whole range is one mapping at last: that works even where there may be no further one.
        if (!cover(page, alone ? page + page_size() : range.start + range.size) &&
            !cover(range.start, range.start + range.size))
            return false;
        if (range.fault == Fault::NONE)
            range.fault = Fault::SEEN;
        fault_seen = 1;
        return true;
    }
    return false;
}

void handle_sigbus(int signo, siginfo_t *info, void *)
{
    const int saved_errno = errno;
    const bool sent = info->si_code <= 0; // by a process: there is no access that would be tried again
    if (sent || !cover_missing_pages(reinterpret_cast<uintptr_t>(info->si_addr))) {
        signal(signo, SIG_DFL); // not a client's: the access is tried again, and kills
        if (sent)
            raise(signo);
    }
    errno = saved_errno;
}

void catch_sigbus()
{
    static bool caught;
    if (caught)
        return;
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = handle_sigbus;
    caught = sigaction(SIGBUS, &action, nullptr) == 0;
}

} // namespace

void *client_memory_map(int fd, size_t bytes)
{
    catch_sigbus();
    if (!make_room(live)) { // what is not on the list is not guarded
        errno = ENOMEM;
        return MAP_FAILED;
    }
    const size_t size = whole_pages(bytes);
    if (size < bytes) // more than there is address space: let the system say so
        return mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    const size_t index = best_reservation(size);
    void *pixels = index < reserved.n ? map_into(index, fd, bytes, size)
                                      : mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (pixels != MAP_FAILED)
        range_add(live, Range{reinterpret_cast<uintptr_t>(pixels), size});
    return pixels;
}

[[gnu::hot]] void *client_memory_take_short()
{
    if (fault_seen == 0)
        return nullptr;
    for (size_t i = 0; i < live.n; i++) {
        if (live.entries[i].fault != Fault::SEEN)
            continue;
        live.entries[i].fault = Fault::TOLD;
        return reinterpret_cast<void *>(live.entries[i].start);
    }
    fault_seen = 0;
    return nullptr;
}

void client_memory_retire(void *pixels)
{
    const Range *found = live_at(pixels);
    if (found == nullptr)
        return;
    const Range range = *found;
    range_drop(live, static_cast<size_t>(found - live.entries));
    covered -= range.covered;
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED;
    if (mmap(pixels, range.size, PROT_NONE, flags, -1, 0) != MAP_FAILED)
        reserve(Range{range.start, range.size});
}

void client_memory_leave(void *pixels)
{
    if (Range *range = live_at(pixels))
        range->left = true;
}

ClientMemoryUse client_memory_use()
{
    ClientMemoryUse use{};
    for (size_t i = 0; i < live.n; i++) {
        const Range &range = live.entries[i];
        use.bytes += range.size;
        use.left_bytes += range.left ? range.size : 0;
        use.n_left += range.left ? 1 : 0;
    }
    return use;
}

uint64_t client_memory_size(const void *pixels)
{
    const Range *range = live_at(pixels);
    return range != nullptr ? range->size : 0;
}
