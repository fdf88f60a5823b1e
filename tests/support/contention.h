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

// How often a number was changed that 4 tasks change under the lock; 4 * 5000 when it excludes.
template <class Guarded>
unsigned countUnder(Guarded guarded) {
  unsigned long long number = 0;
  inTasks(4, [&] {
    for (int i = 0; i < 5000; i++) guarded([&] { number = number * 3 + 1; });
  });
  unsigned long long expected = 0;
  unsigned times = 0;
  while (times < 20000 && expected != number) expected = expected * 3 + 1, times++;
  return times;
}
