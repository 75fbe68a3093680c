// SPDX-License-Identifier: MIT
// A record that a test and the processes that it forks see alike: numbers that they count together.
#pragma once

#include <atomic>
#include <new>
#include <stdexcept>
#include <sys/mman.h>

template <typename Record> class Shared {
public:
    Shared()
    {
        void *memory = mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::runtime_error("no shared memory"); // ends the test
        record_ = new (memory) Record{};
    }
    ~Shared() { munmap(record_, sizeof(Record)); }
    Shared(const Shared &) = delete;
    Shared &operator=(const Shared &) = delete;

    Record *operator->() const { return record_; }
    Record &operator*() const { return *record_; }

private:
    Record *record_;
};

using SharedCount = Shared<std::atomic<unsigned long>>;
