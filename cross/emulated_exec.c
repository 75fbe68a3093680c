// SPDX-License-Identifier: MIT
// Preloaded into an emulated program: what it executes is emulated as well, when it is of the same architecture. Where
// the kernel is not told how to run foreign programs, the emulator would hand them to it in vain.
//
// EMULATED_EXEC holds the emulator and its arguments, separated by blanks. Programs of the machine itself are started
// without this library, which their loader could not load.
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define MOST_WORDS 4096
#define EMULATOR_WORDS 16

#ifdef __aarch64__
#define OWN_MACHINE EM_AARCH64
#else
#define OWN_MACHINE EM_ARM
#endif

extern char **environ;

typedef int (*execve_func)(const char *, char *const[], char *const[]);

static bool is_own_program(const char *path)
{
    Elf32_Ehdr header; // as far as the machine, the same for 64 bits
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool whole = read(fd, &header, sizeof header) == (ssize_t)sizeof header;
    close(fd);
    return whole && memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_machine == OWN_MACHINE;
}

// The environment without preloaded libraries, in `words`.
static char *const *without_preload(char *const envp[], char **words)
{
    size_t n = 0;
    for (size_t i = 0; envp[i] != NULL && n < MOST_WORDS - 1; i++) {
        if (strncmp(envp[i], "LD_PRELOAD=", 11) != 0)
            words[n++] = envp[i];
    }
    words[n] = NULL;
    return words;
}

// The environment of an emulated program gets this library back, behind those that it was given: callers clean it, and
// a sanitizer wants to be the first.
static bool preload(char *const envp[], char *text, size_t size)
{
    Dl_info self;
    const char *others = "";
    for (size_t i = 0; envp[i] != NULL; i++) {
        if (strncmp(envp[i], "LD_PRELOAD=", 11) == 0)
            others = envp[i] + 11;
    }
    if (dladdr((void *)is_own_program, &self) == 0)
        return false;
    const bool is_there = strstr(others, self.dli_fname) != NULL;
    const int n = snprintf(text, size, "LD_PRELOAD=%s%s%s", others, is_there || *others == '\0' ? "" : ":",
                           is_there ? "" : self.dli_fname);
    return n > 0 && (size_t)n < size;
}

// emulator ... -E LD_PRELOAD=LIBRARIES -0 ARGV0 PATH ARGUMENT...; false when there are too many.
static bool emulated(const char *path, char *const argv[], char *emulator, char *libraries, char **words)
{
    size_t n = 0;
    char *rest;
    for (char *word = strtok_r(emulator, " ", &rest); word != NULL; word = strtok_r(NULL, " ", &rest)) {
        if (n == EMULATOR_WORDS)
            return false;
        words[n++] = word;
    }
    words[n++] = (char *)"-E";
    words[n++] = libraries;
    words[n++] = (char *)"-0";
    words[n++] = argv[0] != NULL ? argv[0] : (char *)path;
    words[n++] = (char *)path;
    for (size_t i = 1; argv[0] != NULL && argv[i] != NULL; i++) {
        if (n == MOST_WORDS - 1)
            return false;
        words[n++] = argv[i];
    }
    words[n] = NULL;
    return true;
}

int execve(const char *path, char *const argv[], char *const envp[])
{
    execve_func next = (execve_func)dlsym(RTLD_NEXT, "execve");
    char *words[MOST_WORDS];
    char emulator[1024];
    char libraries[4096];
    const char *given = getenv("EMULATED_EXEC");
    if (given == NULL || !is_own_program(path) || access(path, X_OK) != 0)
        return next(path, argv, without_preload(envp, words));
    if (snprintf(emulator, sizeof emulator, "%s", given) >= (int)sizeof emulator ||
        !preload(envp, libraries, sizeof libraries) || !emulated(path, argv, emulator, libraries, words)) {
        errno = E2BIG;
        return -1;
    }
    return next(words[0], words, envp);
}

int execv(const char *path, char *const argv[])
{
    return execve(path, argv, environ);
}

int execvpe(const char *file, char *const argv[], char *const envp[])
{
    if (strchr(file, '/') != NULL)
        return execve(file, argv, envp);
    const char *folder = getenv("PATH");
    int error = ENOENT;
    while (folder != NULL) {
        char path[4096];
        const size_t length = strcspn(folder, ":");
        snprintf(path, sizeof path, "%.*s/%s", (int)length, folder, file);
        execve(path, argv, envp);
        if (errno != ENOENT && errno != ENOTDIR)
            error = errno;
        folder = folder[length] == ':' ? folder + length + 1 : NULL;
    }
    errno = error;
    return -1;
}

int execvp(const char *file, char *const argv[])
{
    return execvpe(file, argv, environ);
}
