// The library at every moment of a process, each time as the first thing that the process asks of
// it, and once after its own static objects have gone. The test itself is not linked with it.
#include <dlfcn.h>

#include <cstdlib>
#include <vector>

#include "gmock/gmock.h"
#include "support/child_process.h"

namespace {

// What one use leaves on standard error.
std::string linesOf(const std::string& moment) {
  return "info|life|" + moment + "\nerror|utils|Raising error: File not found\nall well\n";
}

ChildResult runAt(const std::string& moment) {
  return runInChild([&] {
    setenv("LIFE", moment.c_str(), 1);
    execl(PROGRAM, PROGRAM, nullptr);
    return 99;
  });
}

TEST(Life, IsThereAtEveryMoment) {
  const std::pair<std::string, std::string> moments[] = {
      {"a library's initialiser", ""},
      {"the program's initialiser", ""},
      {"the program's destructor", ""},
      {"a library's destructor", ""},
      {"an exit handler", ""},
      {"after a first error", "error|utils|Raising error: File not found\n"},
      {"a child", ""},
      {"a child of a process that has used it", linesOf("its parent")},
      {"a second task", linesOf("a first task")},
      {"a plugin, twice", linesOf("a plugin, once")},
  };
  for (const auto& [moment, before] : moments) {
    SCOPED_TRACE(moment);
    const ChildResult result = runAt(moment);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errorOutput, before + linesOf(moment));
  }
}

// --- After the unload ---

struct Library {
  Library() : handle_(dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
    if (!handle_) std::fprintf(stderr, "%s\n", dlerror());
  }
  template <class Function>
  Function* find(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

  void* handle_;
};

Library* _library = nullptr;
unsigned _heldBefore = 0, _entrySize = 0;

// Runs behind the library's own destructors, since it was asked for before the library was loaded.
void lookBack() {
  const unsigned given = _heldBefore - _library->find<unsigned()>("lifeHeld")();
  std::fprintf(stderr, "%u entries given back\n", given / _entrySize);
  std::fprintf(stderr, "%s\n", _library->find<const char*(unsigned)>("lifeText")(0));
  _library->find<void(const char*)>("lifeUse")("after the unload");
}

TEST(Life, GoesOnAfterTheUnload) {
  const ChildResult result = runInChild([] {
    std::atexit(lookBack);
    _library = new Library;
    _library->find<void(const char*)>("lifeUse")("before");
    _entrySize = _library->find<unsigned()>("lifeEntrySize")();
    _heldBefore = _library->find<unsigned()>("lifeHeld")();
    std::exit(0);
    return 99;
  });
  EXPECT_EQ(result.status, 0);
  // The ten texts and the last error of the one task; texts are made up from then on.
  EXPECT_EQ(result.errorOutput, linesOf("before") +
                                    "11 entries given back\nSuccess #0x00000000\n"
                                    "info|life|after the unload\n"
                                    "error|utils|Raising error: Failure #0x80040001\nall well\n");
}

}  // namespace
