// SPDX-License-Identifier: MIT
#include "soak.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

Shared *shared_new()
{
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? new (memory) Shared{} : nullptr;
}

void shared_delete(Shared *shared)
{
    munmap(shared, sizeof(Shared));
}

void shared_fault(Shared *shared, const std::string &text)
{
    if (shared->n_faults.fetch_add(1) == 0)
        snprintf(shared->fault, sizeof shared->fault, "%s", text.c_str());
}

namespace {

// The first expectation that failed in this process, or "". What comes after it is of no interest: when the server
// ends, everybody has something to say.
std::string first_failure()
{
    const testing::TestResult *result = testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result->total_part_count(); i++) {
        if (result->GetTestPartResult(i).failed())
            return result->GetTestPartResult(i).summary();
    }
    return "";
}

} // namespace

pid_t process_fork(Shared *shared, const std::string &who, const std::function<void()> &body)
{
    const pid_t parent = getpid();
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent || freopen("/dev/null", "w", stdout) == nullptr)
        _exit(1);
    std::string fault;
    try {
        body();
    } catch (const std::exception &error) {
        fault = error.what();
    }
    if (testing::Test::HasFailure())
        fault = first_failure();
    if (!fault.empty())
        shared_fault(shared, who + ": " + fault);
    _exit(0);
}
