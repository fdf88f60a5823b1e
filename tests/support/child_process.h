// SPDX-License-Identifier: MIT
// Runs a piece of a test in a forked child and reports how it ended and what it
// said.
//
// The child has 20 seconds, and leaves by the end of `body`, whose result is its exit status. A
// body that crashes, hangs or is killed has a negative status, that of the signal.
#pragma once

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "gtest/gtest.h"

struct ChildResult {
  int status;               // exit status, or minus the signal that ended it
  std::string errorOutput;  // what it wrote to standard error
};

inline int waitForChild(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

template <class Body>
pid_t startChild(Body body) {
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    _exit(body());
  }
  return child;
}

template <class Body>
ChildResult runInChild(Body body) {
  std::FILE* output = std::tmpfile();
  const pid_t child = startChild([&] {
    dup2(fileno(output), STDERR_FILENO);
    return body();
  });
  ChildResult result{waitForChild(child), {}};
  std::rewind(output);
  for (int byte; (byte = std::getc(output)) != EOF;) result.errorOutput += static_cast<char>(byte);
  std::fclose(output);
  return result;
}

// The same for a body that ends well unless an expectation of the test fails in it; returns what it
// wrote to standard error.
template <class Body>
std::string expectInChild(Body body) {
  const ChildResult child = runInChild([&] {
    body();
    return testing::Test::HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.status, 0) << child.errorOutput;
  return child.errorOutput;
}
