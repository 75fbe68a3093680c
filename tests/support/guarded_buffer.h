// SPDX-License-Identifier: MIT
// Memory between two inaccessible pages, laid flush against one of them: one byte too far traps at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <sys/mman.h>
#include <unistd.h>

// The gap that keeps `size` bytes aligned for pixels when they end at the guard page.
constexpr size_t pixel_gap(size_t size)
{
    return (4 - size % 4) % 4;
}

class GuardedBuffer {
public:
    enum Side { AT_START, AT_END };

    // `size` bytes from data() on. `gap` bytes lie between them and the guard page of that side, to shift alignment.
    GuardedBuffer(size_t size, Side side, size_t gap = 0)
    {
        page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        inner_size = (size + gap + page - 1) / page * page;
        if (inner_size == 0)
            inner_size = page;
        void *mapped = mmap(nullptr, inner_size + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED || mprotect(at(mapped, page), inner_size, PROT_READ | PROT_WRITE) != 0) {
            perror("guarded buffer");
            abort();
        }
        inner = at(mapped, page);
        bytes = side == AT_START ? inner + gap : inner + inner_size - gap - size;
    }
    ~GuardedBuffer() { munmap(inner - page, inner_size + 2 * page); }
    GuardedBuffer(const GuardedBuffer &) = delete;
    GuardedBuffer &operator=(const GuardedBuffer &) = delete;

    uint8_t *data() const { return bytes; }
    // Everything that is accessible: the bytes asked for, the gap, and the rest of the pages on the far side.
    std::span<uint8_t> all() const { return {inner, inner_size}; }

private:
    static uint8_t *at(void *base, size_t offset) { return static_cast<uint8_t *>(base) + offset; }

    size_t page;
    size_t inner_size;
    uint8_t *inner;
    uint8_t *bytes;
};
