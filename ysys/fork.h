// SPDX-License-Identifier: MIT
// The repair of the system layer in the child of a fork.
//
// The child has one task, the one that forked, and a copy of everything else as it was at that
// moment. Nothing is locked for the fork; instead each family can repair its copy: it frees its
// internal locks and the locks that missing tasks held, and forgets that they waited.
#pragma once

namespace ysys {

// Only fork.cpp calls these, in the child, before the child has any other task.
void repairTasks();
void repairLocks();
void repairEvents();
void repairFiles();
void repairMemory();

// Repairs the child of a fork if its handler has not run yet; does nothing in any other process.
// Called by each wait before the task counts as waiting, by each attempt that finds a lock taken,
// and by queries about tasks that the child
// does not have.
void repairNewChild();

}  // namespace ysys
