// SPDX-License-Identifier: MIT
#include "buffer.h"

#include <algorithm>

#include "../../tests/support/history/history.h"
#include "poison.h"

namespace {

constexpr uint8_t AROUND = 0xC5;

} // namespace

Buffer::Buffer(size_t bytes, FuzzInput &in, size_t unit, bool at_start)
    : memory(bytes, at_start ? GuardedBuffer::AT_START : GuardedBuffer::AT_END,
             (at_start ? 0 : pixel_gap(bytes)) + unit * static_cast<size_t>(in.below(8))),
      size(bytes)
{
    std::fill(memory.all().begin(), memory.all().end(), AROUND);
    const uint8_t style = in.byte();
    history_draw(data(), size, style % 4, style);
    hide();
}

void Buffer::hide() const
{
    const uint8_t *first = memory.all().data();
    const uint8_t *last = first + memory.all().size();
    poison_add(first, static_cast<size_t>(data() - first));
    poison_add(data() + size, static_cast<size_t>(last - data()) - size);
}

void Buffer::bare() const
{
    poison_remove(memory.all().data(), memory.all().size());
}

void Buffer::check(const std::vector<uint8_t> &expected, const char *what) const
{
    bare();
    for (size_t i = 0; i < size; i++) {
        if (data()[i] != expected[i])
            fuzz_finding("%s: byte %zu is %02x instead of %02x", what, i, data()[i], expected[i]);
    }
    for (const uint8_t &byte : memory.all()) {
        if ((&byte < data() || &byte >= data() + size) && byte != AROUND)
            fuzz_finding("%s: wrote at byte %td", what, &byte - data());
    }
    hide();
}
