// SPDX-License-Identifier: MIT
// What a piece of code prints, as a string: on standard output, or on standard error.
#pragma once

#include <cstdint>

#include "stdout_capture.h"

// Present in sanitized programs only. What a sanitizer reports must not end in a capture that dies with the program.
extern "C" [[gnu::weak]] void __sanitizer_set_report_fd(void *fd);

// Catches standard error while the object lives.
class StderrCapture {
public:
    StderrCapture()
    {
        saved = dup(STDERR_FILENO);
        file = memfd_create("stderr", MFD_CLOEXEC);
        if (saved < 0 || file < 0 || dup2(file, STDERR_FILENO) < 0) {
            perror("capturing standard error");
            abort();
        }
        send_reports_to(saved);
    }
    ~StderrCapture()
    {
        send_reports_to(STDERR_FILENO);
        dup2(saved, STDERR_FILENO);
        close(saved);
        close(file);
    }
    StderrCapture(const StderrCapture &) = delete;
    StderrCapture &operator=(const StderrCapture &) = delete;

    std::string text() const
    {
        std::string bytes(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
        const ssize_t n = pread(file, bytes.data(), bytes.size(), 0);
        bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return bytes;
    }

private:
    static void send_reports_to(int fd)
    {
        if (__sanitizer_set_report_fd != nullptr)
            __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(fd)));
    }

    int saved;
    int file;
};

template <typename Body> std::string printed(Body body)
{
    const StdoutCapture capture;
    body();
    return capture.text();
}

template <typename Body> std::string complained(Body body)
{
    const StderrCapture capture;
    body();
    return capture.text();
}
