// SPDX-License-Identifier: MIT
// What an emulated processor adds to a program's output.
#pragma once

#include <string>

// Without the line that the emulator writes behind a program's last words when a signal ends it.
inline std::string without_emulators_line(std::string text)
{
    static constexpr char START[] = "qemu: uncaught target signal ";
    const size_t line = text.rfind('\n', text.size() < 2 ? 0 : text.size() - 2);
    const size_t start = line == std::string::npos ? 0 : line + 1;
    if (text.compare(start, sizeof START - 1, START) == 0)
        text.erase(start);
    return text;
}
