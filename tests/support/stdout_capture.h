// SPDX-License-Identifier: MIT
// Catches what the server's code prints on standard output (base/output.h) while the object lives.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "../../src/base/output.h"

class StdoutCapture {
public:
    StdoutCapture()
    {
        fflush(stdout);
        output_drain(WAIT_MS);
        saved = dup(STDOUT_FILENO);
        file = memfd_create("stdout", MFD_CLOEXEC); // has no name anywhere, so nothing is left behind
        if (saved < 0 || file < 0 || dup2(file, STDOUT_FILENO) < 0) {
            perror("capturing standard output");
            abort();
        }
    }
    ~StdoutCapture()
    {
        fflush(stdout);
        output_drain(WAIT_MS);
        dup2(saved, STDOUT_FILENO);
        close(saved);
        close(file);
    }
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;

    // All that was printed since the object was made.
    std::string text() const
    {
        fflush(stdout);
        output_drain(WAIT_MS);
        std::string bytes(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
        const ssize_t n = pread(file, bytes.data(), bytes.size(), 0);
        bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return bytes;
    }

private:
    static constexpr int WAIT_MS = 10000;
    int saved;
    int file;
};
