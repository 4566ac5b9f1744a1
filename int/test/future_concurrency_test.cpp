// Futures crossing threads; run under ThreadSanitizer too.
#include <tqcore/barrier.h>
#include <tqcore/future.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace tqcore {
namespace {

TEST(FutureThreads, EveryWaiterIsReleasedAndLateWaitersDoNotBlock) {
  for (int round = 0; round < 20; ++round) {
    Future<int> future;
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int k = 0; k < 4; ++k) {
      waiters.emplace_back([future, &released, k] {
        if (k % 2 == 0) {
          future.wait();
        } else {
          while (!future.wait(RelativeTime::milliseconds(1))) {
          }
        }
        EXPECT_EQ(future.get(), 42);
        released.fetch_add(1);
      });
    }
    std::thread setter([future] { EXPECT_TRUE(future.set(42)); });
    setter.join();
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(released.load(), 4);
    EXPECT_TRUE(future.wait(AbsoluteTime::infinite));
  }
}

// Waiters asleep on the event (well past the spin) are woken by the set; a set that missed
// them would leave them to their ten-second deadlines.
TEST(FutureThreads, SleepingWaitersAreWoken) {
  Future<int> future;
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int k = 0; k < 3; ++k) {
    waiters.emplace_back([future, &woken, k] {
      bool const ready = k == 0 ? future.wait(RelativeTime::seconds(10))
                                : future.wait(AbsoluteTime::now() + RelativeTime::seconds(10));
      if (ready) woken.fetch_add(1);
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  AbsoluteTime const set_at = AbsoluteTime::now();
  future.set(7);
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(woken.load(), 3);
  EXPECT_LT(AbsoluteTime::now() - set_at, RelativeTime::seconds(5));
}

TEST(FutureThreads, ExactlyOneOfManySettersWins) {
  Future<int> future;
  std::atomic<int> winners{0};
  std::vector<std::thread> setters;
  for (int k = 0; k < 4; ++k) {
    setters.emplace_back([future, &winners, k] {
      if (future.set(k)) winners.fetch_add(1);
    });
  }
  for (std::thread& setter : setters) setter.join();
  EXPECT_EQ(winners.load(), 1);
  EXPECT_GE(future.get(), 0);
}

}  // namespace
}  // namespace tqcore

namespace tqcore {
namespace {

TEST(FutureThreads, BarrierWaitsWhileOthersComplete) {
  std::vector<Future<int>> futures(6);
  AnyFutureBarrier barrier;
  for (Future<int> const& future : futures) barrier.push_back(future);
  std::vector<std::thread> setters;
  for (size_t k = futures.size(); k-- > 0;) {  // the last first
    setters.emplace_back([future = futures[k], k] { future.set(static_cast<int>(k)); });
  }
  EXPECT_TRUE(barrier.wait(AbsoluteTime::infinite));
  EXPECT_TRUE(barrier.all_successful());
  for (std::thread& setter : setters) setter.join();
  EXPECT_EQ(barrier.set_error_if_not_ready(ErrorInfo::create(ErrorCode("error.test.late"), "late",
                                                             SourceLocation("t", "f", 1))),
            0u);
}

}  // namespace
}  // namespace tqcore
