// SPDX-License-Identifier: MIT
#include "observe.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string>
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

[[noreturn]] void become(char **words)
{
    setsid(); // as a service manager does it: kernels share the processor out among sessions
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
    const std::string folder = "/proc/" + std::to_string(pid) + "/task";
    DIR *tasks = opendir(folder.c_str());
    if (tasks == nullptr)
        fail("the server is gone");
    Use use{};
    while (const dirent *task = readdir(tasks)) {
        if (task->d_name[0] != '.')
            add_thread(folder + "/" + task->d_name, &use);
    }
    closedir(tasks);
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
