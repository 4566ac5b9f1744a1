// The lock and condition wrappers with real threads; run under ThreadSanitizer too.
#include <tqcore/thread_mutex.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

namespace tqcore {
namespace {

// True when another thread cannot take `mutex` at this moment.
bool held_elsewhere(ThreadMutex& mutex) {
  int result = 0;
  std::thread([&] {
    result = mutex.tryacquire();
    if (result == 0) mutex.release();
  }).join();
  return result == -1;
}

TEST(ThreadPrimitives, MutexExcludesOtherThreads) {
  ThreadMutex mutex;
  EXPECT_FALSE(held_elsewhere(mutex));
  EXPECT_EQ(mutex.acquire(), 0);
  EXPECT_TRUE(held_elsewhere(mutex));
  EXPECT_EQ(mutex.release(), 0);
  EXPECT_FALSE(held_elsewhere(mutex));
  EXPECT_EQ(mutex.tryacquire(), 0);
  EXPECT_TRUE(held_elsewhere(mutex));
  EXPECT_EQ(mutex.release(), 0);
}

// A waiter and a signaller around one flag, for each unbounded form of wait.
class ConditionWait : public testing::TestWithParam<int> {
 protected:
  int wait_once(ThreadCondition& condition) {
    switch (GetParam()) {
      case 0:
        return condition.wait();
      case 1:
        return condition.wait(static_cast<ACE_Time_Value const*>(nullptr));
      default:
        return condition.wait(AbsoluteTime::infinite);
    }
  }
};

TEST_P(ConditionWait, BlocksUntilSignalledAndReturnsWithTheMutex) {
  ThreadMutex mutex;
  ThreadCondition condition(mutex);
  EXPECT_EQ(&condition.mutex(), &mutex);
  bool ready = false;
  std::thread signaller([&] {
    mutex.acquire();
    ready = true;
    condition.signal();
    mutex.release();
  });
  mutex.acquire();
  while (!ready) ASSERT_EQ(wait_once(condition), 0);
  EXPECT_TRUE(held_elsewhere(mutex));
  mutex.release();
  signaller.join();
}

INSTANTIATE_TEST_SUITE_P(Forms, ConditionWait, testing::Values(0, 1, 2));

TEST(ThreadPrimitives, BroadcastWakesEveryWaiter) {
  ThreadMutex mutex;
  ThreadCondition condition(mutex);
  ThreadCondition arrived(mutex);  // a second condition on the same mutex, for the main thread
  int waiting = 0;
  bool go = false;
  std::vector<std::thread> waiters;
  for (int k = 0; k < 4; ++k) {
    waiters.emplace_back([&] {
      mutex.acquire();
      ++waiting;
      arrived.signal();
      while (!go) condition.wait(AbsoluteTime::infinite);
      mutex.release();
    });
  }
  mutex.acquire();
  while (waiting < 4) arrived.wait();
  go = true;
  EXPECT_EQ(condition.broadcast(), 0);
  mutex.release();
  for (std::thread& waiter : waiters) waiter.join();  // hangs if any waiter was left asleep
}

TEST(ThreadPrimitives, DeadlinesTimeOutWithTheMutexHeld) {
  ThreadMutex mutex;
  ThreadCondition condition(mutex);
  mutex.acquire();
  errno = 0;
  EXPECT_EQ(condition.wait(AbsoluteTime::now() - RelativeTime::seconds(1)), -1);
  EXPECT_EQ(errno, ETIME);
  EXPECT_TRUE(held_elsewhere(mutex));

  AbsoluteTime const deadline = AbsoluteTime::now() + RelativeTime::milliseconds(20);
  errno = 0;
  int result = 0;
  while ((result = condition.wait(deadline)) == 0) {  // a spurious wake-up waits again
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(errno, ETIME);
  EXPECT_GE(AbsoluteTime::now(), deadline);

  ACE_Time_Value const past = ACE_OS::gettimeofday() - ACE_Time_Value(1);
  ACE_Time_Value const copy = past;
  EXPECT_EQ(condition.wait(&past), -1);
  EXPECT_EQ(past, copy);  // the caller's value is not touched
  mutex.release();
}

}  // namespace
}  // namespace tqcore
