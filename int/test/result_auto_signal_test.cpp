// The scope guard over handlers: failure on every path but the one that signals success.
#include <tqcore/result_auto_signal.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "test_support.h"

namespace tqcore {
namespace {

using tqcore_test::failure;
using tqcore_test::Placed;
using tqcore_test::raised_by;

template <class T>
struct SuccessIgnored : IFutureObserver<T> {
  void future_succeeded(T const&) override {}
};
template <>
struct SuccessIgnored<void> : IFutureObserver<void> {
  void future_succeeded() override {}
};

// Futures and the handlers that deliver into them; each failure is logged by the index of its
// future, so that the order of signals shows.
template <class T = void>
class Operations {
 public:
  explicit Operations(int count) {
    for (int i = 0; i < count; ++i) {
      futures.emplace_back();
      ResultControlFutureRef<T> const control(futures.back());
      handlers.push_back(control.create_async_handler());
      auto observer = RefCountPtr<Observer>(new Observer(&failed_in_order, i));
      futures.back().add_observer(observer.get(), observer);
    }
  }

  std::vector<Future<T>> futures;
  std::vector<RefCountPtr<AsyncResult<T>>> handlers;
  std::vector<int> failed_in_order;

 private:
  struct Observer : RefCounted<AtomicRefCount>, SuccessIgnored<T> {
    Observer(std::vector<int>* log, int index) : log(log), index(index) {}
    void future_failed(ErrorInfo::Ptr const&) override { log->push_back(index); }
    std::vector<int>* log;
    int index;
  };
};

TEST(AutoSignal, AHandlerLeftWithoutAFailureGetsTheGuardsOwnError) {
  Operations<> ops(1);
  { AutoSignalAsyncResult<> const guard(ops.handlers[0]); }
  ErrorInfo::Ptr const error = ops.futures[0].error_info();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code().value(), "error.tqcore.result");
  EXPECT_EQ(error->message(), "Derived class neither set the failure nor called signal_success().");
  EXPECT_EQ(error->location().function(),
            "tqdispatcher::impl::AutoSignalAsyncResultBase::~AutoSignalAsyncResultBase()");
}

TEST(AutoSignal, TheFailureReachesEveryHandlerInOrder) {
  Operations<int> ops(3);
  ErrorInfo::Ptr const cause = failure("error.test.abandoned");
  {
    AutoSignalAsyncResult<int> guard(ops.handlers[2], cause);
    guard.push_back(ops.handlers[0]);
    guard.push_back(ops.handlers[1]);
    EXPECT_TRUE(guard.has_failure());
  }
  EXPECT_EQ(ops.failed_in_order, (std::vector<int>{2, 0, 1}));
  for (Future<int> const& future : ops.futures) EXPECT_EQ(future.error_info(), cause);
}

TEST(AutoSignal, SuccessReachesEveryHandlerAndEmptiesTheGuard) {
  Operations<std::string> ops(3);
  {
    AutoSignalAsyncResult<std::string> guard(ops.handlers, failure("error.test.unused"));
    guard.signal_success("done");
    guard.signal_success("again");  // nothing left to signal
  }
  EXPECT_TRUE(ops.failed_in_order.empty());
  for (Future<std::string> const& future : ops.futures) EXPECT_EQ(future.get(), "done");
}

TEST(AutoSignal, AMoveOnlyValueForTwoHandlersRaisesAndTheGuardStillFailsBoth) {
  using Box = std::unique_ptr<int>;
  Operations<Box> two(2);
  {
    AutoSignalAsyncResult<Box> guard(two.handlers);
    ErrorInfo::Ptr const raised = raised_by([&] { guard.signal_success(Box(new int(1))); });
    ASSERT_TRUE(raised);
    EXPECT_EQ(raised->code().value(), "error.tqcore.result.badParameter");
  }
  EXPECT_EQ(two.failed_in_order, (std::vector<int>{0, 1}));
}

TEST(AutoSignal, AHandlerThatRaisesLeavesTheRestToReportThemselves) {
  Operations<> ops(2);
  ops.futures[0].set();  // the first handler's next signal is redundant
  Placed<AutoSignalAsyncResult<>> guard(ops.handlers);
  ops.handlers.clear();
  ErrorInfo::Ptr const raised = guard.end();
  ASSERT_TRUE(raised);
  EXPECT_EQ(raised->code().value(), "error.tqcore.result.redundantSignal");
  EXPECT_EQ(raised->nested()->code().value(), "error.tqcore.result");
  // The second handler was released unsignalled, and said so itself.
  EXPECT_EQ(ops.futures[1].error_info(), impl::create_result_not_signaled_error());
}

TEST(AutoSignal, AMovedGuardLeavesNoSecondOwner) {
  Operations<int> ops(1);
  {
    AutoSignalAsyncResult<int> first(ops.handlers[0]);
    AutoSignalAsyncResult<int> second(std::move(first));
    second.signal_success(8);
  }  // `first` ends empty: no second signal, nothing raised
  EXPECT_EQ(ops.futures[0].get(), 8);
  EXPECT_TRUE(ops.failed_in_order.empty());
}

}  // namespace
}  // namespace tqcore
