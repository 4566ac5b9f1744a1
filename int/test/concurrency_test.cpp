// Threads sharing the error model's values; run under ThreadSanitizer by the tsan preset.
#include <tqcore/error_exception.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tqcore {
namespace {

constexpr int kThreads = 8;

// Starts `kThreads` threads that run `body` as close to together as a spin start allows.
template <class F>
void run_together(F body) {
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      waiting.fetch_sub(1);
      while (waiting.load() != 0) std::this_thread::yield();
      body(t);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Concurrency, ThreadsMeasureOneUnmeasuredLiteralAtOnce) {
  static char const literal[] = "error.concurrency.unmeasured.literal";
  SourceString const shared(literal, true);
  ErrorCode const code(literal, true);
  std::atomic<int> wrong{0};
  run_together([&](int) {
    if (shared.size() != sizeof(literal) - 1) wrong.fetch_add(1);
    if (!code.matches("error.concurrency")) wrong.fetch_add(1);
    if (shared.compare("error.concurrency") <= 0) wrong.fetch_add(1);
  });
  EXPECT_EQ(wrong.load(), 0);
}

TEST(Concurrency, CatalogueConstantsAreMeasuredConcurrently) {
  std::atomic<int> wrong{0};
  run_together([&](int t) {
    ErrorCode const& constant =
        t % 2 == 0 ? error::tqcore_task_timeLimitExpired : error::tqcore_result_invalidAsynchrony;
    if (!constant.matches(t % 2 == 0 ? "error.tqcore.task" : "error.tqcore.result")) {
      wrong.fetch_add(1);
    }
  });
  EXPECT_EQ(wrong.load(), 0);
}

TEST(Concurrency, SharedRecordsAndBlocksDieOnce) {
  ErrorParams params;
  params.add("key", 3, "a value long enough to be traced", SourceString::npos);
  ErrorInfo::Ptr record = ErrorInfo::create(
      ErrorCode("error.shared"), SourceString("{@key}"), params,
      SourceLocation("f()", "$Id: //tqcore/int/test/concurrency_test.cpp#1 $", 1));
  std::atomic<int> wrong{0};
  run_together([&](int) {
    for (int i = 0; i < 2000; ++i) {
      ErrorInfo::Ptr copy(record);
      SourceString message = copy->message();
      if (copy->expanded_message().size() != 32 || message.size() != 6) wrong.fetch_add(1);
    }
  });
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_TRUE(record->has_unique_ref());
}

TEST(Concurrency, ExceptionsCarryOneRecordAcrossThreads) {
  ErrorInfo::Ptr record =
      ErrorInfo::create(error::tqcore_future, "shared failure", SourceLocation("f()", "file", 1));
  std::atomic<int> matched{0};
  run_together([&](int) {
    try {
      ErrorException(record).rethrow();
    } catch (ErrorException const& e) {
      if (e.matches(error::tqcore_future) && e.what()[0] == '\n') matched.fetch_add(1);
    }
  });
  EXPECT_EQ(matched.load(), kThreads);
}

}  // namespace
}  // namespace tqcore
