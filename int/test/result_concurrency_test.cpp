// Handlers completed on worker threads while callers wait, and completions racing cancels;
// run under ThreadSanitizer too.
#include <tqcore/error_exception.h>
#include <tqcore/result_control.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tqcore {
namespace {

ErrorInfo::Ptr worker_failure() {
  return ErrorInfo::create(ErrorCode("error.test.worker"), "odd", SourceLocation("w", "r", 1));
}

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
        job.handler->on_async_result_error(worker_failure());
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
        handler->on_async_result_error(worker_failure());
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

}  // namespace
}  // namespace tqcore
