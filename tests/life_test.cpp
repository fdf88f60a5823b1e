// SPDX-License-Identifier: MIT
// The library at every moment of a process, each time as the first thing that the process asks of
// it, in little memory, and once after its own static objects have gone. The test itself is not
// linked with it.
#include <dlfcn.h>
#include <sys/resource.h>

#include <cstdlib>
#include <cstring>

#include "gmock/gmock.h"
#include "support/child_process.h"

namespace {

// The lines of one use on standard error.
std::string linesOf(const std::string& moment) {
  return "info|life|" + moment + "\nerror|utils|Raising error: File not found\nall well\n";
}

struct Moment {
  rlim_t addressSpace_ = RLIM_INFINITY;
  const char* assertions_ = "";
  const char* program_ = PROGRAM;
};

// In a child of the test.
void become(const std::string& moment, const Moment& how = {}) {
  setenv("LIFE", moment.c_str(), 1);
  setenv("YSYS_ASSERT", how.assertions_, 1);
  const rlimit limit = {how.addressSpace_, how.addressSpace_};
  setrlimit(RLIMIT_AS, &limit);
  execl(how.program_, how.program_, nullptr);
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
    EXPECT_EQ(expectInChild([&, at = moment] { become(at); }), before + linesOf(moment));
  }
}

TEST(Life, HasItsTextsBeforeItsOwnConstructors) {
  const std::string errors = expectInChild([] { become("", {.program_ = FIRST}); });
  EXPECT_EQ(errors, "File is corruptFile is corrupt");
}

// --- In little memory ---

// A program without the library needs 6 MiB of addresses.
TEST(Life, GoesOnInLittleMemoryAndAfterItRanOut) {
  if (dlsym(RTLD_DEFAULT, "__sanitizer_print_stack_trace"))
    GTEST_SKIP() << "a sanitizer needs the memory that is refused here";
  const std::string start = "the program's initialiser";
  EXPECT_EQ(expectInChild([&] { become(start, {12 << 20, "stop"}); }), linesOf(start));
  const std::string errors = expectInChild([] { become("memory ran out", {100 << 20}); });
  EXPECT_THAT(errors, testing::MatchesRegex(
                          "assertion failed: m, utils/sdk/allocator:[0-9]+\n"
                          "assertion failed: h, utils/sdk/alloc:[0-9]+\ninfo[^:]*:[^:]*"));
  EXPECT_THAT(errors, testing::EndsWith(linesOf("memory ran out")));
  const ChildResult stopped = runInChild([] {
    become("memory ran out", {100 << 20, "stop"});
    return 0;
  });
  EXPECT_EQ(stopped.status, -SIGABRT);
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

TEST(Life, KeepsTheAllocatorAndItsMemoryWhenItIsClosed) {
  const std::string errors = expectInChild([] {
    const Library first;
    const unsigned before = first.find<unsigned()>("lifeHeld")();
    char* mem = static_cast<char*>(first.find<void*(unsigned)>("lifeAlloc")(3000));
    std::strcpy(mem, "still here\n");
    dlclose(first.handle_);
    std::fputs(mem, stderr);
    EXPECT_EQ(Library().find<unsigned()>("lifeHeld")(), before + 3008);
  });
  EXPECT_EQ(errors, "still here\n");
}

Library* _library = nullptr;
unsigned _heldBefore = 0;

// Runs after the library's own destructors, since it was registered before the library was loaded.
void lookBack() {
  const unsigned given = _heldBefore - _library->find<unsigned()>("lifeHeld")();
  std::fprintf(stderr, "%u entries given back\n", given / (sizeof(void*) == 8 ? 64 : 32));
  std::fprintf(stderr, "%s\n", _library->find<const char*(unsigned)>("lifeText")(0));
  _library->find<void(const char*)>("lifeUse")("after the unload");
}

TEST(Life, GoesOnAfterTheUnload) {
  const std::string errors = expectInChild([] {
    std::atexit(lookBack);
    _library = new Library;
    _library->find<void(const char*)>("lifeUse")("before");
    _heldBefore = _library->find<unsigned()>("lifeHeld")();
    _library->find<void()>("lifeLeaveText")();
    std::exit(0);
  });
  // The ten texts and the last error of the one task; texts are made up from then on.
  EXPECT_EQ(errors, linesOf("before") +
                        "11 entries given back\nSuccess #0x00000000\n"
                        "info|life|after the unload\n"
                        "error|utils|Raising error: Failure #0x80040001\nall well\n");
}

}  // namespace
