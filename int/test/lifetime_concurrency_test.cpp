// Process lifetime under threads: fork while other threads hold the library's locks, the order
// of exit, observers released outside a future's lock, and records shared between threads.
#include <tqcore/diagnostics.h>
#include <tqcore/error_exception.h>
#include <tqcore/future.h>
#include <tqcore/object_key.h>
#include <tqcore/random.h>
#include <tqcore/result_control.h>
#include <tqcore/static_instance.h>
#include <tqcore/uuid.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "test_support.h"

namespace tqcore {
namespace {

using tqcore_test::kAddressSanitizer;

using tqcore_test::ChildResult;
using tqcore_test::run_in_child;

// What a forked child does first: every family whose lock another thread may have held.
int use_every_lock_in_child() {
  alarm(10);  // a child that hangs on a lock held across fork dies by SIGALRM
  unsigned char bytes[64];
  random_fill(bytes, sizeof(bytes));
  StringKey const key("child.key");
  UuidKey const uuid_key(Uuid::create_random());
  std::ostringstream name;
  name << ObjectKey::create_unique();
  Uuid::create_sequential();
  static StaticInstance<std::string> instance;
  instance->assign("built in the child");
  bool const traced = kAddressSanitizer || !get_stack_backtrace(0, 2).empty();
  return key == StringKey("child.key") && !name.str().empty() && traced ? 0 : 1;
}

// Each worker keeps one family's locks busy while the main thread forks.
TEST(Fork, ChildrenNeverHangOnALockAnotherThreadHeld) {
  std::atomic<bool> stop{false};
  std::vector<std::function<void()>> const work = {
      [] {
        unsigned char bytes[4096];
        random_fill(bytes, sizeof(bytes));
      },
      [] { StringKey(("fork.key." + std::to_string(random_uint32() % 64)).c_str()); },
      [] { Uuid::create_sequential(); },
      [] {
        // The symbol engine's lock. Not under GCC 12's AddressSanitizer, whose allocator takes
        // no lock around fork: a child that symbolises (thousands of allocations) meets one of
        // its locks held by a worker often enough to hang.
        if (!kAddressSanitizer) get_stack_backtrace(0, 3);
      },
      [] {
        std::ostringstream text;
        text << ObjectKey::create_unique();
      },
      [] {
        // Each first use takes the build lock and the cleanup registry's lock.
        static StaticInstance<int> many[4000];
        static std::atomic<size_t> next{0};
        size_t const i = next.fetch_add(1, std::memory_order_relaxed);
        if (i < 4000) many[i].get();
      },
  };
  std::vector<std::thread> workers;
  for (auto const& job : work) {
    workers.emplace_back([&stop, job] {
      while (!stop.load(std::memory_order_relaxed)) job();
    });
  }
  int hung = 0;
  for (int i = 0; i < 60; ++i) {
    ChildResult const child = run_in_child(use_every_lock_in_child);
    if (!child.exited(0)) ++hung;
  }
  stop = true;
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(hung, 0);
}

// An instance destroyed at exit still finds keys, sequential identifiers and controls.
struct UsesTheLibraryWhenItEnds {
  ~UsesTheLibraryWhenItEnds() {
    StringKey const key("used.at.exit");
    Uuid const id = Uuid::create_sequential();
    Future<int> future;
    ResultControlFutureRef<int> control(future);
    control.create_async_handler()->on_async_result_success(5);
    std::printf("at exit: %s %d %d\n", key == StringKey("used.at.exit") ? "key" : "no key",
                !id.is_null(), future.get());
  }
};

TEST(ExitOrder, StaticInstancesEndBeforeTheStateTheyUse) {
  ChildResult const child = run_in_child([] {
    static StaticInstance<UsesTheLibraryWhenItEnds> instance;
    instance.get();
    std::exit(0);
    return 1;
  });
  EXPECT_TRUE(child.exited(0)) << child.output;
  EXPECT_NE(child.output.find("at exit: key 1 5\n"), std::string::npos) << child.output;
}

// The observer's owner holds the last reference to a handler of the same future; releasing it
// asks the future again, which must not happen under the future's own lock.
struct HandlerOwner : RefCounted<AtomicRefCount>, IFutureObserver<int> {
  RefCountPtr<AsyncResult<int>> handler;
  void future_failed(ErrorInfo::Ptr const&) override {}
  void future_succeeded(int const&) override {}
};

TEST(FutureObservers, ReleasedAfterTheLockSoTheyMayAskTheFuture) {
  ChildResult const child = run_in_child([] {
    alarm(10);  // a deadlock ends the child by SIGALRM
    Future<int> future;
    RefCountPtr<HandlerOwner> owner(new HandlerOwner);
    {
      ResultControlFutureRef<int> control(future);
      owner->handler = control.create_async_handler();
    }
    future.add_observer(owner.get(), owner);
    HandlerOwner* const raw = owner.get();
    owner.reset();  // the future's observer list holds the last reference now
    (void)raw;
    future.set(1);  // releasing the observer ends the handler, which asks is_ready()
    return future.get() == 1 ? 0 : 1;
  });
  EXPECT_TRUE(child.exited(0)) << child.status << child.output;
}

// One exception object read by several threads, as std::exception_ptr hands it around.
TEST(SharedRecords, WhatOfOneExceptionFromManyThreads) {
  for (int round = 0; round < 50; ++round) {
    std::exception_ptr const shared = std::make_exception_ptr(ErrorException(
        ErrorInfo::create(ErrorCode("error.test.shared"), "shared", SourceLocation("t", "t", 1))));
    std::vector<std::thread> readers;
    std::atomic<int> whole{0};
    for (int i = 0; i < 4; ++i) {
      readers.emplace_back([&] {
        try {
          std::rethrow_exception(shared);
        } catch (ErrorException const& e) {
          if (std::string(e.what()).find("error.test.shared") != std::string::npos) ++whole;
        }
      });
    }
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(whole.load(), 4);
  }
}

// Two sinks record the same text at once; each must find its own offset afterwards.
struct Text final : StringTraceData {
  std::pair<char const*, size_t> trace_text() const override { return {"t", 1}; }
};

TEST(SharedRecords, TwoTraceSinksRecordOneTextAtOnce) {
  for (int round = 0; round < 200; ++round) {
    Text text;
    std::thread first([&] { text.set_trace_file_offset(0, 7, 100); });
    std::thread second([&] { text.set_trace_file_offset(1, 8, 200); });
    first.join();
    second.join();
    ASSERT_EQ(text.query_trace_file_offset(0, 7), 100u) << round;
    ASSERT_EQ(text.query_trace_file_offset(1, 8), 200u) << round;
  }
}

}  // namespace
}  // namespace tqcore
