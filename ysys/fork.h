// fork.h: what the families do when the process forks.
//
// Each pair is called by fork.cpp alone, in the task that forks. `hold...` takes the internal locks
// of a family, so that no other task is in the middle of a change while the process is copied;
// `release...` gives them up, in the parent and in the child. In the child, whose other tasks are
// gone, it also makes good what those tasks held and waited for.
#pragma once

namespace ysys {

void holdLocks();
void releaseLocks(bool inChild);

void holdEvents();
void releaseEvents(bool inChild);

void holdMemory();
void releaseMemory(bool inChild);

void holdFiles();
void releaseFiles(bool inChild);

}  // namespace ysys
