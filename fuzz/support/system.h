// SPDX-License-Identifier: MIT
// The system as the server finds it while a session is played: shared memory without names in the file system, mappings
// that end where their bytes end, and calls that fail when the input says so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <sys/types.h>

#include "../../tests/support/model/model.h"

// What goes wrong during one action.
struct Trouble {
    enum Kind : uint8_t {
        NONE,
        NO_MEMORY,    // an allocation of the server's (GLib's and pixman's own are not reached)
        NO_MAPPING,   // mmap, of a client's memory, of a device or of a reservation
        NO_UNMAPPING, // munmap
        NO_OBJECT,    // shm_open
        NO_DEVICE,    // opening a device
        NO_CONTROL,   // ioctl
        SHORTER,      // a client cuts its memory while the server draws
    } kind = NONE;
    int nth = 1;       // of the calls of that kind during the action, the one that fails
    int object = 0;    // SHORTER: whose memory,
    uint32_t size = 0; // and what is left of it, bytes
};

struct SharedObject {
    int fd;
    uint8_t *data;
    size_t mapped; // by this process as the client
    bool has_name;
    model::ClientMemory memory; // what the model reads
};

struct System {
    std::map<std::string, SharedObject> objects; // by name
    Trouble trouble;
    bool struck = false;         // the trouble has happened
    bool memory_refused = false; // an allocation has failed in this session
    // Of the running action: no object of that name could be opened, or its memory not be mapped.
    bool object_refused = false;
    bool mapping_refused = false;
    size_t refused_bytes = 0; // of the mapping
    std::set<ino_t> mapped;   // the files that have been
};
extern System fuzz_system;

// Between these two the trouble may strike.
void system_trouble(const Trouble &trouble);
void system_settle();
// True when it does, at this call: the caller fails then.
bool system_strikes(Trouble::Kind kind);

void system_make_object(const std::string &name, size_t size, int style, uint32_t seed);
// True when the server has mapped this file in the running session.
bool system_was_mapped(int fd);
// As the client that owns it.
void system_draw(SharedObject &object, int style, uint32_t seed);
void system_resize(SharedObject &object, uint32_t size);
// Gives back what the server left behind, and all objects.
void system_clean_up();
