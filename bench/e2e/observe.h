// SPDX-License-Identifier: MIT
// What a benchmark uses of the system: time, processes, and what a process has used.
#pragma once

#include <cstdint>
#include <sys/types.h>

constexpr int64_t SECOND = 1000000000; // in nanoseconds, like all times here

int64_t now(); // of the monotonic clock
void rest(int64_t ns);

// Of all threads of a process, from the kernel's scheduler statistics. Those of a thread that runs are a little behind.
struct Use {
    long long cpu_ns;
    long long waits; // times that it gave the processor up to wait
};
Use process_use(pid_t pid);

// Starts a program with these additions to its environment: [NAME=VALUE...] COMMAND..., ended by a null pointer. It
// has a session of its own, its standard streams lead nowhere, and it leaves no core behind.
pid_t program_start(char **words);

// Where this program and a process with all its threads run: on the "one" processor, the first that this program may
// use; on "two", this program on the first and the process on the second; or on "any". Once in a program's life.
void place_beside(pid_t pid, const char *processors);
// Whether the kernel may interrupt the program that runs when one of the process's threads has something to do. It may,
// by itself; else the thread waits for its turn.
void let_interrupt(pid_t pid, bool may);
