// fork.cpp: the one place that is told of a fork.
//
// The handlers are registered when the library is loaded, ahead of those of every library that
// depends on it. Handlers of the preparation run last registered first and those after it in the
// order of registration; so other handlers may use the system layer before and after the fork.
//
// The families are held in the order of the table and released in the reverse one. They never hold
// each other's locks, so the order is only a rule. Settings, time and assertions keep no locks.
#include "ysys/fork.h"

#include <pthread.h>

#include "ysys/task.h"

namespace ysys {
namespace {

struct Family {
  void (*hold)();
  void (*release)(bool inChild);
};

constexpr Family FAMILIES[] = {
    {holdLocks, releaseLocks},
    {holdEvents, releaseEvents},
    {holdFiles, releaseFiles},
    {holdMemory, releaseMemory},
};
constexpr unsigned FAMILY_COUNT = sizeof FAMILIES / sizeof FAMILIES[0];

void holdAll() {
  for (const Family& family : FAMILIES) family.hold();
}

void releaseAll(bool inChild) {
  for (unsigned i = FAMILY_COUNT; i-- > 0;) FAMILIES[i].release(inChild);
}

void releaseInParent() { releaseAll(false); }

void releaseInChild() {
  refreshTaskId();
  releaseAll(true);
}

__attribute__((constructor)) void registerHandlers() {
  pthread_atfork(holdAll, releaseInParent, releaseInChild);
}

}  // namespace
}  // namespace ysys
