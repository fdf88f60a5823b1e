// SPDX-License-Identifier: MIT
// Several tasks that want the same thing all the time.
#pragma once

#include <thread>
#include <vector>

// Runs work() in that many tasks at once, and returns when all are through.
template <class Work>
void inTasks(unsigned count, Work work) {
  std::vector<std::thread> tasks;
  for (unsigned i = 0; i < count; i++) tasks.emplace_back(work);
  for (std::thread& task : tasks) task.join();
}
