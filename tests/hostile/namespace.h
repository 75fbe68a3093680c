// SPDX-License-Identifier: MIT
// A /dev/shm of this test's own with little room, so that filling it harms nobody else.
#pragma once

#include <string>

class SmallMemory {
public:
    // Enters it, where the system permits that. `room` is as for mount: 512k.
    explicit SmallMemory(const std::string &room);
    ~SmallMemory(); // back to the machine's
    SmallMemory(const SmallMemory &) = delete;
    SmallMemory &operator=(const SmallMemory &) = delete;

    bool is_entered() const { return entered_; }

private:
    int before_ = -1; // the namespace of mounts that this process came from
    bool entered_ = false;
};
