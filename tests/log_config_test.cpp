// SPDX-License-Identifier: MIT
// The hub of the process: how its settings make it, and without memory for it. It is made once, so
// each case runs in a process of its own.
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "gmock/gmock.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"
#include "utils/sdk/locker.h"
#include "utils/testing/failing_allocator.h"
#include "utils/testing/nth_failure.h"
#include "utils/testing/recording_sink.h"

namespace {

using namespace Utils;
using namespace Utils::Testing;

// --- Settings ---

enum Place { STDERR, APPENDED, REPLACED, DEBUGGER, NOWHERE };

struct Row {
  std::string settings_;  // KEY=VALUE with ';' between them, without what all keys begin with
  std::string hub_;  // level, verbosity and flag; then each category, one that is first met last
  Place place_ = STDERR;   // where lines go
  std::string told_ = {};  // settings that are told on standard error
};

std::string described(Log& log) {
  const auto flag = [](bool is) { return is ? " on" : " off"; };
  std::string text =
      std::to_string(log.level()) + " " + std::to_string(log.verbosity()) + flag(log.enabled());
  log.getCategory("later");
  for (unsigned cat = 0; log.getCategory(cat); cat++) {
    text += std::string("; ") + log.getCategory(cat) + " " + std::to_string(log.level(cat)) + " " +
            std::to_string(log.verbosity(cat)) + flag(log.enabled(cat));
  }
  return text;
}

void makeAndPrint(const Row& row, const TemporaryDirectory& directory) {
  EXPECT_EQ(chdir(directory.pathOf("").c_str()), 0);
  clearenv();
  std::istringstream settings(row.settings_);
  for (std::string each; std::getline(settings, each, ';');) {
    const std::size_t keySize = each.find('=');
    setenv(("YUtils.Log." + each.substr(0, keySize)).c_str(), each.c_str() + keySize + 1, 1);
  }
  setenv("YSYS_DEBUG_CHANNEL", "debug", 1);
  Log* log = Log::theLog();
  EXPECT_EQ(described(*log), row.hub_);
  log->setVerbosity(0);
  for (MessageClass cls : {Error, Warning, Info}) {
    log->print(cls, "later", -1, "f", 1, "%d", cls);
  }
  EXPECT_EQ(Log::theLog(), log);
}

void expectRow(const Row& row) {
  const auto lines = [&](std::string end, bool areThere) {
    return areThere ? "error|later|0" + end + "warning|later|1" + end + "info|later|2" + end : "";
  };
  const TemporaryDirectory directory;
  directory.write("log", "old\r\n");
  const std::string errors = expectInChild([&] { makeAndPrint(row, directory); });
  EXPECT_EQ(errors, row.told_ + lines("\n", row.place_ == STDERR));
  EXPECT_EQ(directory.read("debug"), lines("\n", row.place_ == DEBUGGER));
  EXPECT_EQ(directory.read("log"),
            (row.place_ == REPLACED ? "" : "old\r\n") +
                lines("\r\n", row.place_ == REPLACED || row.place_ == APPENDED));
}

std::string told(const char* key, const std::string& complaint) {
  return std::string("ysys: setting YUtils.Log.") + key + " is " + complaint + "; it is not used\n";
}

TEST(Settings, MakeTheHub) {
  const std::string none = "0 0 off; later 0 0 off", tooLong = "too long a text";
  const std::string longName(1021, 'x');
  const Row rows[] = {
      {"", none},
      {"Level=-3;Verbosity=2", "-3 2 off; later -3 2 off"},
      {"Level=loud", none, STDERR, told("Level", "not a 32-bit decimal number")},
      // Which categories are on.
      {"Categories=a:b#2;Level=1", "1 0 off; a 1 0 on; b 2 0 on; later 1 0 off"},
      {"Categories=a;Enabled=1", "0 0 off; a 0 0 on; later 0 0 off"},
      {"Categories=a;Enabled=2;Verbosity=1", "0 1 on; a 0 1 on; later 0 1 on"},
      {"Enabled=2", "0 0 on; later 0 0 on"},
      {"Categories=a:b#2;Enabled=0", "0 0 off; a 0 0 off; b 2 0 off; later 0 0 off"},
      {"Categories=a;Enabled=-1", "0 0 off; a 0 0 off; later 0 0 off"},
      // How the list is read.
      {"Categories=", none},
      {"Categories=:::", none},
      {"Categories=a#:#2;Level=7", "7 0 off; a# 7 0 on;  2 0 on; later 7 0 off"},
      {"Categories=::a#-1::b#x:c#3y:d#4#5: e #+6:#;Level=7",
       "7 0 off; a -1 0 on; b 0 0 on; c 3 0 on; d 4 0 on;  e  6 0 on; # 7 0 on; later 7 0 off"},
      {"Categories=a#1:b:a:later#3;Level=7", "7 0 off; a 7 0 on; b 7 0 on; later 3 0 on"},
      {"Categories=a#99999999999:b#-99999999999",
       "0 0 off; a 2147483647 0 on; b -2147483648 0 on; later 0 0 off"},
      {"Categories=a:" + longName, "0 0 off; a 0 0 on; " + longName + " 0 0 on; later 0 0 off"},
      {"Categories=aa:" + longName, none, STDERR, told("Categories", tooLong)},
      // Where the lines go.
      {"Logger=File;Filename=log", none},
      {"Filename=log;FileOpenMode=replace", none},
      {"Logger=file;FileOpenMode=replace", none},
      {"Logger=file;Filename=log", none, APPENDED},
      {"Logger=file;Filename=log;FileOpenMode=replace", none, REPLACED},
      {"Logger=file;Filename=log;FileOpenMode=Replace", none, APPENDED},
      {"Logger=file;Filename=log;FileOpenMode=" + std::string(256, 'r'), none, APPENDED,
       told("FileOpenMode", tooLong)},
      {"Logger=file;Filename=" + std::string(1024, 'l'), none, STDERR, told("Filename", tooLong)},
      {"Logger=file;Filename=no/such", none, NOWHERE},
      {"Logger=windebug", none, DEBUGGER},
      {"Logger=null;Filename=log", none, NOWHERE},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.settings_);
    expectRow(row);
  }
}

