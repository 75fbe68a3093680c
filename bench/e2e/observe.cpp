// SPDX-License-Identifier: MIT
#include "observe.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "target.h"

namespace {

void add_thread(const std::string &folder, Use *use)
{
    long long value = 0;
    if (FILE *file = fopen((folder + "/schedstat").c_str(), "r")) {
        if (fscanf(file, "%lld", &value) == 1)
            use->cpu_ns += value;
        fclose(file);
    }
    char line[256];
    if (FILE *file = fopen((folder + "/status").c_str(), "r")) {
        while (fgets(line, sizeof line, file) != nullptr) {
            if (sscanf(line, "voluntary_ctxt_switches: %lld", &value) == 1)
                use->waits += value;
        }
        fclose(file);
    }
}

// The nth of those in `allowed`.
cpu_set_t processor(const cpu_set_t &allowed, int nth)
{
    cpu_set_t chosen;
    CPU_ZERO(&chosen);
    for (int i = 0; i < CPU_SETSIZE; i++) {
        if (CPU_ISSET(i, &allowed) && nth-- == 0)
            CPU_SET(i, &chosen);
    }
    return chosen;
}

template <typename Visit> void each_thread(pid_t pid, Visit visit)
{
    const std::string folder = "/proc/" + std::to_string(pid) + "/task";
    DIR *tasks = opendir(folder.c_str());
    if (tasks == nullptr)
        fail("the server is gone");
    while (const dirent *task = readdir(tasks)) {
        if (task->d_name[0] != '.')
            visit(folder + "/" + task->d_name, static_cast<pid_t>(atoi(task->d_name)));
    }
    closedir(tasks);
}

void bind(pid_t thread, const cpu_set_t &processors)
{
    if (sched_setaffinity(thread, sizeof processors, &processors) < 0)
        fail("thread %d cannot be bound to its processor", static_cast<int>(thread));
}

[[noreturn]] void become(char **words)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM); // it goes when the benchmark fails
    setsid();                         // as a service manager does it: kernels share the processor out among sessions
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    for (; strchr(words[0], '=') != nullptr; words++)
        putenv(words[0]);
    execvp(words[0], words);
    _exit(127);
}

} // namespace

int64_t now()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * SECOND + t.tv_nsec;
}

void rest(int64_t ns)
{
    const timespec t{ns / SECOND, ns % SECOND};
    nanosleep(&t, nullptr);
}

Use process_use(pid_t pid)
{
    Use use{};
    each_thread(pid, [&](const std::string &folder, pid_t) { add_thread(folder, &use); });
    return use;
}

pid_t program_start(char **words)
{
    const pid_t pid = fork();
    if (pid < 0)
        fail("a program could not be started");
    if (pid == 0)
        become(words);
    return pid;
}

void place_beside(pid_t pid, const char *processors)
{
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) < 0)
        fail("the kernel does not tell which processors there are");
    const bool two = strcmp(processors, "two") == 0;
    const bool one = strcmp(processors, "one") == 0;
    if (!one && !two && strcmp(processors, "any") != 0)
        fail("processors are one, two or any, not %s", processors);
    if (two && CPU_COUNT(&allowed) < 2)
        fail("there is one processor");
    const cpu_set_t server = one || two ? processor(allowed, two ? 1 : 0) : allowed;
    each_thread(pid, [&](const std::string &, pid_t thread) { bind(thread, server); });
    bind(0, one || two ? processor(allowed, 0) : allowed);
}

void let_interrupt(pid_t pid, bool may)
{
    const sched_param none{};
    each_thread(pid, [&](const std::string &, pid_t thread) {
        if (sched_setscheduler(thread, may ? SCHED_OTHER : SCHED_BATCH, &none) < 0)
            fail("thread %d keeps how it is scheduled", static_cast<int>(thread));
    });
}
