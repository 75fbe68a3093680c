// SPDX-License-Identifier: MIT
// Preloaded into an emulated program: the address of a bus error is the program's own. Where the emulator places the
// memory of 32-bit programs higher than they know, it reports its own address, which is off by a page or more.
#include <dlfcn.h>
#include <setjmp.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

typedef int (*sigaction_func)(int, const struct sigaction *, struct sigaction *);

static intptr_t offset;          // of reported addresses
static struct sigaction program; // what the program has asked for, while `corrected` stands in for it
static sigjmp_buf back;
static void *volatile reported;

static sigaction_func real_sigaction(void)
{
    return (sigaction_func)dlsym(RTLD_NEXT, "sigaction");
}

static void on_first_fault(int number, siginfo_t *info, void *context)
{
    (void)number;
    (void)context;
    reported = info->si_addr;
    siglongjmp(back, 1);
}

// Reads a page that is not there, and sees what is said about it.
__attribute__((constructor)) static void measure(void)
{
    struct sigaction before, action = {.sa_sigaction = on_first_fault, .sa_flags = SA_SIGINFO};
    int fd = memfd_create("missing", MFD_CLOEXEC);
    char *page = mmap(NULL, 1, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (page == MAP_FAILED)
        return;
    real_sigaction()(SIGBUS, &action, &before);
    if (sigsetjmp(back, 1) == 0)
        (void)*(volatile char *)page;
    else
        offset = (char *)reported - page;
    real_sigaction()(SIGBUS, &before, NULL);
    munmap(page, 1);
}

static void corrected(int number, siginfo_t *info, void *context)
{
    if (info->si_code > 0)
        info->si_addr = (char *)info->si_addr - offset;
    program.sa_sigaction(number, info, context);
}

int sigaction(int number, const struct sigaction *action, struct sigaction *old)
{
    struct sigaction before;
    if (number != SIGBUS || offset == 0)
        return real_sigaction()(number, action, old);
    real_sigaction()(number, NULL, &before);
    if (before.sa_sigaction == corrected)
        before = program;
    if (action != NULL) {
        struct sigaction installed = *action;
        if (action->sa_flags & SA_SIGINFO) {
            program = *action;
            installed.sa_sigaction = corrected;
        }
        if (real_sigaction()(number, &installed, NULL) != 0)
            return -1;
    }
    if (old != NULL)
        *old = before;
    return 0;
}
