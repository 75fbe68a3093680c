// SPDX-License-Identifier: MIT
// Runs a piece of a test in a process of its own: what it breaks for good does not reach the other tests.
#pragma once

#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "stdout_capture.h"

// Fails the running test when the body has a failure (printed by the child) or dies.
template <typename Body> void in_child(Body body)
{
    fflush(nullptr);
    out_flush();
    const pid_t child = fork();
    ASSERT_GE(child, 0) << "fork";
    if (child == 0) {
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child ended with status " << status;
}
