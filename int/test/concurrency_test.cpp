// Threads sharing the error model's values; run under ThreadSanitizer by the tsan preset.
#include <tqcore/barrier.h>
#include <tqcore/diagnostics.h>
#include <tqcore/error_exception.h>
#include <tqcore/future.h>
#include <tqcore/object_key.h>
#include <tqcore/result_control.h>
#include <tqcore/thread_mutex.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "testing_seams.h"

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

// Futures crossing threads; run under ThreadSanitizer too.

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

// Handlers completed on worker threads while callers wait, and completions racing cancels;
// run under ThreadSanitizer too.

// A few worker threads that complete whatever handlers they are given: even numbers succeed
// with their square, odd ones fail.
class Workers {
 public:
  explicit Workers(int count) {
    for (int i = 0; i < count; ++i) m_threads.emplace_back([this] { run(); });
  }
  ~Workers() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
    }
    m_ready.notify_all();
    for (std::thread& thread : m_threads) thread.join();
  }
  // The operation: goes asynchronous at once and hands its handler to a worker.
  Result<long> start(ResultControl<long> const& control, long n) {
    RefCountPtr<AsyncResult<long>> handler = control.create_async_handler();
    Result<long> result = handler->get_result();
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_queue.push_back({std::move(handler), n});
    }
    m_ready.notify_one();
    return result;
  }

 private:
  struct Job {
    RefCountPtr<AsyncResult<long>> handler;
    long n;
  };
  void run() {
    for (;;) {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_ready.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
      if (m_queue.empty()) return;
      Job job = std::move(m_queue.front());
      m_queue.pop_front();
      lock.unlock();
      if (job.n % 2 == 0) {
        job.handler->on_async_result_success(job.n * job.n);
      } else {
        job.handler->on_async_result_error(tqcore_test::failure("error.test.worker"));
      }
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_ready;
  std::deque<Job> m_queue;
  bool m_stopping = false;
  std::vector<std::thread> m_threads;
};

TEST(ResultThreads, CallersWaitWhileWorkersSignalTheirHandlers) {
  Workers workers(3);
  std::vector<std::thread> callers;
  std::atomic<int> checked{0};
  for (int c = 0; c < 2; ++c) {
    callers.emplace_back([&workers, &checked, c] {
      for (long n = c; n < 400; n += 2) {
        Future<long> future;
        Result<long> const result = workers.start(ResultControlFutureRef<long>(future), n);
        while (!result.wait(RelativeTime::microseconds(50))) {
        }
        if (n % 2 == 0) {
          EXPECT_EQ(result.get(), n * n);
        } else {
          EXPECT_TRUE(result.error_info()->matches("error.test.worker"));
        }
        checked.fetch_add(1);
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(checked.load(), 400);
}

// A worker's success, a worker's error, a cancel and deadline waiters on one result: one
// outcome wins, nobody raises, every waiter sees the same outcome.
TEST(ResultThreads, SignalsRacingACancelAreSwallowedOrWin) {
  for (int round = 0; round < 300; ++round) {
    Future<int> future;
    RefCountPtr<AsyncResult<int>> handler =
        ResultControlFutureRef<int>(future).create_async_handler();
    Result<int> const result = handler->get_result();
    std::atomic<int> raised{0};
    std::vector<ErrorInfo::Ptr> seen(2);
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
      try {
        handler->on_async_result_success(1);
      } catch (ErrorException const&) {
        raised.fetch_add(1);  // only after the error below won
      }
    });
    threads.emplace_back([&] {
      try {
        handler->on_async_result_error(tqcore_test::failure("error.test.worker"));
      } catch (ErrorException const&) {
        raised.fetch_add(1);  // only after the success above won
      }
    });
    threads.emplace_back([&] { AsyncOpHandle(result).cancel(round % 2 == 0, nullptr); });
    for (int k = 0; k < 2; ++k) {
      threads.emplace_back([&, k] {
        while (!result.wait(RelativeTime::microseconds(20))) {
        }
        seen[k] = result.error_info();
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(seen[0], seen[1]);
    bool const cancel_won = impl::result_was_cancelled(result.error_info());
    // When the cancel came first both signals are swallowed; otherwise the loser raises.
    EXPECT_EQ(raised.load(), cancel_won ? 0 : 1) << round;
    handler = nullptr;
    EXPECT_TRUE(future.is_ready());
  }
}

// The lock and condition wrappers with real threads; run under ThreadSanitizer too.

// True when another thread cannot take `mutex` at this moment.
bool held_elsewhere(ThreadMutex& mutex) {
  int result = 0;
  std::thread([&] {
    result = mutex.tryacquire();
    if (result == 0) mutex.release();
  }).join();
  return result == -1;
}

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

// Threads learning frame shapes into the shared table at once still walk exactly what one
// thread walks alone, and render while others hold the symbol engine.
__attribute__((noinline)) std::vector<uint64_t> walk_at_depth(int depth) {
  if (depth > 0) {
    std::vector<uint64_t> ips = walk_at_depth(depth - 1);
    ips.push_back(static_cast<uint64_t>(depth));  // not a tail call
    return ips;
  }
  StackFrameRecord frames[STACK_FRAME_CAPACITY];
  StackFrameRecord* end = capture_stack_frames(nullptr, frames, frames + STACK_FRAME_CAPACITY);
  std::vector<uint64_t> ips;
  for (StackFrameRecord* frame = frames + 1; frame != end; ++frame) ips.push_back(frame->sp);
  return ips;
}

TEST(StackThreads, ConcurrentWalksAgreeWithTheirOwnFirstWalk) {
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&mismatches, t] {
      std::vector<uint64_t> const first = walk_at_depth(10 + t);
      for (int i = 0; i < 200; ++i) {
        if (walk_at_depth(10 + t) != first) ++mismatches;
        if (i % 50 == 0 && get_stack_backtrace(0, 2).empty()) ++mismatches;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace tqcore
