// SPDX-License-Identifier: MIT
// Texts, last errors of several tasks, listeners that change their list, and the order of a raise.
#include "utils/sdk/result.h"

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "utils/testing/failing_allocator.h"
#include "utils/testing/recording_sink.h"

namespace {

using namespace Utils;
using namespace Utils::Testing;

static_assert(succeeded(0) && succeeded(0x7fffffff));
static_assert(!succeeded(0x80000000) && !succeeded(0xffffffff));

constexpr unsigned CODE = 0x80001234;

// --- Texts ---

TEST(ResultTexts, AreThereForTheStandardCodes) {
  const std::pair<unsigned, const char*> texts[] = {
      {0x00000000, "Success"},          {0x80000000, "Generic failure"},
      {0x80000001, "Not implemented"},  {0x80000002, "Out of memory"},
      {0x80000003, "Invalid argument"}, {0x80000004, "No interface"},
      {0x80040001, "File not found"},   {0x80040002, "File read error"},
      {0x80040003, "File write error"}, {0x80040004, "File is corrupt"},
      {CODE, "Failure #0x80001234"},    {7, "Success #0x00000007"},
  };
  for (const auto& [code, text] : texts) EXPECT_STREQ(resultToString(code), text);
}

TEST(ResultTexts, LastAsLongAsTheFirstObjectThatEnds) {
  const char* const text = "first";
  {
    ResultString first(CODE, text);
    {
      ResultString second(CODE, "second");
      EXPECT_EQ(resultToString(CODE), text);
    }
    EXPECT_STREQ(resultToString(CODE), "Failure #0x80001234");
  }
  ResultString other(CODE + 1, "other");
  {
    ResultString assigned(CODE, text);
    assigned = other;
    EXPECT_EQ(resultToString(CODE), text);
  }
  EXPECT_EQ(resultToString(CODE), text) << "what was assigned takes the text of its new code along";
  EXPECT_STREQ(resultToString(CODE + 1), "Failure #0x80001235");
  ResultString(CODE, "gone");
}

// --- Raising ---

// A listener that runs a step of the test.
struct Called : ResultListener {
  explicit Called(std::function<void(unsigned)> step) : step_(std::move(step)) {}
  void errorRaised(unsigned code) const override { step_(code); }

  std::function<void(unsigned)> step_;
};

// A sink that notes the value of lastError() at the time of each line.
struct LastErrorSink : RecordingSink {
  void print(MessageClass cls, const char* format, std::va_list args) override {
    errors_.push_back(lastError());
    RecordingSink::print(cls, format, args);
  }

  std::vector<unsigned> errors_;
};

struct Raising : testing::Test {
  Raising() {
    Log::theLog()->setVerbosity(1);
    Log::theLog()->setLogger(sink_);
    clearError();
  }
  ~Raising() override { Log::theLog()->setLogger(nullptr); }

  LastErrorSink* const sink_ = new LastErrorSink;
  const Ref<Logger> ref_{sink_};
};

TEST_F(Raising, LogsThenStoresThenTells) {
  unsigned seen = 0;
  const Called listener([&](unsigned code) { seen = code == lastError() ? code : 1; });
  removeResultListener(&listener);
  addResultListener(&listener);
  EXPECT_EQ(raiseError(CODE), CODE);
  EXPECT_EQ(seen, CODE);
  EXPECT_EQ(lastError(), CODE);
  EXPECT_EQ(raiseError(0), 0u);
  EXPECT_EQ(lastError(), 0u);
  removeResultListener(&listener);
  EXPECT_THAT(sink_->errors_, testing::ElementsAre(0u, CODE));
  const auto lines = sink_->take();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].first, Error);
  EXPECT_THAT(lines[0].second,
              testing::MatchesRegex("error.utils.utils/sdk/result:[0-9]+.Raising error: Failure "
                                    "#0x80001234"));
}

TEST_F(Raising, LeavesTheErrorsOfOtherTasksAlone) {
  raiseError(1);
  for (unsigned code : {2u, 3u}) {
    std::thread([code] {
      clearError();  // the task may have the id, and so the error, of one that has ended
      EXPECT_EQ(lastError(), 0u);
      raiseError(code);
      EXPECT_EQ(lastError(), code);
    }).join();
  }
  EXPECT_EQ(lastError(), 1u);
  clearError();
  EXPECT_EQ(lastError(), 0u);
}

TEST_F(Raising, GoesThroughAListThatItsListenersChange) {
  std::string called;
  const Called a([&](unsigned) { called += 'a'; }), late([&](unsigned) { called += 'l'; });
  Called removesItself([&](unsigned) {});
  removesItself.step_ = [&](unsigned) {
    called += 'r';
    removeResultListener(&removesItself);
  };
  const Called adds([&](unsigned) {
    called += '+';
    addResultListener(&late);
  });
  const Called* const listeners[] = {&a, &removesItself, &a, &adds};
  for (const Called* each : listeners) addResultListener(each);
  raiseError(1);
  EXPECT_EQ(called, "ar+l") << "the one after the removed is passed over, the added is called";
  called.clear();
  raiseError(1);
  EXPECT_EQ(called, "aa+ll");
  removeResultListener(&a);
  called.clear();
  raiseError(1);
  EXPECT_EQ(called, "a+lll") << "the first entry alone goes";
  for (const ResultListener* each : {&a, &adds, &late, &late, &late}) removeResultListener(each);
  removeResultListener(&a);
  called.clear();
  raiseError(1);
  EXPECT_EQ(called, "");
}

TEST_F(Raising, GoesOnWithoutMemory) {
  unsigned count = 0;
  const Called listener([&](unsigned) { count++; });
  addResultListener(&listener);
  raiseError(1);
  FailingAllocator allocator;
  allocator.failFrom(1);
  ResultString unknown(CODE, "no room");
  EXPECT_STREQ(resultToString(CODE), "Failure #0x80001234");
  EXPECT_EQ(raiseError(CODE), CODE);
  EXPECT_EQ(lastError(), CODE) << "this task has its entry";
  std::thread([] {
    EXPECT_EQ(raiseError(CODE), CODE);
    clearError();
  }).join();
  for (int i = 0; i < 9; i++) addResultListener(&listener);
  allocator.failFrom(0);
  EXPECT_EQ(count, 3u);
  for (int i = 0; i < 10; i++) removeResultListener(&listener);
}

}  // namespace
