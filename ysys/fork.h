// SPDX-License-Identifier: MIT
// How the child of a fork is made good.
//
// The child has one task, the one that forked, and a copy of everything else as it was at that
// moment. Nothing is locked for the fork; instead each family can mend its copy: free the internal
// locks, free what tasks held that the child does not have, and forget that they waited.
#pragma once

namespace ysys {

// Called by fork.cpp alone, in the child, before it has any other task.
void mendTasks();
void mendLocks();
void mendEvents();
void mendFiles();
void mendMemory();

// Mends the child of a fork whose handler has not run yet, and does nothing in any other process.
// Each wait calls it before the task counts as waiting, and so does what asks for tasks that are
// gone.
void mendNewChild();

}  // namespace ysys
