// SPDX-License-Identifier: MIT
// Death tests of assertions: the whole message counts, with the source file, the function and the expression.
#pragma once

#include <csignal>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../../src/base/output.h"

// For the child of a death test: leaves no core file, and standard output joins standard error, where the test reads.
inline void prepare_to_die()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    output_drain(1000);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

inline std::string quoted_for_regex(const std::string &text)
{
    std::string quoted;
    for (const char letter : text) {
        if (std::string("[](){}.*+?^$|\\").find(letter) != std::string::npos)
            quoted += '\\';
        quoted += letter;
    }
    return quoted;
}

// `source` is a file under src without its ending, or a folder with a slash at the end.
inline std::string assertion_regex(const std::string &source, const std::string &function,
                                   const std::string &expression)
{
    return ": src/" + source + "[a-z0-9_]*\\.cpp:[0-9]+: " + function + ": Assertion `" + quoted_for_regex(expression) +
           "' failed\\.\n";
}

#define EXPECT_ABORT(statement, source, function, expression)                                                          \
    EXPECT_EXIT(                                                                                                       \
        {                                                                                                              \
            prepare_to_die();                                                                                          \
            statement;                                                                                                 \
        },                                                                                                             \
        testing::KilledBySignal(SIGABRT), testing::ContainsRegex(assertion_regex(source, function, expression)))

// The same, with `text` printed before.
#define EXPECT_ABORT_AFTER(text, statement, source, function, expression)                                              \
    EXPECT_EXIT(                                                                                                       \
        {                                                                                                              \
            prepare_to_die();                                                                                          \
            statement;                                                                                                 \
        },                                                                                                             \
        testing::KilledBySignal(SIGABRT),                                                                              \
        testing::ContainsRegex(quoted_for_regex(text) + "(.|\n)*" + assertion_regex(source, function, expression)))
