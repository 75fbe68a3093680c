// SPDX-License-Identifier: MIT
// What the fuzz targets share. A target is one file with an LLVMFuzzerTestOneInput; it is linked with libFuzzer, or
// with replay.cpp, which feeds it files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// The input as a program reads it: value by value. Behind its end all values are 0.
struct FuzzInput {
    const uint8_t *at;
    const uint8_t *end;

    bool empty() const { return at == end; }
    uint8_t byte() { return at < end ? *at++ : uint8_t{0}; }
    uint16_t half() { return static_cast<uint16_t>(byte() | byte() << 8); }
    uint32_t word() { return half() | static_cast<uint32_t>(half()) << 16; }
    int below(int n) { return byte() % n; }
    int between(int low, int high) { return low + below(high - low + 1); } // both included, at most 256 values
    bool chance(int of_256) { return byte() >= 256 - of_256; }
    std::span<const uint8_t> take(size_t n);
    uint8_t last() { return at < end ? *--end : uint8_t{0}; } // the input's last byte, taken off it
};

// Says what was found and ends the process: libFuzzer keeps the input, a test fails.
[[noreturn, gnu::format(printf, 1, 2)]] void fuzz_finding(const char *format, ...);

// Thrown where an assertion of the server failed, in place of its end (wrap.cpp).
struct FailedAssertion {
    std::string expression;
    std::string file;
    std::string function;
};

// What the server has printed since it was last cleared, instead of reaching the process's own streams (wrap.cpp).
struct Printed {
    std::string out, err;
};
extern Printed fuzz_printed;

// What becomes of what the server prints: kept, or refused for now (the reader does not read), or for good (it is
// gone).
enum class Readers : uint8_t { READ, STUCK, GONE };
extern Readers fuzz_readers;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