// --- Exhaustion ---

// 1 when it went through without a failure, 0 with one.
int makeWithFailure(void (FailingAllocator::*fail)(unsigned), unsigned n) {
  clearenv();
  setenv("YUtils.Log.Categories", "a:b#2", 1);
  if (fail == &FailingAllocator::failFrom) setenv("YUtils.Log.Logger", "null", 1);
  FailingAllocator memory;
  (memory.*fail)(n);
  errno = 4321;
  const unsigned before = Allocator::theAllocator()->allocatedMemory();
  Log* log = Log::theLog();
  EXPECT_EQ(errno, 4321);
  if (!log) return 2;
  EXPECT_TRUE(Log::theDefaultLogger().valid() ||
              Allocator::theAllocator()->allocatedMemory() == before)
      << "no hub is kept";
  for (const char* name : {"a", "c"}) {
    log->print(Error, name, 0, "f", 1, "%d", 1);
    log->setLevel(log->getCategory(name), 1);
  }
  Mutex lock;
  const Locker locker(&lock, "f", 1);  // whose lines may have no category
  const bool failed = memory.failed();
  memory.failFrom(0);
  log = Log::theLog();
  EXPECT_TRUE(log->willPrint(Error, "b", 0)) << "a hub with a sink";
  auto* sink = new RecordingSink;
  log->setLogger(sink);
  log->print(Info, "b", -1, "f", 1, "%d", 1);
  EXPECT_THAT(sink->take(), testing::ElementsAre(testing::Pair(Info, "info|b|1")));
  EXPECT_EQ(Log::theLog(), log);
  EXPECT_TRUE(Log::theDefaultLogger().valid());
  return testing::Test::HasFailure() ? 2 : !failed;
}

TEST(Exhaustion, NeverLeavesTheProcessWithoutAHub) {
  for (auto fail : {&FailingAllocator::failFrom, &FailingAllocator::failOnly}) {
    const unsigned rounds = failEveryNth(50, [fail](unsigned n) {
      const ChildResult child = runInChild([&] { return makeWithFailure(fail, n); });
      EXPECT_TRUE(child.status == 0 || child.status == 1) << n << ": " << child.errorOutput;
      return child.status != 0;
    });
    EXPECT_NE(rounds, 0u);
  }
}

}  // namespace
