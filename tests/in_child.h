/* SPDX-License-Identifier: Apache-2.0 */
// Runs part of a test in a forked child, for state that a process sets up
// once (identity, configuration).  The child's gtest failures come back
// through its exit code.
#pragma once

#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

template <typename Body> void RunInChild(Body Run)
{
    fflush(nullptr);
    const pid_t Child = fork();
    ASSERT_NE(-1, Child);
    if (Child == 0) {
        Run();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int Status = 0;
    ASSERT_EQ(Child, waitpid(Child, &Status, 0));
    ASSERT_TRUE(WIFEXITED(Status));
    EXPECT_EQ(0, WEXITSTATUS(Status)) << "see the child's failures above";
}
